#!/bin/sh
# device_build_test.sh SOURCE_DIR WORK_DIR - a device build without the vendor's reporting
# library stops at configuration and names what is missing and the way out.
set -u
src=$1 work=$2
rm -rf "$work"
out=$(cmake -S "$src" -B "$work" -DNMS_DEVICE_BUILD=ON -DNMS_HTTP_REPORTING=OFF 2>&1)
status=$?
rm -rf "$work"
echo "$out" | tail -n 8
[ "$status" -ne 0 ] || { echo "configuring succeeded without the vendor's library"; exit 1; }
flat=$(echo "$out" | tr -s ' \n' ' ')
echo "$flat" | grep -q "the library libInfo_report.so and the header info_report.h not found" &&
    echo "$flat" | grep -q -- "-DNMS_HTTP_REPORTING=ON"
