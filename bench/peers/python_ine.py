#!/usr/bin/python3
# Peer for the import of INE's street directory: a plain Python reader of the
# stretch file (TRAM), line by line, cutting the fields the import reads by
# their fixed positions, and nothing else (no checks, no join, no table).
#
#   python_ine.py leer TRAM [--repeticiones R]
import os
import sys

sys.dont_write_bytecode = True  # nothing written beside the scripts
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import comun_par as c  # noqa: E402

PAR = 'python %d.%d, lectura por posiciones' % sys.version_info[:2]


def leer(path):
    n = 0
    with open(path, encoding='latin-1', newline='') as f:
        for linea in f:
            linea = linea.rstrip('\r\n')
            cpro, cmun, cvia, cpsvia = linea[0:2], linea[2:5], linea[20:25], linea[25:30]
            cpos, tinum, ein, esn = linea[42:47], linea[47:48], linea[48:52], linea[53:57]
            n += 1
    return n


def main():
    op, a, rep = c.argumentos()
    if op != 'leer':
        sys.exit('operación desconocida: ' + op)
    tiempos, n = c.cronometra(rep, lambda: leer(a[0]))
    c.emite(PAR, op, a[0], filas=n, s=tiempos)


if __name__ == '__main__':
    main()
