#!/usr/bin/env bash
# Installs the Debian packages the project needs: to build the library and its tools (the
# main job), and with --tests also what the test command uses (GoogleTest, Google Benchmark,
# clang for the sanitizer builds and the fuzzers, Chromium for the inspector's test, the
# format and lint tools, abigail-tools for the C API's ABI check, Python and pytest for the
# Python package's tests).
# Idempotent; needs root (or sudo).
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git ca-certificates
  libssl-dev libcurl4-openssl-dev nlohmann-json3-dev libcpp-httplib-dev
  libsqlite3-dev sqlite3 libcli11-dev openssl
)
if [ "${1:-}" = "--tests" ]; then
  packages+=(
    libgtest-dev libgmock-dev libbenchmark-dev
    clang-format clang-tidy clang libclang-rt-dev
    chromium chromium-driver abigail-tools
    python3-venv python3-pip python3-setuptools python3-pytest
  )
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  echo "install-deps: all packages present"
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
$SUDO apt-get update
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
