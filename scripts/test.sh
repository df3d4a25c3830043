#!/usr/bin/env bash
# Installs what is needed, builds and runs the whole test suite: plain, under
# AddressSanitizer + UndefinedBehaviorSanitizer, and under ThreadSanitizer; then runs each
# fuzz target for a bounded time.
# Choose presets with QUORVEL_TEST_PRESETS="dev asan-ubsan".
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh --tests
presets="${QUORVEL_TEST_PRESETS:-dev asan-ubsan tsan}"
jobs="$(nproc 2>/dev/null || echo 2)"
for preset in $presets; do
  echo "=== $preset: build"
  bash scripts/build.sh "$preset"
  echo "=== $preset: test"
  ctest --preset "$preset" --parallel "$jobs"
done
# Each fuzz target for a bounded time (QUORVEL_FUZZ_SECONDS=0 skips it).
fuzz_seconds="${QUORVEL_FUZZ_SECONDS:-40}"
if [ "$fuzz_seconds" -gt 0 ]; then
  bash scripts/fuzz.sh "$fuzz_seconds"
fi
