#!/usr/bin/env bash
# The main job: installs what is needed, builds, starts quorvel-devserver (the collection
# services on loopback) and runs the demo host against it through a whole session:
#   1. a first launch opened by a deep link, with conversion data, in-app events, a purchase
#      validation, an uninstall registration, an invite link, a cross-promotion and an
#      impression, and the move to the background (background statistics and the upload
#      of the library's own log, which the emulator asks for);
#   2. a second launch opened through the invite's short link;
#   3. the service goes offline: events fail in transport and are kept as files;
#   4. it comes back: the next launch succeeds and the kept requests are replayed.
# Then it prints what the emulator received, decrypted, and stops it.
# Extra arguments replace the session: they are passed to quorvel-demo as its steps.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
# Only what the session runs, optimised: the library and the two tools. QUORVEL_DEMO_BUILD names
# an optimised build tree that already holds them (the test command's static one): the demo
# runs from it and builds nothing.
if [ -n "${QUORVEL_DEMO_BUILD:-}" ]; then
  bin="$QUORVEL_DEMO_BUILD/tools"
  [ -x "$bin/demo/quorvel-demo" ] && [ -x "$bin/devserver/quorvel-devserver" ] ||
    { echo "demo: no quorvel-demo and quorvel-devserver built in $QUORVEL_DEMO_BUILD"; exit 1; }
else
  jobs="$(nproc 2>/dev/null || echo 2)"
  cmake --preset release -DQUORVEL_BUILD_TESTS=OFF -DQUORVEL_BUILD_BENCHMARKS=OFF >/dev/null
  cmake --build --preset release --parallel "$jobs" --target quorvel-demo quorvel-devserver
  bin=./build/release/tools
fi
state="${QUORVEL_DEMO_STATE:-$PWD/build/demo-state}"
rm -rf "$state"
mkdir -p "$state"
server_dir="$state/devserver"
app_id=123456789
dev_key=DEMO-DEV-KEY-0001

# --monitor 1: the service asks the library to ship its own log, which it does on the move
# to the background (the "monitorsdk." request in the summary).
"$bin/devserver/quorvel-devserver" --port 0 --data-dir "$server_dir" --app "$app_id=$dev_key" --monitor 1 \
  --conversion-data tools/devserver/examples/conversion-data.json >"$state/devserver.out" \
  2>"$state/devserver.log" &
server_pid=$!
trap 'kill "$server_pid" 2>/dev/null || true; wait "$server_pid" 2>/dev/null || true' EXIT
for _ in $(seq 1 100); do
  [ -s "$server_dir/server.json" ] && break
  kill -0 "$server_pid" 2>/dev/null || { cat "$state/devserver.log"; exit 1; }
  sleep 0.1
done
[ -s "$server_dir/server.json" ] || { echo "quorvel-devserver did not start"; exit 1; }
cat "$state/devserver.out"
json_field() { sed -n "s/^ *\"$1\": \"\{0,1\}\([^\",]*\)\"\{0,1\},\{0,1\}$/\1/p" "$server_dir/server.json"; }
domain=$(json_field service_domain)
ca_file=$(json_field ca_file)
port=$(json_field port)
accepting() { (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; }
# Switches a fault and waits (at most 10 s) until the port is in the state it asked for.
fault() {
  "$bin/devserver/quorvel-devserver" fault --data-dir "$server_dir" "$@" >/dev/null
  for _ in $(seq 1 100); do
    if [ "$1" = offline ]; then accepting || return 0; else accepting && return 0; fi
    sleep 0.1
  done
}

printf 'store receipt of the demo app' >"$state/receipt"
demo=("$bin/demo/quorvel-demo" --host "$domain" --ca-file "$ca_file" --dev-key "$dev_key"
      --app-id "$app_id" --data-dir "$state/app" --keychain-dir "$state/keychain"
      --customer-id demo-user --currency EUR --min-session 0 --receipt "$state/receipt"
      --invite-template inv1)
cache="$state/app/Library/Caches/QuorvelCache"
# The demo's output without its indented detail, but for what describes the installation, the
# device and the delivery figures: those headings stand for the lines under them.
brief() {
  awk '/^[^ ]/ { whole = ($0 == "Installation" || $0 == "Device" || $0 == "Delivery") }
       /^  / && !whole { next }
       { print; fflush() }'
}

if [ "$#" -gt 0 ]; then
  "${demo[@]}" "$@"
else
  echo
  echo "=== 1. first launch, opened by a deep link"
  "${demo[@]}" "open-url demoapp://open?qv_deeplink=true&pid=email&c=spring com.example.mail" launch \
    "event purchase_made 9.99" 'event-values level_reached {"level": 3, "name": "castle"}' \
    "location 13.4 52.5" "emails 3 user@example.com" "purchase gems 0.99 USD tx-1001" \
    "register-token 0a1b2c3d4e5f6071" "invite sms" "cross-promo 987654321 spring" \
    "impression 987654321 spring" idle background | tee "$state/first.out" | brief
  invite=$(sed -n 's/^< invite link \[[^]]*\] //p' "$state/first.out" | head -1)

  echo
  echo "=== 2. second launch, opened through the invite's short link"
  "${demo[@]}" "universal-link $invite" launch conversion-data | brief

  echo
  echo "=== 3. the service goes offline: events are kept as files"
  fault offline
  "${demo[@]}" "event tutorial_done 1" "event level_reached 4" | brief
  echo "kept for replay:"
  ls -1 "$cache"

  echo
  echo "=== 4. the service is back: the next launch succeeds and the kept events are replayed"
  fault online
  "${demo[@]}" launch | brief
  echo "left in the cache: $(ls -1 "$cache" | wc -l) files"
fi

echo
echo "=== what quorvel-devserver received (decrypted)"
"$bin/devserver/quorvel-devserver" requests --data-dir "$server_dir"
