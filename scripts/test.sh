#!/usr/bin/env bash
# Installs what is needed, builds and runs the whole test suite: plain, under
# AddressSanitizer + UndefinedBehaviorSanitizer, and under ThreadSanitizer (warnings are errors
# in each); smoke-runs the benchmarks; builds the plain and shared configurations without a
# preset and runs the Python package's tests on the shared one (and, on a shared build without
# libcurl, those that bring their own transport); checks the C API against its
# ABI baseline; then runs each fuzz target for a bounded time.
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
  # Every benchmark once, briefly, so that none stops building or running unnoticed: a smoke
  # run proves that, not a timing.
  if [ "$preset" = dev ]; then
    step "$preset: benchmarks, smoke run"
    build/dev/bench/quorvel_benchmark --benchmark_min_time=0.001 >/dev/null 2>&1
    build/dev/bench/quorvel_burst --events 300 --emulator-requests 300 --bound 120 --idle 1
    build/dev/bench/quorvel_chaos --kills 3 --bound 120 --disk-full-trials 2
  fi
done
# The configurations the README offers besides the presets build with their defaults: plain
# (static) and shared, tests and tools included (QUORVEL_TEST_CONFIGURATIONS=0 skips them).
if [ "${QUORVEL_TEST_CONFIGURATIONS:-1}" != 0 ]; then
  for shared in OFF ON; do
    step "configure and build without a preset, BUILD_SHARED_LIBS=$shared"
    cmake -S . -B "build/plain-shared-$shared" -G Ninja -DBUILD_SHARED_LIBS="$shared" \
      -DQUORVEL_WERROR=ON >/dev/null
    cmake --build "build/plain-shared-$shared" --parallel "$jobs" >/dev/null
  done
  step "Python package: installed into a virtual environment, tested against the shared build"
  bash scripts/python-test.sh build/plain-shared-ON
  # Without libcurl the library needs none at run time and sends through a host's transport.
  step "shared library without libcurl: no libcurl needed, a session through the Python transport"
  cmake -S . -B build/no-curl -G Ninja -DBUILD_SHARED_LIBS=ON -DQUORVEL_WITH_CURL=OFF \
    -DQUORVEL_BUILD_TOOLS=OFF -DQUORVEL_WERROR=ON >/dev/null
  cmake --build build/no-curl --parallel "$jobs" --target quorvel >/dev/null
  if readelf -d build/no-curl/src/libquorvel.so | grep -q 'NEEDED.*libcurl'; then
    echo "libquorvel.so built without libcurl still needs it"; exit 1
  fi
  QUORVEL_DEVSERVER=build/plain-shared-ON/tools/devserver/quorvel-devserver \
    bash scripts/python-test.sh build/no-curl -k "transport or misuse"
fi
# The C API against its baseline: a removed or changed C function fails.
step "C API: ABI check against abi/libquorvel.abi"
bash scripts/abi-check.sh
# Each fuzz target for a bounded time (QUORVEL_FUZZ_SECONDS=0 skips it).
fuzz_seconds="${QUORVEL_FUZZ_SECONDS:-30}"
if [ "$fuzz_seconds" -gt 0 ]; then
  step "fuzz: build, then ${fuzz_seconds}s per target"
  bash scripts/fuzz.sh "$fuzz_seconds"
fi
step "done"
