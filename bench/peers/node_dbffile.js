#!/usr/bin/env node
// Peer: the npm package dbffile (installed by bench/run into
// BUILD/peers/node_modules; found through NODE_PATH). Reads every row,
// filters by scanning, appends with appendRecords. No indexes: no tags and
// no seeks.
//
//   node_dbffile.js leer FICHERO
//   node_dbffile.js filtrar FICHERO CAMPO VALOR CAMPO_LEIDO [ORDEN]
//   node_dbffile.js anadir ORIGEN COPIA N
//   options: --repeticiones R (default 3)
// One JSON line per operation, as the other peers.
'use strict';
const fs = require('fs');
const path = require('path');
const { DBFFile } = require('dbffile');
const version = require('dbffile/package.json').version;

const PAR = `npm dbffile ${version}`;
// Language driver 0x14 of the reference tables: code page 850.
const OPCIONES = { encoding: 'cp850' };
const LOTE = 10000;  // rows per readRecords call

function argumentos() {
  const args = process.argv.slice(2);
  let repeticiones = 3;
  const i = args.indexOf('--repeticiones');
  if (i >= 0) {
    repeticiones = Number(args[i + 1]);
    args.splice(i, 2);
  }
  return { op: args[0], a: args.slice(1), repeticiones };
}

async function cronometra(repeticiones, fn, preparar) {
  const s = [];
  let r;
  for (let k = 0; k < repeticiones; k++) {
    if (preparar) await preparar();
    const t0 = process.hrtime.bigint();
    r = await fn();
    s.push(Number(process.hrtime.bigint() - t0) / 1e9);
  }
  return [s, r];
}

function emite(op, fichero, datos) {
  console.log(JSON.stringify(Object.assign({ par: PAR, op, fichero: path.basename(fichero) }, datos)));
}

// Every row, in batches, each a plain object with every field converted.
async function* filas(dbf) {
  for (;;) {
    const lote = await dbf.readRecords(LOTE);
    if (lote.length === 0) return;
    yield* lote;
  }
}

async function main() {
  const { op, a, repeticiones } = argumentos();
  if (op === 'leer') {
    const [s, n] = await cronometra(repeticiones, async () => {
      const dbf = await DBFFile.open(a[0], OPCIONES);
      let n = 0;
      for await (const r of filas(dbf)) n += r ? 1 : 0;
      return n;
    });
    emite(op, a[0], { filas: n, s });
  } else if (op === 'filtrar') {
    const [fichero, campo, valor, leido, orden] = a;
    const campos = orden ? orden.split('+') : [];
    const [s, n] = await cronometra(repeticiones, async () => {
      // The file handle's read position only moves forward: reopen (a header read).
      const dbf = await DBFFile.open(fichero, OPCIONES);
      const sel = [];
      for await (const r of filas(dbf))
        if (String(r[campo]).trim() === valor) sel.push([campos.map((c) => r[c]).join('\u0000'), r[leido]]);
      if (campos.length) sel.sort((x, y) => (x[0] < y[0] ? -1 : x[0] > y[0] ? 1 : 0));
      let total = 0;
      for (const [, v] of sel) total += String(v).length;
      return sel.length;
    });
    emite(op, fichero, { filas: n, s, orden: orden || '' });
  } else if (op === 'anadir') {
    const [origen, copia, nText] = a;
    const n = Number(nText);
    const fuente = await DBFFile.open(origen, OPCIONES);
    const todas = await fuente.readRecords(fuente.recordCount);
    const nuevas = [];
    for (let i = 0; i < n; i++) nuevas.push(todas[(i * 7919) % todas.length]);
    let dbf;
    const [s, total] = await cronometra(
      repeticiones,
      async () => {
        await dbf.appendRecords(nuevas);  // its bulk call: one write for all
        return dbf.recordCount;
      },
      async () => {
        fs.copyFileSync(origen, copia);
        dbf = await DBFFile.open(copia, OPCIONES);
      });
    emite(op, origen, { filas: n, total, s, tags: 0 });
  } else if (op === 'tags' || op === 'buscar') {
    console.log(JSON.stringify({ par: PAR, op, no_puede: 'sin índices: dbffile no construye tags ni busca por clave' }));
  } else {
    console.error(`operación desconocida: ${op}`);
    process.exit(2);
  }
}

main().catch((e) => {
  console.error(e);
  process.exit(1);
});
