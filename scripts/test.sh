#!/usr/bin/env bash
# Installs what is needed, builds and runs the whole test suite: plain, under
# AddressSanitizer + UndefinedBehaviorSanitizer, and under ThreadSanitizer (warnings are errors
# in each); smoke-runs the benchmarks; builds the plain and shared configurations without a
# preset and runs the Python package's tests on the shared one (and, on a shared build without
# libcurl, those that bring their own transport); checks the C API against its
# ABI baseline; then runs each fuzz target for a bounded time. Each build serves every step
# that needs one like it; the steps print when they start and the script its total.
# Choose presets with QUORVEL_TEST_PRESETS="dev asan-ubsan".
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh --tests
presets="${QUORVEL_TEST_PRESETS:-dev asan-ubsan tsan}"
configurations="${QUORVEL_TEST_CONFIGURATIONS:-1}"
jobs="$(nproc 2>/dev/null || echo 2)"
step() { echo "=== $1 (at ${SECONDS}s)"; }
# The total, also when a step fails.
trap 'echo "=== scripts/test.sh: $([ $? = 0 ] && echo passed || echo FAILED) after ${SECONDS}s"' EXIT
# The shared configuration without a preset, as the README offers it, with its defaults plus
# debug information: built once, first, because four steps use it: the plain preset's package
# test installs it, the Python tests run on it, the build without libcurl borrows its
# emulator, and the ABI check reads its library (QUORVEL_TEST_CONFIGURATIONS=0 skips it).
# It is the one build that compiles file by file, so that a missing include in the library or
# the tools shows; it builds what it installs and what those steps run, not the tests, which
# every other build compiles in unity batches (they took half its time and were never run).
# Clang compiles it, in half GCC's time file by file; GCC compiles the library and the tools
# in the dev preset and, optimised, in the static configuration below, so both compilers'
# warnings still fail the command. The C API's baseline reads the same from either compiler.
shared=build/plain-shared-ON
if [ "$configurations" != 0 ]; then
  step "configure and build without a preset, BUILD_SHARED_LIBS=ON, what it installs (clang)"
  # CC and CXX choose the compiler of a new tree only: a tree made with another one is made anew.
  if [ -f "$shared/CMakeCache.txt" ] &&
    ! grep -q '^CMAKE_CXX_COMPILER:[A-Z]*=.*clang++$' "$shared/CMakeCache.txt"; then
    rm -rf "$shared"
  fi
  CC=clang CXX=clang++ cmake -S . -B "$shared" -G Ninja -DBUILD_SHARED_LIBS=ON \
    -DQUORVEL_WERROR=ON -DCMAKE_CXX_FLAGS=-g >/dev/null
  cmake --build "$shared" --parallel "$jobs" \
    --target quorvel quorvel_testing quorvel-demo quorvel-devserver >/dev/null
  export QUORVEL_PACKAGE_SHARED_TREE="$PWD/$shared"
fi
for preset in $presets; do
  step "$preset: build"
  bash scripts/build.sh "$preset"
  step "$preset: test"
  ctest --preset "$preset" --parallel "$jobs"
  # Every benchmark once, briefly, so that none stops building or running unnoticed: a smoke
  # run proves that, not a timing.
  if [ "$preset" = dev ]; then
    step "$preset: benchmarks, smoke run"
    # The chaos and consent runs mostly wait (on kills, timers and the emulator): they run
    # beside the others, each into its log, shown once it ended. None of their figures is
    # judged here, and the others pass when every event arrived within a generous bound.
    # An event lost in a kill's window is waited for 4 s, not the measuring runs' 20.
    build/dev/bench/quorvel_chaos --kills 8 --bound 60 --disk-full-trials 2 --drain-idle 4 \
      >build/dev/smoke-chaos.log 2>&1 &
    chaos=$!
    build/dev/bench/quorvel_consent --runs 1 --pair-trials 2 >build/dev/smoke-consent.log 2>&1 &
    consent=$!
    build/dev/bench/quorvel_benchmark --benchmark_min_time=0.001 >/dev/null 2>&1
    build/dev/bench/quorvel_burst --events 300 --emulator-requests 300 --bound 120 --idle 1
    build/dev/bench/quorvel_cost --quick --bound 120
    build/dev/bench/quorvel_storage_faults >/dev/null
    smoke_ended() {
      local status=0
      wait "$2" || status=$?
      cat "build/dev/smoke-$1.log"
      if [ "$status" != 0 ]; then
        echo "smoke run $1: FAILED ($status)"
        exit 1
      fi
    }
    smoke_ended chaos "$chaos"
    smoke_ended consent "$consent"
    build/dev/bench/quorvel_salvage 20 1 >/dev/null
  fi
