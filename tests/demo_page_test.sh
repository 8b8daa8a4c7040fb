#!/bin/sh
# demo_page_test.sh STAGE - the demo's page in a real headless browser: it loads, the device
# panel's charts have data points from the daemon's metrics, the cloud link is shown, and no
# script error happened. Needs Debian's chromium (scripts/install-deps installs it).
set -u
stage=$1
here=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
browser=$(command -v chromium || true)
[ -n "$browser" ] || { echo "FAIL: no chromium (run scripts/install-deps)"; exit 1; }

if (exec 3<>/dev/tcp/127.0.0.1/8480) 2>/dev/null; then
    echo "skipped: port 8480 is in use on this machine"
    exit 0
fi
NMS_STAGE=$stage setsid "$here/scripts/demo" >"$work/demo.out" 2>&1 &
demo=$!
stop_demo() {
    pgid=$(ps -o pgid= -p "$demo" | tr -d ' ')
    [ -z "$pgid" ] || kill -INT "-$pgid" 2>/dev/null
    wait "$demo" 2>/dev/null
}
fail() { echo "FAIL: $*"; stop_demo; exit 1; }

i=0
until grep -q "demo is running" "$work/demo.out"; do
    i=$((i + 1)); [ $i -le 600 ] || { cat "$work/demo.out"; fail "the demo did not start"; }
    sleep 0.1
done
# A few seconds of metrics, so that the charts have several points (one a second).
samples() { curl -s http://127.0.0.1:8480/api/device/metrics | grep -o '"t":' | wc -l; }
i=0
until [ "$(samples)" -ge 6 ]; do
    i=$((i + 1)); [ $i -le 300 ] || fail "cloudsim got no metrics from devsim"
    sleep 0.1
done

# As the environment's probe starts it: no sandbox as root, no background connections (the
# machine has no network beyond loopback), a fresh profile.
"$browser" --headless --no-sandbox --disable-gpu --disable-quic --no-first-run \
    --disable-background-networking --disable-component-update --disable-sync \
    --user-data-dir="$work/profile" --virtual-time-budget=3000 --enable-logging=stderr --v=0 \
    --dump-dom http://127.0.0.1:8480/ >"$work/dom.html" 2>"$work/browser.log"
stop_demo

grep -q '<div id="panel"' "$work/dom.html" || fail "no device panel in the page"
# The charts of list 0 (events every 3 s) and list 2: accepted and sent, several points each.
for l in 0 2; do
    chart=$(tr '\n' ' ' <"$work/dom.html" | grep -o "<svg id=\"chart-$l\"[^>]*>.*" | sed 's|</svg>.*||')
    for line in accepted sent; do
        points=$(echo "$chart" | grep -o "class=\"$line\" points=\"[^\"]*\"" | grep -o '[0-9.]*,[0-9.]*' | wc -l)
        [ "$points" -ge 3 ] || fail "list $l: $line has $points data points: $chart"
    done
done
grep -q 'cloud link online' "$work/dom.html" || fail "the panel does not show the cloud link"
if grep -q 'data-script-errors' "$work/dom.html"; then
    fail "the page counted script errors: $(grep -o 'data-script-errors="[0-9]*"' "$work/dom.html")"
fi
if grep -i 'Uncaught' "$work/browser.log"; then fail "the browser logged an uncaught error"; fi
echo "ok: the page loads, its charts have data points, no script errors"
