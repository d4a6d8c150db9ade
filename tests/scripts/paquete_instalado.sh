#!/bin/bash
# The installed package, used as a project outside the tree would use it:
# installs the build into a scratch prefix, builds tests/package/host against
# it (the CMake package for a C++ host, pkg-config for a C one), runs both
# and the installed command, over the sample data.
#
#   bash paquete_instalado.sh BUILD_DIR SHARED_DIR
#
# The host is built with the build's own compiler and generator; a build with
# the sanitizers hands their link options on through the installed target.
set -u

build_dir=${1:?uso: paquete_instalado.sh BUILD_DIR SHARED_DIR}
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
repo=$(cd "$here/../.." && pwd)
host_src=$repo/tests/package/host
muestra=$repo/data/muestra

passed=0
failed=0
check() {  # check NAME COMMAND...: one result line per check
  local name=$1
  shift
  if "$@"; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    echo "paquete_instalado: FALLA: $name" >&2
  fi
}
fail() {
  echo "paquete_instalado: $*" >&2
  echo "$passed passed, $((failed + 1)) failed"
  exit 1
}

cache=$build_dir/CMakeCache.txt
[ -r "$cache" ] || fail "no encuentro $cache"
cache_value() { sed -n "s/^$1:[A-Z]*=//p" "$cache"; }
cxx=$(cache_value CMAKE_CXX_COMPILER)
generator=$(cache_value CMAKE_GENERATOR)
build_type=$(cache_value CMAKE_BUILD_TYPE)

tmp=$(mktemp -d "${TMPDIR:-/tmp}/paquete_instalado.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefijo

cmake --install "$build_dir" --prefix "$prefix" >"$tmp/install.log" 2>&1 ||
  { cat "$tmp/install.log" >&2; fail "cmake --install falló"; }

has() { [ -e "$prefix/$1" ]; }
check "biblioteca" has lib/libcodpostales.so
check "orden codpostales" has bin/codpostales
for h in lookup/ClaseCodPostales.h lookup/CodPostalesDM.h lookup/SugerenciasLocalidad.h platform/TLMDMessageHint.h \
  platform/EventosControles.h municipalities/IMunicipios.h import/ImportarVias.h \
  dbase/TTable.h dbase/TDataSource.h dbase/core/error.h services/Ruttb.h services/Rnumcad.h package/Paquete.h; do
  check "cabecera $h" has "include/codpostales/$h"
done
# The host creates and frees controllers by these names: the library exports
# both creating forms and the freeing one.
simbolos=$(nm -DC --defined-only "$prefix/lib/libcodpostales.so" 2>/dev/null)
exporta() { grep -qF " T $1" <<<"$simbolos"; }
check "exporta CreateClassCodPostal sin controles" \
  exporta "CreateClassCodPostal(QObject*, QString const&, bool, QString const&)"
check "exporta CreateClassCodPostal con controles" exporta "CreateClassCodPostal(QObject*, QString const&, bool, QWidget*, "
check "exporta DestroyClassCodPostal" exporta "DestroyClassCodPostal(TClaseCodPostales*)"
check "CodPostalesConfig.cmake" has lib/cmake/CodPostales/CodPostalesConfig.cmake
check "CodPostalesConfigVersion.cmake" has lib/cmake/CodPostales/CodPostalesConfigVersion.cmake
check "codpostales.pc" has lib/pkgconfig/codpostales.pc

cmake -S "$host_src" -B "$tmp/build" -G "$generator" -DCMAKE_BUILD_TYPE="${build_type:-Debug}" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$prefix" >"$tmp/configure.log" 2>&1 ||
  { cat "$tmp/configure.log" >&2; fail "no se configura el anfitrión"; }
cmake --build "$tmp/build" -j1 >"$tmp/build.log" 2>&1 ||
  { cat "$tmp/build.log" >&2; fail "no se compila el anfitrión"; }

export LD_LIBRARY_PATH="$prefix/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
export QT_QPA_PLATFORM=offscreen

out=$("$tmp/build/anfitrion" "$muestra" 2>"$tmp/anfitrion.err")
status=$?
cat "$tmp/anfitrion.err" >&2
echo "$out"
check "el anfitrión sale con 0" [ "$status" -eq 0 ]
check "el anfitrión halla MADRID, 28079" grep -qx "COD_INE 28079" <<<"$out"
check "el anfitrión crea una ficha con CreateClassCodPostal" \
  grep -qx "ficha: MADRID \\[28\\] | GETAFE | 28065 | 28901" <<<"$out"
check "el anfitrión ve las unidades" \
  grep -qx "paquete codpostales [0-9.]*: CodPostalesDM ClaseCodPostales ListadoMunicipios ImportarVias" <<<"$out"
check "Finalize cierra tras Initialize" grep -qx "ClaseCodPostales: arranques 1, cierres 1, cargas 0" <<<"$out"

out=$("$tmp/build/anfitrion_c")
status=$?
echo "$out"
check "el programa en C sale con 0" [ "$status" -eq 0 ]
check "dos cargas arrancan y cierran una vez" grep -qx "ImportarVias 1 1 0" <<<"$out"

# The installed command finds the library beside it, without LD_LIBRARY_PATH.
out=$(env -u LD_LIBRARY_PATH "$prefix/bin/codpostales" ine --alias "$muestra" --provincia 28 MADRID)
check "la orden instalada" [ "$out" = $'COD_INE\n28079' ]

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
