#!/usr/bin/env bash
# Instructions per hooked vkCmdDrawIndexed, counted by callgrind (repeatable, unlike time),
# against the budgets over a direct call of the next layer: one module node at most 30 without
# the lookup lock, at most 100 with it. Exits non-zero when a budgeted variant is over.
#   callgrind_trampoline.sh BENCH_BINARY [CALLS]
set -euo pipefail
bench=$1
calls=${2:-100000}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

count() {  # VARIANT LOOP_FUNCTION -> instructions inside the loop function
    valgrind --tool=callgrind --callgrind-out-file="$work/out" --collect-atstart=no \
        --toggle-collect="$2" "$bench" --loop "$1" "$calls" >/dev/null 2>&1
    callgrind_annotate "$work/out" 2>/dev/null | awk '/PROGRAM TOTALS/ && !seen {gsub(",", "", $1); print $1; seen = 1}'
}

direct=$(count direct '*LoopDirect*')
printf '%-12s %10s %12s %8s\n' variant instr/call over-direct budget
printf '%-12s %10.1f %12s %8s\n' direct "$(echo "$direct / $calls" | bc -l)" - -
over=0
for entry in tail:- node:30 tail-lock:- node-lock:100; do
    variant=${entry%%:*}
    budget=${entry##*:}
    total=$(count "$variant" '*LoopTrampoline*')
    extra=$(echo "($total - $direct) / $calls" | bc -l)
    printf '%-12s %10.1f %12.1f %8s\n' "$variant" "$(echo "$total / $calls" | bc -l)" "$extra" "$budget"
    if [ "$budget" != - ] && [ "$(echo "$extra > $budget" | bc -l)" = 1 ]; then
        echo "$variant: $extra instructions over a direct call, budget $budget" >&2
        over=1
    fi
done
exit "$over"
