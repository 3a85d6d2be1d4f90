#!/usr/bin/env bash
# The shared library exports exactly the TARN_* functions of the public header.
# Args: $1 libtarn.so, $2 source dir, $3 build dir.
set -euo pipefail

lib=$1
header=$2/include/tarn.h

if ! command -v nm >/dev/null; then
    echo "nm not found" >&2
    exit 77
fi

# Names declared as functions in the header: "TARN_API <type> TARN_Name(".
declared=$(grep -oE '\bTARN_[A-Za-z0-9_]+[[:space:]]*\(' "$header" | sed -E 's/[[:space:]]*\($//' |
    sort -u)
exported=$(nm -D --defined-only "$lib" | awk 'NF >= 3 { print $3 }' | sed 's/@.*//' | sort -u)

status=0
while read -r sym; do
    [ -z "$sym" ] && continue
    case $sym in
    TARN_*)
        if ! grep -qx "$sym" <<<"$declared"; then
            echo "exported but not declared in tarn.h: $sym"
            status=1
        fi
        ;;
    *)
        echo "unexpected exported symbol: $sym"
        status=1
        ;;
    esac
done <<<"$exported"

count=$(grep -c '^TARN_' <<<"$exported" || true)
echo "$count TARN_* symbols exported"
if [ "$count" -eq 0 ]; then
    echo "no TARN_* symbol exported at all"
    status=1
fi
exit $status
