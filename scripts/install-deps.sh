#!/usr/bin/env bash
# Installs every Debian package the project needs to build, test and run.
# Idempotent; needs root (or sudo).
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git ca-certificates
  libssl-dev libcurl4-openssl-dev nlohmann-json3-dev libcpp-httplib-dev
  libsqlite3-dev sqlite3 libcli11-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang-format clang-tidy openssl
  clang libclang-rt-dev
  chromium chromium-driver
)

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
