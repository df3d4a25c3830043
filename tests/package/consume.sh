#!/usr/bin/env bash
# Installs the library into temporary prefixes, static and shared, and builds and runs the
# demo against each through find_package and through pkg-config, and a host's test against
# the installed test kit.
#   consume.sh SOURCE_DIR WORK_DIR [STATIC_BUILD_DIR]
# With STATIC_BUILD_DIR (a build tree of the static library, such as the one running this
# test) the static prefix is installed from it rather than built again; likewise the shared
# prefix from QUORVEL_PACKAGE_SHARED_TREE, a build tree of the shared library, when it is set
# (scripts/test.sh builds one anyway).
set -euo pipefail
source_dir="$1"
work="$2"
static_tree="${3:-}"
shared_tree="${QUORVEL_PACKAGE_SHARED_TREE:-}"
consumer="$source_dir/tests/package/consumer"
demo="$source_dir/tools/demo"

# The demo reports an event to a closed port: the installed library runs, and keeps the event
# as a file for a later run.
run_demo() {
  local run="$2"
  "$1" --data-dir "$run/data" --keychain-dir "$run/keychain" --dev-key CONSUMER-KEY \
    --app-id 123456789 --host localhost:1 --final-flush 30 "event consumer_event" >"$run.out"
  grep -q "^Quorvel version: 4.8" "$run.out" || { echo "the demo did not start"; exit 1; }
  [ -n "$(ls -A "$run/data/Library/Caches/QuorvelCache")" ] || { echo "nothing kept"; exit 1; }
}
rm -rf "$work"
mkdir -p "$work"
jobs="$(nproc 2>/dev/null || echo 2)"

for kind in static shared; do
  shared=OFF
  [ "$kind" = shared ] && shared=ON
  prefix="$work/prefix-$kind"
  echo "=== $kind: build and install"
  tree="$static_tree"
  [ "$kind" = shared ] && tree="$shared_tree"
  if [ -n "$tree" ]; then
    cmake --install "$tree" --prefix "$prefix" >/dev/null
  else
    cmake -S "$source_dir" -B "$work/build-$kind" -G Ninja -DBUILD_SHARED_LIBS="$shared" \
      -DCMAKE_UNITY_BUILD=ON -DQUORVEL_BUILD_TESTS=OFF -DQUORVEL_BUILD_TOOLS=OFF \
      -DCMAKE_INSTALL_PREFIX="$prefix" >/dev/null
    cmake --build "$work/build-$kind" --parallel "$jobs" >/dev/null
    cmake --install "$work/build-$kind" >/dev/null
  fi
  libdir="$(dirname "$(find "$prefix" -name quorvel.pc)")/.."

  if [ "$kind" = shared ]; then
    library="$(find "$prefix" -name 'libquorvel.so.*.*' | head -1)"
    soname="$(objdump -p "$library" | awk '/SONAME/ {print $2}')"
    [ "$soname" = "libquorvel.so.4" ] || { echo "SONAME is '$soname'"; exit 1; }
    # The public API is exported; the internals are not.
    exported="$(nm -DC --defined-only "$library")"
    grep -q "quorvel::QuorvelTracker::trackEvent" <<<"$exported" || { echo "trackEvent not exported"; exit 1; }
    if grep -q "quorvel::QuorvelHTTPClient::" <<<"$exported"; then
      echo "internal classes are exported"; exit 1
    fi
    # Nothing but the C API and the quorvel namespace: the standard library's templates stay in.
    grep -q -E " quorvel_track_event(@@.*)?$" <<<"$exported" || { echo "the C API is not exported"; exit 1; }
    if grep -v -E " (quorvel_|quorvel::|typeinfo|vtable|VTT|non-virtual thunk|virtual thunk|guard variable)|QUORVEL_" <<<"$exported"; then
      echo "symbols outside the API are exported"; exit 1
    fi
    # Its threads run its code until exit: dlclose() must leave it mapped.
    readelf -d "$library" | grep -q NODELETE || { echo "libquorvel can be unloaded"; exit 1; }
  fi

  echo "=== $kind: demo and host test through find_package"
  cmake -S "$consumer" -B "$work/consumer-cmake-$kind" -G Ninja \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_RPATH="$libdir" >/dev/null
  cmake --build "$work/consumer-cmake-$kind" >/dev/null
  run_demo "$work/consumer-cmake-$kind/quorvel-demo" "$work/run-cmake-$kind"
  "$work/consumer-cmake-$kind/host_test"

  echo "=== $kind: demo through pkg-config"
  flags="$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs quorvel)"
  # shellcheck disable=SC2086
  c++ -std=c++20 "$demo/main.cpp" "$demo/DemoOptions.cpp" -o "$work/demo-pc-$kind" $flags \
    -Wl,-rpath,"$libdir"
  run_demo "$work/demo-pc-$kind" "$work/run-pc-$kind"

  if [ "$kind" = shared ]; then
    echo "=== shared: a host written in C, with nothing of C++ on its path"
    c_flags="$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs quorvel-c)"
    # The C test kit asks for the C package only, not the C++ one and its JSON headers.
    kit_requires="$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --print-requires quorvel-testing)"
    [[ "$kit_requires" == "quorvel-c = "* && "$kit_requires" != *nlohmann* ]] ||
      { echo "quorvel-testing.pc requires '$kit_requires'"; exit 1; }
    # shellcheck disable=SC2086
    cc -std=c99 -Wall -Werror "$consumer/c_host.c" -o "$work/c_host" $c_flags -Wl,-rpath,"$libdir"
    "$work/c_host" "$work/run-c/data"
    [ -n "$(ls -A "$work/run-c/data/Library/Caches/QuorvelCache")" ] ||
      { echo "the C host's event was not kept"; exit 1; }

    echo "=== shared: a plugin that brings the library in is unloaded while it works"
    # shellcheck disable=SC2086
    c++ -std=c++20 -shared -fPIC "$consumer/plugin.cpp" -o "$work/plugin.so" $flags \
      -Wl,-rpath,"$libdir"
    c++ -std=c++20 "$consumer/plugin_host.cpp" -o "$work/plugin_host" -ldl
    "$work/plugin_host" "$work/plugin.so" "$work/run-plugin"
    [ -n "$(ls -A "$work/run-plugin/Library/Caches/QuorvelCache")" ] ||
      { echo "the plugin's events were not kept"; exit 1; }
  fi
done
echo "the demo built and ran four ways; the host test passed against the kit, static and shared; a C host ran; the library outlived its unloaded plugin"
