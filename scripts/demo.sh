#!/usr/bin/env bash
# Installs what is needed, builds, and runs the demo host: it creates the tracker, applies
# the configuration and shows the library's log. Extra arguments go to quorvel-demo.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
bash scripts/build.sh dev
state="${QUORVEL_DEMO_STATE:-$PWD/build/demo-state}"
mkdir -p "$state"
args=("$@")
if [ "${#args[@]}" -eq 0 ]; then
  args=(--verbose --dev-key DEMO-DEV-KEY-0001 --app-id 123456789 --customer-id demo-user "wait 0.2")
fi
exec ./build/dev/tools/demo/quorvel-demo --data-dir "$state/app" --keychain-dir "$state/keychain" "${args[@]}"
