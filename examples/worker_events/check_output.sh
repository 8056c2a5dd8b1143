#!/usr/bin/env bash
# Runs the example and looks for what it promises: exit status 0, the lines of each step, and the
# log lines about the stuck and the slow callback, in this order and each once.
# usage: check_output.sh PROGRAM...
set -euo pipefail

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    echo "failed: $1"
    echo '--- output'
    cat "$work/out"
    echo '--- log'
    cat "$work/log"
    exit 1
}

# expect FILE PATTERN...: the patterns match one line each, in the order given.
expect() {
    local file=$1 last=0 pattern found
    shift
    for pattern in "$@"; do
        found=$(grep -nE -e "$pattern" "$file" | cut -d: -f1) || fail "no line matches '$pattern'"
        [[ $found != *$'\n'* ]] || fail "more than one line matches '$pattern'"
        ((found > last)) || fail "a line is out of order: '$pattern'"
        last=$found
    done
}

status=0
"$@" >"$work/out" 2>"$work/log" || status=$?
((status == 0)) || fail "exit status $status"

expect "$work/out" \
    '^ping-pong: 5000 rounds between alpha and beta, [0-9.]+ us each$' \
    '^notifiers: 4 threads, 40000 notifications for alpha and as many for beta$' \
    '^stuck: a callback kept beta for [0-9]+ ms; ' \
    '^slow: a callback kept beta for [0-9]+ ms; ' \
    '^runs: 5000 pings, 5000 pongs, 40000 counted on alpha, 40000 on beta, 1 stuck, 1 slow$' \
    '^left: 0 blocks, 0 descriptors, 0 threads$'

# The dead-loop monitor while the callback is stuck, then what the event and the dispatcher say once
# it has ended, then both again for the slow one. Both callbacks are over 400 ms by far.
run='procFunc:[^,]+, name'
expect "$work/log" \
    ' WARN .*Thread is slow, inside one unit of work for 1[0-9]{3} ms\. \(name:beta, tid:[0-9]+\)$' \
    ' WARN .*Thread is still slow, .* for 2[0-9]{3} ms\. \(name:beta, tid:[0-9]+\)$' \
    ' ERROR .*Thread is in a dead loop, .* for 3[0-9]{3} ms\. \(name:beta, tid:[0-9]+\)$' \
    ' WARN .*Eventfd proc timeout\.\(name = stuck, .*,timeout = [0-9]{4,},func = SuudkDamlcadk\)$' \
    " INFO .*fd:[0-9]+, $run:stuck, type:0, prio:1, .* procTime:[0-9]{7,}, eventLeft:[0-9]+\$" \
    ' WARN .*Eventfd proc timeout\.\(name = slow, .*,timeout = [0-9]{3,},func = SmoxCblmbbcl\)$' \
    " INFO .*fd:[0-9]+, $run:slow, type:0, prio:1, .* procTime:[0-9]{6,}, eventLeft:[0-9]+\$"

# The dispatcher's own warning names no task: one for each of the two runs.
warnings=$(grep -cE ' WARN .*Proc time timeout\. \(epFd = [0-9]+\)$' "$work/log") || true
((warnings == 2)) || fail "$warnings warnings of the dispatcher, not 2"
errors=$(grep -c ' ERROR ' "$work/log") || true
((errors == 1)) || fail "$errors errors, not 1"

cat "$work/out"
