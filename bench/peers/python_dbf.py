#!/usr/bin/python3
# Peer: Debian's python3-dbf (the `dbf` module). Reads, filters by scanning,
# appends, and keeps in-memory indexes (Table.create_index), which it updates
# on every append and searches with Index.index_search: the only peer that
# can build tags and seek.
import os
import sys

sys.dont_write_bytecode = True  # nothing written beside the scripts
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import dbf  # noqa: E402

import comun_par as c  # noqa: E402

PAR = 'python3-dbf %s' % '.'.join(str(v) for v in dbf.version)


def abre(path, modo=dbf.READ_ONLY):
    t = dbf.Table(path)
    t.open(modo)
    return t


def clave(campos):
    campos = [f.lower() for f in campos]
    return lambda r: tuple(r[f].strip() if isinstance(r[f], str) else r[f] for f in campos)


def leer(path):
    t = abre(path)
    n = 0
    for r in t:
        tuple(r)  # every field converted
        n += 1
    t.close()
    return n


def filtrar(t, campo, valor, leido, orden):
    # Values are taken out of each row as it passes: holding the row objects
    # makes the library's record cache scan itself on every access.
    return c.selecciona(t, campo.lower(), valor, leido.lower(), clave(orden) if orden else None)


def construye_tags(t, definicion):
    return [t.create_index(clave(campos)) for _, campos in definicion]


def main():
    op, a, rep = c.argumentos()
    if c.lee_o_filtra(PAR, op, a, rep, leer, abre, filtrar):
        return
    if op == 'tags':
        path, definicion = a[0], c.tags(a[1])

        def abrir_con_tags():
            t = abre(path)
            idx = construye_tags(t, definicion)
            n = len(t)
            del idx
            t.close()
            return n
        tiempos, n = c.cronometra(rep, abrir_con_tags)
        c.emite(PAR, op, path, filas=n, s=tiempos, tags=len(definicion))
    elif op == 'buscar':
        path, definicion, nombre, modo, n = a[0], c.tags(a[1]), a[2], a[3], int(a[4])
        campos = dict(definicion)[nombre]
        t = abre(path)
        idx = t.create_index(clave(campos))
        k = clave(campos)
        claves = []
        rng = c.random.Random(7)
        for recno in c.filas_al_azar(len(t), n):
            v = list(k(t[recno - 1]))
            if modo == 'parcial':
                v[-1] = v[-1][:1 + rng.randrange(8)]
            claves.append(tuple(v))
        muestras = []
        encontradas = 0
        for m in claves:
            t0 = c.time.perf_counter()
            try:
                if modo == 'exacta':
                    loc = idx.index_search(m)
                else:
                    loc = idx.index_search(m, nearest=True, partial=True)
                encontradas += bool(loc)
            except dbf.NotFoundError:
                pass
            muestras.append(c.time.perf_counter() - t0)
        c.emite(PAR, op, path, filas=len(t), tag=nombre, modo=modo, busquedas=n, encontradas=encontradas,
                **c.percentiles(muestras))
    elif op == 'anadir':
        origen, copia, n = a[0], a[1], int(a[2])
        definicion = c.tags(a[3]) if len(a) > 3 and a[3] else []
        fuente = abre(origen)
        filas = [tuple(fuente[r - 1]) for r in c.filas_para_anadir(len(fuente), n)]
        fuente.close()
        estado = {}

        def preparar():
            if 'tabla' in estado:
                estado['tabla'].close()
            c.copia(origen, copia)
            estado['tabla'] = abre(copia, dbf.READ_WRITE)
            estado['idx'] = construye_tags(estado['tabla'], definicion)  # built before timing

        def anadir():
            t = estado['tabla']
            for f in filas:
                t.append(f)
            return len(t)
        tiempos, total = c.cronometra(rep, anadir, preparar)
        estado['tabla'].close()
        c.emite(PAR, op, origen, filas=n, total=total, s=tiempos, tags=len(definicion))
    else:
        sys.exit('operación desconocida: ' + op)


if __name__ == '__main__':
    main()
