#!/bin/bash
# The demo host, offscreen: it chooses Spain and Madrid, types GETAF, ARRA and
# 12, and prints every control. Checks the address came out whole and the
# pictures were written.
#
#   bash zelmor_demo.sh BUILD_DIR SHARED_DIR
set -u
build_dir=${1:?uso: zelmor_demo.sh BUILD_DIR SHARED_DIR}
demo=$build_dir/bin/zelmor-demo
[ -x "$demo" ] || { echo "zelmor_demo: no encuentro $demo" >&2; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/zelmor_demo.XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
salida=$work/salida.txt
env -u DISPLAY -u WAYLAND_DISPLAY QT_QPA_PLATFORM=offscreen "$demo" --capturas "$work" >"$salida" 2>"$work/errores.txt"
estado=$?

fallos=0
espera() {
  if grep -qxF -- "$1" "$salida"; then echo "ok - $1"; else echo "FAIL - falta «$1»"; fallos=$((fallos + 1)); fi
}
espera "País: ESPAÑA [900]"
espera "Provincia: MADRID [28]"
espera "Localidad: GETAFE"
espera "Tipo de vía: CL - CALLE"
espera "Domicilio: ARRABAL (EL)"
espera "Número: 12"
espera "Código postal: 28905"
espera "Código INE: 28065"
for f in zelmor-demo.png zelmor-demo-localidad.png listado-municipios.png importar-vias.png; do
  if [ -s "$work/$f" ]; then echo "ok - captura $f"; else echo "FAIL - sin captura $f"; fallos=$((fallos + 1)); fi
done
if [ "$estado" -ne 0 ]; then echo "FAIL - salida $estado"; fallos=$((fallos + 1)); fi
if [ "$fallos" -ne 0 ]; then
  echo "--- salida del programa:"; cat "$salida"; echo "--- errores:"; cat "$work/errores.txt"
  exit 1
fi
exit 0
