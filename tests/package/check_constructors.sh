#!/usr/bin/env bash
# Nothing of a library runs when it is loaded: the only entry of .init_array, if any, is the C
# runtime's own frame_dummy.
# usage: check_constructors.sh LIBRARY
set -euo pipefail
library=$1

size=$(readelf -SW "$library" | sed 's/\[ *[0-9]*\]//' | awk '$1 == ".init_array" { print $5 }')
size=$((16#${size:-0}))
if [ "$size" -gt 8 ]; then
    echo "$library: .init_array holds $((size / 8)) entries"
    exit 1
fi
if [ "$size" -eq 8 ]; then
    start=$(readelf -SW "$library" | sed 's/\[ *[0-9]*\]//' | awk '$1 == ".init_array" { print $3 }')
    entry=$(readelf -rW "$library" |
        awk -v at="$start" '{ o = $1; while (length(o) < 16) o = "0" o; if (o == at) print $NF }')
    while [ ${#entry} -lt 16 ]; do entry=0$entry; done
    owner=$(readelf -sW "$library" | awk -v value="$entry" '$2 == value && $4 == "FUNC" { print $8 }')
    if ! grep -qx frame_dummy <<<"$owner"; then
        echo "$library: .init_array runs '$owner' at $entry"
        exit 1
    fi
fi
if readelf -SW "$library" | grep -qE ' \.(ctors|preinit_array) '; then
    echo "$library: has .ctors or .preinit_array"
    exit 1
fi
echo "$(basename "$library"): no constructor"
