#!/usr/bin/env bash
# Checks the C API of libquorvel.so against the baseline in abi/: a removed or changed C
# function fails; an added one is fine. Builds the shared library with debug information
# (which the comparison reads) in build/abi, or reads the one of a shared build given.
#   abi-check.sh [BUILD_DIR]   compare with the baseline (BUILD_DIR: a shared build with
#                              debug information, such as the one scripts/test.sh makes)
#   abi-check.sh --update      make the current library the baseline (a deliberate change of
#                              the C API: say why in the commit)
set -euo pipefail
cd "$(dirname "$0")/.."
update=0
build=""
for argument in "$@"; do
  case "$argument" in
    --update) update=1 ;;
    *) build="$argument" ;;
  esac
done
if [ -z "$build" ]; then
  build=build/abi
  cmake -S . -B "$build" -G Ninja -DBUILD_SHARED_LIBS=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DQUORVEL_BUILD_TESTS=OFF -DQUORVEL_BUILD_TOOLS=OFF -DQUORVEL_BUILD_BENCHMARKS=OFF >/dev/null
  cmake --build "$build" --parallel "$(nproc 2>/dev/null || echo 2)" --target quorvel >/dev/null
fi
library="$(find "$build/src" -name 'libquorvel.so.*.*' | head -1)"
[ -n "$library" ] || { echo "abi-check: no shared library in $build"; exit 1; }
readelf -S "$library" | grep -q '\.debug_info' ||
  { echo "abi-check: $library has no debug information"; exit 1; }
mkdir -p build/abi
baseline=abi/libquorvel.abi
# The C functions only, with the public headers' types: the C++ API's compatibility is kept by
# the library's major version.
{
  echo "[abi_whitelist]"
  nm -D --defined-only "$library" | awk '$3 ~ /^quorvel_/ { sub(/@.*/, "", $3); print "  " $3 }'
} >build/abi/c-api.symbols
abidw --headers-dir include/quorvel --kmi-whitelist build/abi/c-api.symbols --no-corpus-path \
  --drop-private-types --no-show-locs --drop-undefined-syms --exported-interfaces-only \
  "$library" --out-file build/abi/current.abi
if [ "$update" = 1 ]; then
  cp build/abi/current.abi "$baseline"
  echo "abi-check: $baseline updated"
  exit 0
fi
status=0
abidiff --no-added-syms "$baseline" build/abi/current.abi ||
  status=$?
if [ "$status" -ne 0 ]; then
  echo "abi-check: the C API changed incompatibly (abidiff status $status); see above"
  exit 1
fi
echo "abi-check: the C API is compatible with $baseline"
