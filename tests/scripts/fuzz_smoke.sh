#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/) with clang and runs each one for a
# short while from its seed corpus. Any crash, sanitizer report, leak or hang
# fails the test.
#   usage: fuzz_smoke.sh BUILD_DIR [SHARED_DIR]
# FUZZ_SECONDS overrides the time per target (30).
set -euo pipefail

if [[ $# -lt 1 ]]; then
  echo "usage: $0 BUILD_DIR [SHARED_DIR]" >&2
  exit 2
fi
BUILD_DIR=$(mkdir -p "$1" && cd "$1" && pwd)
SOURCE_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
FUZZ_BUILD="$BUILD_DIR/fuzz"
SECONDS_PER_TARGET=${FUZZ_SECONDS:-30}
CXX_FOR_FUZZ=${FUZZ_CXX:-clang++}

if ! command -v "$CXX_FOR_FUZZ" >/dev/null 2>&1; then
  echo "FAIL: $CXX_FOR_FUZZ not found; the fuzz targets need clang with libFuzzer" >&2
  exit 1
fi

generator=()
if command -v ninja >/dev/null 2>&1 && [[ ! -f "$FUZZ_BUILD/CMakeCache.txt" || -f "$FUZZ_BUILD/build.ninja" ]]; then
  generator=(-G Ninja)
fi

echo "== configuring $SOURCE_DIR/fuzz in $FUZZ_BUILD"
if ! cmake -S "$SOURCE_DIR/fuzz" -B "$FUZZ_BUILD" "${generator[@]}" \
     -DCMAKE_CXX_COMPILER="$CXX_FOR_FUZZ" -DCODPOSTALES_ROOT="$SOURCE_DIR" >"$FUZZ_BUILD.configure.log" 2>&1; then
  cat "$FUZZ_BUILD.configure.log" >&2
  echo "FAIL: could not configure the fuzz project" >&2
  exit 1
fi
echo "== building"
if ! cmake --build "$FUZZ_BUILD" -j 2 >"$FUZZ_BUILD.build.log" 2>&1; then
  tail -n 60 "$FUZZ_BUILD.build.log" >&2
  echo "FAIL: could not build the fuzz targets (full log: $FUZZ_BUILD.build.log)" >&2
  exit 1
fi

mapfile -t targets < <(grep -v '^$' "$FUZZ_BUILD/fuzz_targets.txt")
if [[ ${#targets[@]} -eq 0 ]]; then
  echo "FAIL: no fuzz targets were built" >&2
  exit 1
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/fuzz_smoke.XXXXXX")
trap 'rm -rf "$work"' EXIT

passed=0
failed=0
for target in "${targets[@]}"; do
  seeds="$SOURCE_DIR/fuzz/corpus/$target"
  corpus="$work/$target"
  artifacts="$FUZZ_BUILD/artifacts/$target"
  mkdir -p "$corpus" "$artifacts"
  # New inputs go to a scratch corpus, never into the source tree.
  [[ -d "$seeds" ]] && cp -r "$seeds"/. "$corpus"/
  dict=()
  [[ -f "$SOURCE_DIR/fuzz/$target.dict" ]] && dict=(-dict="$SOURCE_DIR/fuzz/$target.dict")
  log="$FUZZ_BUILD/$target.log"
  echo "== $target: ${SECONDS_PER_TARGET}s from $(ls "$corpus" | wc -l) seeds"
  if "$FUZZ_BUILD/$target" "${dict[@]}" -max_total_time="$SECONDS_PER_TARGET" -timeout=10 -rss_limit_mb=2048 \
       -print_final_stats=1 -artifact_prefix="$artifacts/" "$corpus" >"$log" 2>&1; then
    runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || echo "?")
    echo "PASS: $target ($runs runs)"
    passed=$((passed + 1))
  else
    tail -n 40 "$log" >&2
    echo "FAIL: $target crashed; the input is in $artifacts/, the log in $log" >&2
    failed=$((failed + 1))
  fi
done

echo "$passed passed, $failed failed"
[[ $failed -eq 0 ]]
