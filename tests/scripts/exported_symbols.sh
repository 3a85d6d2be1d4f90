#!/usr/bin/env bash
# libtarn.so exports exactly the 28 TARN_* functions that include/tarn.h declares.
# Args: $1 libtarn.so, $2 source dir, $3 build dir.
set -euo pipefail
command -v nm >/dev/null || { echo "nm not found: skipped"; exit 77; }

# Declarations read "TARN_API <type> TARN_Name(".
declared=$(sed -nE 's/^TARN_API[^(]*[^A-Za-z0-9_](TARN_[A-Za-z0-9_]+)\(.*/\1/p' "$2/include/tarn.h" |
    sort -u)
# Dynamic symbols as "<type letter> <name>", version suffixes removed.
exported=$(nm -D --defined-only "$1" | awk 'NF >= 3 { sub(/@.*/, "", $3); print $2, $3 }' | sort -u)
functions=$(awk '$1 == "T" { print $2 }' <<<"$exported")

status=0
report() { [ -z "$2" ] || { echo "$1:" $2; status=1; }; }
report "exported but not a function" "$(awk '$1 != "T" { print $2 }' <<<"$exported")"
report "exported but not declared in tarn.h" "$(comm -13 <(echo "$declared") <(echo "$functions"))"
report "declared in tarn.h but not exported" "$(comm -23 <(echo "$declared") <(echo "$functions"))"
count=$(grep -c . <<<"$functions" || true)
echo "$count functions exported"
[ "$count" -eq 28 ] || { echo "expected exactly 28"; status=1; }
exit $status
