#!/bin/sh
# demo_interrupt_test.sh STAGE - Ctrl-C on the demo ends everything it started, even when the
# demo was started with SIGINT ignored (as a background job of a script is).
set -u
stage=$1
here=$(cd "$(dirname "$0")/.." && pwd)
out=$(mktemp)
trap 'rm -f "$out"' EXIT

if (exec 3<>/dev/tcp/127.0.0.1/8480) 2>/dev/null; then
    echo "skipped: port 8480 is in use on this machine"
    exit 0
fi
# setsid: a process group of its own, as a terminal gives its foreground job. The '&' of this
# non-interactive shell starts it with SIGINT ignored.
NMS_STAGE=$stage setsid "$here/scripts/demo" >"$out" 2>&1 &
i=0
until grep -q "demo is running" "$out"; do
    i=$((i + 1))
    if [ $i -gt 600 ]; then echo "FAIL: the demo did not start"; cat "$out"; exit 1; fi
    sleep 0.1
done
pgid=$(ps -o pgid= -p $! | tr -d ' ')
[ -n "$pgid" ] || { echo "FAIL: no process group"; exit 1; }
members() { ps -eo pgid=,pid=,args= | awk -v g="$pgid" '$1 == g'; }
[ -n "$(members | grep devsim)" ] || { echo "FAIL: devsim is not running"; members; exit 1; }
kill -INT "-$pgid"
i=0
while [ -n "$(members)" ]; do
    i=$((i + 1))
    if [ $i -gt 100 ]; then echo "FAIL: still running 10 s after Ctrl-C:"; members; exit 1; fi
    sleep 0.1
done
grep -q "demo: stopped" "$out" || { echo "FAIL: no 'demo: stopped'"; cat "$out"; exit 1; }
echo "ok: everything the demo started ended after Ctrl-C"
