#!/bin/sh
# host_install_test.sh BUILD_DIR PREFIX - installs the build into PREFIX and starts its tools
# there with no LD_LIBRARY_PATH: their run path must find the prefix's own libraries.
set -eu
build=$1 prefix=$2
rm -rf "$prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
unset LD_LIBRARY_PATH
out=$("$prefix/bin/nms_event_send" -l 9 1 2>&1 || true; "$prefix/bin/uci" -c /nonexistent show 2>&1 || true)
echo "$out"
if echo "$out" | grep -q 'error while loading'; then exit 1; fi
echo "$out" | grep -q "list must be 0 to 7"
echo "$out" | grep -q "Entry not found"
