#!/bin/bash
# Interoperability with other dBase programs, both ways:
#   * tables written by python3-dbf (code pages 850 and 1252) read through
#     `codpostales tabla` with their accents, numbers, flags and dates;
#   * tables this engine writes (crear_tabla_dbf, then `codpostales anadir`
#     twice) read identically with python3-dbfread, Perl's XBase and DBD::XBase.
#
#   bash interop_peers.sh BUILD_DIR SHARED_DIR
#
# The checks themselves are in tests/interop/interop_peers.py. Needs the
# Debian packages python3-dbf, python3-dbfread and libdbd-xbase-perl.
set -u

build_dir=${1:?uso: interop_peers.sh BUILD_DIR SHARED_DIR}
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
driver=$here/../interop/interop_peers.py

fail() {
  echo "interop_peers: $*" >&2
  echo "0 passed, 1 failed"
  exit 1
}

# Debian's python modules are seen by the system interpreter, not by others on PATH.
python=/usr/bin/python3
[ -x "$python" ] || python=python3

[ -x "$build_dir/bin/codpostales" ] || fail "no encuentro $build_dir/bin/codpostales (compila el objetivo codpostales)"
[ -r "$driver" ] || fail "no encuentro $driver"
"$python" -c 'import dbf' 2>/dev/null || fail "falta el módulo dbf de $python (paquete python3-dbf)"
"$python" -c 'import dbfread' 2>/dev/null || fail "falta el módulo dbfread de $python (paquete python3-dbfread)"
perl -MXBase -MDBD::XBase -MDBI -MJSON::PP -e 1 2>/dev/null || fail "faltan XBase y DBD::XBase de Perl (paquete libdbd-xbase-perl)"

exec "$python" "$driver" "$build_dir"
