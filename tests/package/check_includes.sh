#!/usr/bin/env bash
# Includes run one way: common <- scheduler <- thread <- event, timer <- queues. A module includes
# its own files, those of the modules before it, and the public headers. The foundation services
# stand apart: they share the few headers of common that need no service.
# usage: check_includes.sh SOURCE_ROOT
set -euo pipefail
root=$1

declare -A allowed=(
    [common]="common"
    [scheduler]="common scheduler"
    [thread]="common scheduler thread"
    [event]="common scheduler thread event"
    [timer]="common scheduler thread timer"
    [msgque_light]="common scheduler thread event msgque_light"
    [service_msgque]="common scheduler thread event msgque_light service_msgque"
    [foundation]="common foundation"
)
bad=0 seen=0
for module in "${!allowed[@]}"; do
    for file in "$root/$module"/*.h "$root/$module"/*.cpp; do
        [ -e "$file" ] || continue
        seen=$((seen + 1))
        while read -r folder; do
            if [[ " ${allowed[$module]} " != *" $folder "* ]]; then
                echo "${file#"$root"/} includes a file of $folder"
                bad=1
            fi
        done < <(sed -n 's|^ *# *include "\([a-z_]*\)/.*|\1|p' "$file" | sort -u)
    done
done
[ "$seen" -gt 0 ] || { echo "no source file below $root"; exit 1; }
echo "$seen files"
exit $bad
