#!/usr/bin/env bash
# Builds the optimised library, tools and benchmarks (not the tests) and prints the figures:
# the microbenchmarks (medians of repeated runs), then the end-to-end burst against
# quorvel-devserver and the emulator's own requests/s. Arguments go to quorvel_burst
# (for example --events 2000).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh --tests
jobs="$(nproc 2>/dev/null || echo 2)"
cmake --preset release -DQUORVEL_BUILD_TESTS=OFF >/dev/null
cmake --build --preset release --parallel "$jobs" --target quorvel_benchmark quorvel_burst
./build/release/bench/quorvel_benchmark --benchmark_repetitions=5 \
  --benchmark_report_aggregates_only=true
./build/release/bench/quorvel_burst "$@"
