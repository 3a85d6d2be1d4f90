#!/usr/bin/env bash
# Frames per second of `tarn decode` on a 1,000,000-frame random-payload log of
# the Tesla Model 3 database, written to /dev/null, in text, JSON and CSV, with
# the peak resident memory. Usage: bench/bench_tool_decode.sh [BUILD_DIR] [FRAMES]
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${1:-$root/build}
frames=${2:-1000000}
shared=$root/../shared
dbc=$shared/dbc/opendbc-pr1020__tesla_model3_veh.dbc
tarn=$build/tools/tarn
[ -x "$tarn" ] && [ -r "$dbc" ] || { echo "needs $tarn and $dbc"; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
/usr/bin/python3 "$shared/tools/gen_candump.py" "$dbc" "$frames" --seed 1 >"$work/log"
cat "$work/log" >/dev/null  # warm the page cache

for mode in text --json --csv; do
    flag=$mode
    [ "$mode" = text ] && flag=
    best=
    for _ in 1 2 3; do
        # shellcheck disable=SC2086
        /usr/bin/time -f "%e %M" -o "$work/t" "$tarn" decode $flag "$dbc" "$work/log" \
            >/dev/null 2>/dev/null
        read -r secs rss <"$work/t"
        if [ -z "$best" ] || awk "BEGIN{exit !($secs < $best)}"; then best=$secs; mem=$rss; fi
    done
    awk -v m="$mode" -v s="$best" -v n="$frames" -v r="$mem" \
        'BEGIN { printf "%-6s %8.3f s  %6.2f M frames/s  %5.1f MB peak RSS\n", m, s, n / s / 1e6, r / 1024 }'
done
