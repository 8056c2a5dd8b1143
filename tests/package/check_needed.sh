#!/usr/bin/env bash
# A library needs the C library, the dynamic loader and our own libraries, nothing else.
# usage: check_needed.sh LIBRARY
set -euo pipefail
library=$1

needed=$(readelf -dW "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
soname=$(readelf -dW "$library" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ -n "$needed" ] || { echo "$library: no NEEDED entry at all"; exit 1; }
[[ $soname == lib*.so* ]] || { echo "$library: no SONAME"; exit 1; }
while read -r name; do
    case $name in
    libc.so.6 | ld-linux*.so.* | libxelbase.so* | libxeldeadloop.so*) ;;
    *)
        echo "$soname needs $name"
        exit 1
        ;;
    esac
done <<<"$needed"
echo "$soname needs: $(echo $needed)"
