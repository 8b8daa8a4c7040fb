#!/bin/sh
# nms_symbol_lists.sh NM PROGRAM FUN_LIST OBJ_LIST
#
# Writes the debug shell's symbol lists for PROGRAM:
#   FUN_LIST  "<address> <name>"          one line per function
#   OBJ_LIST  "<address> <size> <name>"   one line per variable with a known size
# Addresses and sizes are hexadecimal, as the linker placed them. Only plain C names
# are listed (mangled and compiler-made names cannot be typed at the shell anyway);
# global symbols come before file-local ones, so that a name defined both ways is
# found as the global first.
set -eu
nm=$1 prog=$2 fun=$3 obj=$4
"$nm" -P --defined-only "$prog" | awk -v fun="$fun.tmp" -v obj="$obj.tmp" '
$1 !~ /^[A-Za-z_][A-Za-z0-9_]*$/ { next }
$2 ~ /^[TW]$/ { print $3, $1 > fun; next }
$2 == "t" { lf[++nf] = $3 " " $1; next }
NF >= 4 && $2 ~ /^[DBRVGSu]$/ { print $3, $4, $1 > obj; next }
NF >= 4 && $2 ~ /^[dbrgs]$/ { lo[++no] = $3 " " $4 " " $1; next }
END {
    for (i = 1; i <= nf; i++) print lf[i] > fun
    for (i = 1; i <= no; i++) print lo[i] > obj
    printf "" > fun; printf "" > obj
}'
mv "$fun.tmp" "$fun"
mv "$obj.tmp" "$obj"
