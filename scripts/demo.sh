#!/usr/bin/env bash
# Installs what is needed, builds, and runs the demo host through a short session: an
# opening link, a first launch, in-app events, a purchase, a push token, an invite and a
# cross-promotion, the move to the background, a request for conversion data; then a second
# process with the next launch. Extra arguments replace the session's steps.
#
# No collection service runs on this machine, so the demo points the library at a local
# port where nothing listens: every tracking request fails in transport and is kept in the
# request cache, whose files the script lists at the end.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
bash scripts/build.sh dev
state="${QUORVEL_DEMO_STATE:-$PWD/build/demo-state}"
rm -rf "$state"
mkdir -p "$state"
demo=(./build/dev/tools/demo/quorvel-demo --data-dir "$state/app" --keychain-dir "$state/keychain"
      --dev-key DEMO-DEV-KEY-0001 --app-id 123456789 --customer-id demo-user --currency EUR
      --host "${QUORVEL_DEMO_HOST:-localhost:9}" --verbose)
if [ "$#" -gt 0 ]; then
  exec "${demo[@]}" "$@"
fi
echo "=== first process"
printf 'store receipt' > "$state/receipt"
"${demo[@]}" --receipt "$state/receipt" "open-url demoapp://open?qv_deeplink=true&pid=email&c=spring" launch \
  "event af_purchase 9.99" 'event-values af_level {"level": 3, "name": "castle"}' "location 13.4 52.5" \
  "emails 3 user@example.com" "purchase gems 0.99 USD tx-1" "register-token 0a1b2c3d4e5f6071" "invite sms" \
  "cross-promo 987654321 spring" background conversion-data
echo "=== second process"
"${demo[@]}" launch
echo "=== requests kept for replay (the service was unreachable)"
ls -l "$state/app/Library/Caches/QuorvelCache"
head -c 300 "$(ls -d "$state"/app/Library/Caches/QuorvelCache/* | head -1)"; echo
