#!/usr/bin/env bash
# Configures and builds one preset: dev (default), asan-ubsan, tsan or release.
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-dev}"
jobs="$(nproc 2>/dev/null || echo 2)"
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" --parallel "$jobs"
