#!/usr/bin/env bash
# Builds the optimised benchmarks and runs them (medians of repeated runs).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
bash scripts/build.sh release
./build/release/bench/quorvel_benchmark --benchmark_repetitions=5 \
  --benchmark_report_aggregates_only=true "$@"
