#!/usr/bin/python3
# Peer: Debian's python3-dbfread. Read-only and without indexes: it opens,
# reads every row and filters by scanning; it cannot append, build tags or seek.
import os
import sys

sys.dont_write_bytecode = True  # nothing written beside the scripts
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import dbfread  # noqa: E402

import comun_par as c  # noqa: E402

PAR = 'python3-dbfread %s' % dbfread.__version__


def abre(path):
    # The header names the code page (language driver 0x14: cp850).
    return dbfread.DBF(path, load=False, char_decode_errors='strict')


def leer(path):
    n = 0
    for r in abre(path):
        n += 1  # every field is converted into the row's dict
    return n


def filtrar(t, campo, valor, leido, orden):
    return c.selecciona(t, campo, valor, leido, (lambda r: tuple(r[f] for f in orden)) if orden else None)


def main():
    op, a, rep = c.argumentos()
    if c.lee_o_filtra(PAR, op, a, rep, leer, abre, filtrar):
        return
    if op in ('tags', 'buscar'):
        c.no_puede(PAR, op, 'sin índices: dbfread no construye tags ni busca por clave')
    elif op == 'anadir':
        c.no_puede(PAR, op, 'sólo lectura: dbfread no escribe tablas')
    else:
        sys.exit('operación desconocida: ' + op)


if __name__ == '__main__':
    main()
