#!/usr/bin/env bash
# Configures and builds one preset: dev (default), asan-ubsan, tsan or release.
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-dev}"
jobs="$(nproc 2>/dev/null || echo 2)"
cached_compiler() { sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "build/$preset/CMakeCache.txt" 2>/dev/null || true; }
before="$(cached_compiler)"
cmake --preset "$preset" >/dev/null
# A preset whose compiler is not the one its directory was configured with makes CMake empty the
# cache and configure with the compiler alone, every other setting of the preset (the
# sanitizers among them) lost: a second configure applies them.
if [ -n "$before" ] && [ "$(cached_compiler)" != "$before" ]; then
  cmake --preset "$preset" >/dev/null
fi
cmake --build --preset "$preset" --parallel "$jobs"