done
if [ "$configurations" != 0 ]; then
  # The static configuration without a preset, optimised in unity batches: the library and the
  # tools compiled as the README's first command compiles them (the release preset is this
  # with options that do not reach them), so that the warnings only an optimiser finds show,
  # and the demo below runs from it. Its tests would repeat the presets' builds, which compile
  # and link every test statically already; the shared one compiled the library and the tools
  # file by file.
  static=build/plain-shared-OFF
  step "configure and build without a preset, BUILD_SHARED_LIBS=OFF, optimised, library and tools"
  cmake -S . -B "$static" -G Ninja -DBUILD_SHARED_LIBS=OFF -DQUORVEL_WERROR=ON \
    -DCMAKE_UNITY_BUILD=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$static" --parallel "$jobs" \
    --target quorvel quorvel_testing quorvel-demo quorvel-devserver >/dev/null
  step "Python package: installed into a virtual environment, tested against the shared build"
  bash scripts/python-test.sh "$shared"
  # Without libcurl the library needs none at run time and sends through a host's transport.
  # Clang compiles it in two thirds of GCC's time; GCC compiles the same sources above.
  step "shared library without libcurl: no libcurl needed, a session through the Python transport"
  if [ -f build/no-curl/CMakeCache.txt ] &&
    ! grep -q '^CMAKE_CXX_COMPILER:[A-Z]*=.*clang++$' build/no-curl/CMakeCache.txt; then
    rm -rf build/no-curl
  fi
  CC=clang CXX=clang++ cmake -S . -B build/no-curl -G Ninja -DBUILD_SHARED_LIBS=ON \
    -DQUORVEL_WITH_CURL=OFF -DQUORVEL_BUILD_TOOLS=OFF -DQUORVEL_WERROR=ON \
    -DCMAKE_UNITY_BUILD=ON >/dev/null
  cmake --build build/no-curl --parallel "$jobs" --target quorvel >/dev/null
  if readelf -d build/no-curl/src/libquorvel.so | grep -q 'NEEDED.*libcurl'; then
    echo "libquorvel.so built without libcurl still needs it"; exit 1
  fi
  QUORVEL_DEVSERVER="$shared/tools/devserver/quorvel-devserver" \
    bash scripts/python-test.sh build/no-curl -k "transport or misuse"
fi
# The C API against its baseline: a removed or changed C function fails. It reads the shared
# build's library, or builds its own when that was skipped.
step "C API: ABI check against abi/libquorvel.abi"
if [ "$configurations" != 0 ]; then
  bash scripts/abi-check.sh "$shared"
else
  bash scripts/abi-check.sh
fi
# The README's first command: the demo against the emulator, from the optimised static build
# above (its own release build would compile the same again: the preset is configured here,
# not built); whole, build included, when that build was skipped.
if [ "$configurations" != 0 ]; then
  step "the main job: scripts/demo.sh (the optimised static build's tools, against the emulator)"
  cmake --preset release -DQUORVEL_BUILD_TESTS=OFF -DQUORVEL_BUILD_BENCHMARKS=OFF >/dev/null
  QUORVEL_DEMO_BUILD="$static" bash scripts/demo.sh >build/demo.log 2>&1 ||
    { tail -40 build/demo.log; exit 1; }
else
  step "the main job: scripts/demo.sh (release build, the demo against the emulator)"
  bash scripts/demo.sh >build/demo.log 2>&1 || { tail -40 build/demo.log; exit 1; }
fi
# Each fuzz target for a bounded time (QUORVEL_FUZZ_SECONDS=0 skips it).
fuzz_seconds="${QUORVEL_FUZZ_SECONDS:-30}"
if [ "$fuzz_seconds" -gt 0 ]; then
  # The asan-ubsan preset is a clang build with the fuzz targets (its library at -O1): when it
  # ran, its targets are fuzzed rather than compiled a second time in the fuzz preset's tree.
  case " $presets " in
    *" asan-ubsan "*) export QUORVEL_FUZZ_BUILD=build/asan-ubsan ;;
  esac
  step "fuzz: ${QUORVEL_FUZZ_BUILD:-build/fuzz}'s targets, ${fuzz_seconds}s each, one per core at a time"
  bash scripts/fuzz.sh "$fuzz_seconds"
fi
