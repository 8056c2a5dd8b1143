#!/usr/bin/env bash
# The dynamic symbols that a library defines are exactly those that its version script lists.
# usage: check_exports.sh LIBRARY VERSION_SCRIPT
set -euo pipefail
library=$1 map=$2

listed=$(sed -n '/global:/,/local:/p' "$map" | grep -oE '[A-Za-z_][A-Za-z0-9_]*;' | tr -d ';' | sort)
exported=$(nm -D --defined-only "$library" | awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }' |
    sort -u)
[ -n "$listed" ] || { echo "$map lists nothing"; exit 1; }
if ! diff <(echo "$listed") <(echo "$exported"); then
    echo "$(basename "$library"): < is listed only, > is exported only"
    exit 1
fi
echo "$(basename "$library"): $(echo "$exported" | wc -l) symbols, as listed"
