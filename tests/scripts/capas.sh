#!/usr/bin/env bash
# The folders of src/ are layers: each may include its own headers and those
# of the layers before it in this list, never those after it. A header of a
# later layer included from an earlier one fails the test, naming the line.
#   usage: capas.sh BUILD_DIR [SHARED_DIR]
set -euo pipefail
src=$(cd "$(dirname "${BASH_SOURCE[0]}")/../../src" && pwd)

capas=(dbase/core dbase services platform lookup municipalities import package)

# The layer a path under src/ belongs to (the longest folder that holds it).
capa_de() {
  local ruta=$1 mejor=""
  for c in "${capas[@]}"; do
    [[ $ruta == "$c/"* && ${#c} -gt ${#mejor} ]] && mejor=$c
  done
  echo "$mejor"
}

posicion() {
  local i
  for i in "${!capas[@]}"; do [[ ${capas[$i]} == "$1" ]] && { echo "$i"; return; }; done
  echo -1
}

fallos=0
while IFS= read -r fichero; do
  rel=${fichero#"$src"/}
  propia=$(capa_de "$rel")
  if [[ -z $propia ]]; then
    echo "capas: $rel no está en ninguna capa" >&2
    fallos=$((fallos + 1))
    continue
  fi
  nivel=$(posicion "$propia")
  while IFS=: read -r linea incluido; do
    usada=$(capa_de "$incluido")
    [[ -z $usada ]] && continue
    if (( $(posicion "$usada") > nivel )); then
      echo "capas: $rel:$linea ($propia) incluye $incluido ($usada)" >&2
      fallos=$((fallos + 1))
    fi
  done < <(grep -no '^#include "[^"]*"' "$fichero" | sed 's/#include "\(.*\)"/\1/')
done < <(find "$src" -name '*.h' -o -name '*.cpp' -o -name '*.inc' | grep -v '/CMakeLists')

if (( fallos > 0 )); then
  echo "capas: FALLA: $fallos inclusiones contra el orden de las capas" >&2
  exit 1
fi
echo "capas: bien"
