#!/usr/bin/env bash
# Installs what is needed, builds and runs the whole test suite: plain, under
# AddressSanitizer + UndefinedBehaviorSanitizer, and under ThreadSanitizer.
# Choose presets with QUORVEL_TEST_PRESETS="dev asan-ubsan".
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
presets="${QUORVEL_TEST_PRESETS:-dev asan-ubsan tsan}"
jobs="$(nproc 2>/dev/null || echo 2)"
for preset in $presets; do
  echo "=== $preset: build"
  bash scripts/build.sh "$preset"
  echo "=== $preset: test"
  ctest --preset "$preset" --parallel "$jobs"
done
