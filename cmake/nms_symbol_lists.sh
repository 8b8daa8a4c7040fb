#!/bin/sh
# nms_symbol_lists.sh NM PROGRAM FUN_LIST OBJ_LIST [READELF]
#
# Writes the debug shell's symbol lists for PROGRAM:
#   FUN_LIST  "<address> <name>"          one line per function
#   OBJ_LIST  "<address> <size> <name>"   one line per variable with a known size
# Addresses and sizes are hexadecimal, as the linker placed them. Only plain C names
# are listed (mangled and compiler-made names cannot be typed at the shell anyway);
# global symbols come before file-local ones, so that a name defined both ways is
# found as the global first.
#
# nm shows a function's address with bit 0 cleared, but on 32-bit ARM a Thumb function is
# entered at its address + 1 (bit 0 selects the instruction set): calling the even address
# runs Thumb code as ARM code. With READELF given, functions whose symbol value is odd are
# listed at that value.
set -eu
nm=$1 prog=$2 fun=$3 obj=$4 readelf=${5:-}
thumb=$fun.thumb
: >"$thumb"
if [ -n "$readelf" ]; then
    "$readelf" -sW "$prog" | awk '$4 == "FUNC" && $7 != "UND" && $2 ~ /[13579bdfBDF]$/ {
        print $8, $2 }' >"$thumb"
fi
"$nm" -P --defined-only "$prog" | awk -v fun="$fun.tmp" -v obj="$obj.tmp" -v thumb="$thumb" '
BEGIN { while ((getline line < thumb) > 0) { split(line, f, " "); odd[f[1]] = f[2] } }
function addr(name, a) { return (name in odd) ? odd[name] : a }
$1 !~ /^[A-Za-z_][A-Za-z0-9_]*$/ { next }
$2 ~ /^[TW]$/ { print addr($1, $3), $1 > fun; next }
$2 == "t" { lf[++nf] = addr($1, $3) " " $1; next }
NF >= 4 && $2 ~ /^[DBRVGSu]$/ { print $3, $4, $1 > obj; next }
NF >= 4 && $2 ~ /^[dbrgs]$/ { lo[++no] = $3 " " $4 " " $1; next }
END {
    for (i = 1; i <= nf; i++) print lf[i] > fun
    for (i = 1; i <= no; i++) print lo[i] > obj
    printf "" > fun; printf "" > obj
}'
rm -f "$thumb"
mv "$fun.tmp" "$fun"
mv "$obj.tmp" "$obj"
