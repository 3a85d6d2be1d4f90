#!/usr/bin/env bash
# The tarn command-line tool: golden output on the demo network, the JSON and
# CSV forms, streaming from a pipe, diagnostics and usage rules, encode and
# convert.
# Args: $1 libtarn.so, $2 source dir, $3 build dir.
set -uo pipefail

src=$2
tarn=$3/tools/tarn
dbc=$src/examples/demo.dbc
log=$src/examples/demo.log
shared=${TARN_SHARED_DIR:-$src/../shared}
py=/usr/bin/python3
[ -x "$py" ] || py=python3
[ -x "$tarn" ] || { echo "tool not built: $tarn" >&2; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

# run WANT COMMAND...: output in $work/out and $work/err.
run() {
    local want=$1
    shift
    "$@" >"$work/out" 2>"$work/err"
    local got=$?
    [ "$got" -eq "$want" ] || fail "${*:2}: exit status $got, wanted $want"
    ! grep -qE 'Sanitizer|runtime error:' "$work/err" || fail "${*:2}: $(cat "$work/err")"
}

has() {  # has FILE TEXT DESCRIPTION
    grep -qF -- "$2" "$1" || fail "$3: '$2' missing from $(basename "$1")"
}

same() {  # same EXPECTED ACTUAL DESCRIPTION
    diff -u "$1" "$2" >&2 || fail "$3"
}

# --- Golden output, from a file and from standard input -------------------
run 0 "$tarn" dump "$dbc"
same "$src/tests/scripts/cli_expected/demo_dump.txt" "$work/out" "dump of the demo database"
run 0 "$tarn" decode "$dbc" "$log"
same "$src/tests/scripts/cli_expected/demo_decode.txt" "$work/out" "decode of the demo log"
cp "$work/out" "$work/text"
run 0 "$tarn" decode "$dbc" <"$log"
same "$work/text" "$work/out" "standard input decodes like the file"

# --- JSON and CSV agree with the text form --------------------------------
run 0 "$tarn" decode --json --all "$dbc" "$log"
cp "$work/out" "$work/json"
run 0 "$tarn" decode --csv "$dbc" "$log"
"$py" - "$work/json" "$work/text" "$work/out" <<'PY' || fail "JSON or CSV form"
import csv, json, sys
rows = [json.loads(line) for line in open(sys.argv[1])]
text = open(sys.argv[2]).read().splitlines()
for r in rows:
    if r["extended"]:  # a J1939 database: identifier fields
        assert ("da" in r) == (((r["pgn"] >> 8) & 0xFF) < 240) and "sa" in r, r
    if r.get("transfer"):
        assert len(r["data"]) == 2 * r["size"] and r["data"] == r["data"].lower(), r
    for sig in r["signals"].values():
        assert set(sig) <= {"value", "raw", "unit", "text"} and isinstance(sig["raw"], int), sig
        assert sig.get("unit", "x") != "", sig
known = [r for r in rows if r["name"]]
assert len(known) == len(text) < len(rows), "--all adds unknown frames"
for r, line in zip(known, text):
    words = line.split()
    assert words[0] == "%.6f" % r["t"] and int(words[2], 16) == r["id"] and words[3] == r["name"]
csv_rows = list(csv.DictReader(open(sys.argv[3], newline="")))
assert len(csv_rows) == sum(len(r["signals"]) for r in known), len(csv_rows)
assert csv_rows[0]["signal"] == "TorqueMode" and csv_rows[0]["text"] == "Accelerator pedal"
PY

# Quotes, control characters and Windows-1252 bytes stay valid in JSON and CSV.
printf 'VERSION ""\nBU_: X\nBO_ 291 Odd: 1 X\n SG_ S : 0|8@1+ (1,0) [0|255] "\xb0C" X\nVAL_ 291 S 1 "say \\"hi\\", \ttab" 2 "caf\xe9" ;\n' \
    >"$work/odd.dbc"
printf '(1.5) can0 123#01\n(2.5) can0 123#02\n' >"$work/odd.log"
run 0 "$tarn" decode --csv "$work/odd.dbc" "$work/odd.log"
mv "$work/out" "$work/odd.csv"
run 0 "$tarn" decode --json "$work/odd.dbc" "$work/odd.log"
"$py" - "$work/out" "$work/odd.csv" <<'PY' || fail "odd texts break JSON or CSV"
import csv, json, sys
rows = [json.loads(line) for line in open(sys.argv[1], encoding="utf-8")]
want = ['say "hi", \ttab', "caf\u00e9"]
assert [r["signals"]["S"]["text"] for r in rows] == want and \
    rows[0]["signals"]["S"]["unit"] == "\u00b0C", rows
assert [r["text"] for r in csv.DictReader(open(sys.argv[2], encoding="utf-8"))] == want
PY

run 0 "$tarn" decode --only Heartbeat,TripSummary "$dbc" "$log"
[ "$(awk '{print $4}' "$work/out" | sort -u | tr '\n' ' ')" = "Heartbeat TripSummary " ] ||
    fail "--only prints only the named messages"

# --- Streaming: a line leaves while its writer is still open -------------
"$py" - "$tarn" "$dbc" <<'PY' || fail "decoded line held back on a pipe"
import subprocess, sys, select
p = subprocess.Popen([sys.argv[1], "decode", sys.argv[2], "-"], stdin=subprocess.PIPE,
                     stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
p.stdin.write(b"(1.0) can0 100#2A01\n")
p.stdin.flush()
assert select.select([p.stdout], [], [], 10)[0], "no output within 10 s while the writer waits"
assert b"Heartbeat" in p.stdout.readline()
p.stdin.close()
p.wait(10)
PY

# --- Diagnostics and usage --------------------------------------------------
printf '(1.0) can0 100#2A01\n\033[31mred\001\n' >"$work/hostile.log"
run 0 "$tarn" decode "$dbc" "$work/hostile.log"
! grep -q $'\033' "$work/err" || fail "escape byte written to standard error"
has "$work/err" "line 2:" "a bad log line is reported with its number"
printf 'VERSION ""\nBU_: X\nBO_ 1 M: 8 X\n SG_ Bad 0|8@1+ (1,0) [0|0] "" X\n' >"$work/bad.dbc"
echo "earlier line" >"$work/stderr.txt"
"$tarn" dump -v "$work/bad.dbc" >/dev/null 2>>"$work/stderr.txt" || fail "dump -v"
has "$work/stderr.txt" "earlier line" "standard error is appended to, never reopened"
has "$work/stderr.txt" "line 4" "-v shows the reader's diagnostics with line numbers"
"$tarn" dump --log "$work/diag.txt" "$work/bad.dbc" >/dev/null 2>&1
has "$work/diag.txt" "line 4" "--log FILE receives the diagnostics"
run 1 "$tarn" dump --strict "$work/bad.dbc"
for args in "" "frobnicate" "dump --csv $dbc" "encode --json $dbc Heartbeat" "decode --raw $dbc" \
    "convert --json $dbc x"; do
    # shellcheck disable=SC2086
    run 2 "$tarn" $args
done
run 0 "$tarn" --version
has "$work/out" "tarn " "version text"
for topic in decode dump encode convert; do
    run 0 "$tarn" help "$topic"
    has "$work/out" "usage: tarn $topic" "help $topic"
done
run 1 "$tarn" decode "$work/none.dbc" "$log"
run 1 "$tarn" dump "$log"
run 1 "$tarn" decode "$dbc" "$work/none.log"

# --- Encode: physical, choice text, raw and signed values -----------------
encodes=(
    "(0.000000) can0 18FEF500#0000AC41CA255000|$dbc AmbientConditions AmbientAirTemp=21.5 BarometricPressure=101 RoadSurfaceTemp=25.5"
    "(0.000000) vcan3 100#0701|--interface vcan3 $dbc Heartbeat Alive=7 State=Run"
    "(0.000000) can0 0CF00400#01968C803E0000F6|$dbc EngineStatus TorqueMode=1 DriverDemandTorque=25 ActualTorque=15 EngineSpeed=2000 StarterMode=0 TorqueTrim=-5"
    "(0.000000) can0 0CF00400#00000000000000FB|--raw $dbc EngineStatus TorqueTrim=-5"
)
for e in "${encodes[@]}"; do
    # shellcheck disable=SC2086
    run 0 "$tarn" encode ${e#*|}
    [ "$(cat "$work/out")" = "${e%%|*}" ] || fail "encode ${e#*|}: $(cat "$work/out")"
done
run 1 "$tarn" encode "$dbc" Heartbeat Alive=256
has "$work/err" "Alive" "the offending signal is named"
run 1 "$tarn" encode "$dbc" Heartbeat Nope=1
# The long message goes out as the demo log's BAM transfer, packets 50 ms apart.
run 0 "$tarn" encode --raw "$dbc" TripSummary TripDistance=8000 FuelUsed=400 AverageSpeed=15488 \
    IdleTime=3600 MaxSpeed=90 TripState=1 DriverId=0x1234 TripId=0xBEEF
same <(sed -n '6,7p;9,10p' "$log" | cut -d' ' -f2-) <(cut -d' ' -f2- "$work/out") \
    "TripSummary as the demo log's BAM transfer"

# --- Convert: a fixed point after one pass, the same model when reopened --
# (the writer itself goes over the public corpus in Corpus.NativeWriterRoundTrips)
run 0 "$tarn" convert "$dbc" "$work/a.dbc"
run 0 "$tarn" convert "$work/a.dbc" "$work/b.dbc"
cmp -s "$work/a.dbc" "$work/b.dbc" || fail "convert is not a fixed point"
cmp -s <("$tarn" dump --json "$dbc") <("$tarn" dump --json "$work/a.dbc") ||
    fail "the demo database reopened after convert is another model"

# --- DM1 trouble codes in JSON, from a public J1939 log --------------------
if [ -r "$shared/dbc/logs/pretty_j1939__test_dm1.log" ]; then
    run 0 "$tarn" decode --json --all "$shared/dbc/can-dbc__j1939.dbc" \
        "$shared/dbc/logs/pretty_j1939__test_dm1.log"
    has "$work/out" '"dtcs":[{"spn":91,"fmi":3,"oc":1,"cm":0}]' "DM1 trouble codes"
fi

[ "$failures" -eq 0 ] || { echo "$failures check(s) failed" >&2; exit 1; }
echo "all checks passed"
