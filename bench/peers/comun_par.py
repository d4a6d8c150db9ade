# Shared by the Python peers: the command line, the timing and the output.
#
#   PEER leer FICHERO
#   PEER filtrar FICHERO CAMPO VALOR CAMPO_LEIDO [ORDEN]
#   PEER anadir ORIGEN COPIA N [TAGS]
#   PEER tags FICHERO TAGS
#   PEER buscar FICHERO TAGS TAG exacta|parcial N
#   options: --repeticiones R (default 3)
#
# TAGS is NAME=FIELD+FIELD;NAME=FIELD... and ORDEN is FIELD+FIELD. Each
# operation prints one JSON line: {"par", "op", "fichero", "filas", "s": [seconds
# of each repetition], ...}; an operation the library cannot do prints
# {"par", "op", "no_puede": reason}.
import json
import os
import random
import shutil
import sys
import time


def argumentos():
    args = sys.argv[1:]
    repeticiones = 3
    if '--repeticiones' in args:
        i = args.index('--repeticiones')
        repeticiones = int(args[i + 1])
        del args[i:i + 2]
    if not args:
        sys.exit(__doc__ or 'uso: PEER OPERACION ...')
    return args[0], args[1:], repeticiones


def tags(texto):
    out = []
    for parte in texto.split(';'):
        nombre, campos = parte.split('=')
        out.append((nombre, campos.split('+')))
    return out


def filas_para_anadir(count, n):
    # The same rows the engine benchmarks append.
    return [(i * 7919) % count + 1 for i in range(n)]


def filas_al_azar(count, n, semilla=20260101):
    rng = random.Random(semilla)
    return [rng.randint(1, count) for _ in range(n)]


def cronometra(repeticiones, funcion, preparar=None):
    tiempos = []
    resultado = None
    for _ in range(repeticiones):
        if preparar:
            preparar()
        t0 = time.perf_counter()
        resultado = funcion()
        tiempos.append(time.perf_counter() - t0)
    return tiempos, resultado


def copia(origen, destino):
    shutil.copyfile(origen, destino)


def percentiles(muestras_s):
    m = sorted(muestras_s)
    def at(q):
        import math
        return m[min(len(m) - 1, max(0, math.ceil(q * len(m)) - 1))] * 1e6
    return {'p50_us': at(0.50), 'p90_us': at(0.90), 'p99_us': at(0.99), 'max_us': m[-1] * 1e6}


def emite(par, op, fichero, **datos):
    linea = {'par': par, 'op': op, 'fichero': os.path.basename(fichero) if fichero else None}
    linea.update(datos)
    print(json.dumps(linea, ensure_ascii=False), flush=True)


def no_puede(par, op, motivo):
    print(json.dumps({'par': par, 'op': op, 'no_puede': motivo}, ensure_ascii=False), flush=True)


def selecciona(filas, campo, valor, leido, clave):
    """The rows whose `campo` is `valor` (blanks trimmed), as (key, read
    value) pairs, sorted by key when there is one; touches every read value,
    as a program using them would. Returns how many."""
    sel = [(clave(r) if clave else (), r[leido]) for r in filas if r[campo].strip() == valor]
    if clave:
        sel.sort()
    total = 0
    for _, v in sel:
        total += len(v)
    return len(sel)


def lee_o_filtra(par, op, a, rep, leer, abre, filtrar):
    """The two operations every Python peer has, 'leer' and 'filtrar', timed
    and reported. False when `op` is another one."""
    if op == 'leer':
        tiempos, n = cronometra(rep, lambda: leer(a[0]))
        emite(par, op, a[0], filas=n, s=tiempos)
        return True
    if op == 'filtrar':
        path, campo, valor, leido = a[:4]
        orden = a[4].split('+') if len(a) > 4 and a[4] else None
        t = abre(path)
        tiempos, n = cronometra(rep, lambda: filtrar(t, campo, valor, leido, orden))
        emite(par, op, path, filas=n, s=tiempos, orden=a[4] if orden else '')
        return True
    return False
