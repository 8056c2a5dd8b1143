#!/usr/bin/env bash
# Every public header compiles on its own, as C99 and as C++20, without a warning.
# usage: check_headers.sh INCLUDE_DIR C_COMPILER CXX_COMPILER
set -euo pipefail
include=$1 cc=$2 cxx=$3

count=0
for header in "$include"/*.h; do
    name=$(basename "$header")
    echo "#include \"$name\"" | "$cc" -std=c99 -Wall -Wextra -Wpedantic -Wconversion -Werror \
        -fsyntax-only -I"$include" -x c -
    echo "#include \"$name\"" | "$cxx" -std=c++20 -Wall -Wextra -Wpedantic -Wconversion -Werror \
        -fsyntax-only -I"$include" -x c++ -
    count=$((count + 1))
done
[ "$count" -gt 0 ] || { echo "no header in $include"; exit 1; }
echo "$count headers"
