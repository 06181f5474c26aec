#!/usr/bin/env bash
# Instructions per hooked vkCmdDrawIndexed, counted by callgrind (repeatable, unlike time).
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
printf '%-22s %8s %12s\n' variant instr/call over-direct
printf '%-22s %8.1f %12s\n' direct "$(echo "$direct / $calls" | bc -l)" -
for variant in tail node tail-lock node-lock; do
    total=$(count "$variant" '*LoopTrampoline*')
    printf '%-22s %8.1f %12.1f\n' "$variant" "$(echo "$total / $calls" | bc -l)" \
        "$(echo "($total - $direct) / $calls" | bc -l)"
done
