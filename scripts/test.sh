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
step() { echo "=== $1 (at ${SECONDS}s)"; }
for preset in $presets; do
  step "$preset: build"
  bash scripts/build.sh "$preset"
  step "$preset: test"
  ctest --preset "$preset" --parallel "$jobs"
done
# Each fuzz target for a bounded time (QUORVEL_FUZZ_SECONDS=0 skips it).
fuzz_seconds="${QUORVEL_FUZZ_SECONDS:-30}"
if [ "$fuzz_seconds" -gt 0 ]; then
  step "fuzz: build, then ${fuzz_seconds}s per target"
  bash scripts/fuzz.sh "$fuzz_seconds"
fi
step "done"
