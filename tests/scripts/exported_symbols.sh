#!/usr/bin/env bash
# libtarn.so exports exactly the functions that the public headers declare:
# the 28 TARN_* of include/tarn.h and the tarn_* of include/tarn/*.h.
# Args: $1 libtarn.so, $2 source dir, $3 build dir.
set -euo pipefail
command -v nm >/dev/null || { echo "nm not found: skipped"; exit 77; }

# Declarations read "TARN_API <type> TARN_Name(" or "TARN_NATIVE_API <type> tarn_name(".
legacy=$(sed -nE 's/^TARN_API[^(]*[^A-Za-z0-9_](TARN_[A-Za-z0-9_]+)\(.*/\1/p' "$2/include/tarn.h" |
    sort -u)
native=$(cat "$2"/include/tarn/*.h | tr '\n' ' ' |
    grep -oE 'TARN_NATIVE_API [^;{]*[^A-Za-z0-9_]tarn_[a-z0-9_]+\(' |
    sed -E 's/.*[^A-Za-z0-9_](tarn_[a-z0-9_]+)\($/\1/' | sort -u)
declared=$(printf '%s\n%s\n' "$legacy" "$native" | grep . | sort -u)
# Dynamic symbols as "<type letter> <name>", version suffixes removed.
exported=$(nm -D --defined-only "$1" | awk 'NF >= 3 { sub(/@.*/, "", $3); print $2, $3 }' | sort -u)
functions=$(awk '$1 == "T" { print $2 }' <<<"$exported")

status=0
report() { [ -z "$2" ] || { echo "$1:" $2; status=1; }; }
report "exported but not a function" "$(awk '$1 != "T" { print $2 }' <<<"$exported")"
report "exported but not declared" "$(comm -13 <(echo "$declared") <(echo "$functions"))"
report "declared but not exported" "$(comm -23 <(echo "$declared") <(echo "$functions"))"
count=$(grep -c '^TARN_' <<<"$functions" || true)
echo "$count TARN_* and $(grep -c '^tarn_' <<<"$functions" || true) tarn_* functions exported"
[ "$count" -eq 28 ] || { echo "expected exactly 28 TARN_* functions"; status=1; }
exit $status
