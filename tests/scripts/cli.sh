#!/usr/bin/env bash
# The tarn command-line tool: golden output on the demo network, the JSON and
# CSV forms, streaming, hostile input, usage rules, encode and convert round
# trips, and the public J1939 logs. Args: $1 libtarn.so, $2 source dir,
# $3 build dir.
set -uo pipefail

src=$2
build=$3
tarn=$build/tools/tarn
dbc=$src/examples/demo.dbc
log=$src/examples/demo.log
expected=$src/tests/scripts/cli_expected
shared=${TARN_SHARED_DIR:-$src/../shared}
py=/usr/bin/python3
[ -x "$py" ] || py=python3

if [ ! -x "$tarn" ]; then
    echo "tool not built: $tarn" >&2
    exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

# run WANT DESCRIPTION -- COMMAND...: output in $work/out and $work/err.
run() {
    local want=$1 what=$2
    shift 3
    "$@" >"$work/out" 2>"$work/err"
    local got=$?
    [ "$got" -eq "$want" ] || fail "$what: exit status $got, wanted $want"
    if grep -qE 'Sanitizer|runtime error:' "$work/err"; then
        fail "$what: sanitizer report"
        cat "$work/err" >&2
    fi
}

has() {  # has FILE TEXT DESCRIPTION
    grep -qF -- "$2" "$1" || fail "$3: '$2' missing from $(basename "$1")"
}

same() {  # same EXPECTED ACTUAL DESCRIPTION
    diff -u "$1" "$2" >"$work/diff" || {
        fail "$3"
        cat "$work/diff" >&2
    }
}

# --- Golden output on the demo network -----------------------------------
run 0 "dump" -- "$tarn" dump "$dbc"
same "$expected/demo_dump.txt" "$work/out" "dump of the demo database"
run 0 "decode" -- "$tarn" decode "$dbc" "$log"
same "$expected/demo_decode.txt" "$work/out" "decode of the demo log"
cp "$work/out" "$work/text"
"$tarn" decode "$dbc" <"$log" >"$work/stdin" 2>/dev/null || fail "decode from standard input"
same "$work/text" "$work/stdin" "standard input decodes like the file"

# --- JSON and CSV forms ----------------------------------------------------
run 0 "decode --json" -- "$tarn" decode --json --all "$dbc" "$log"
cp "$work/out" "$work/json"
run 0 "decode --csv" -- "$tarn" decode --csv "$dbc" "$log"
"$py" - "$work/json" "$work/text" "$work/out" <<'PY' || fail "JSON or CSV form"
import csv, json, sys
rows = [json.loads(line) for line in open(sys.argv[1])]
text = open(sys.argv[2]).read().splitlines()
for r in rows:
    assert isinstance(r["t"], (int, float)) and isinstance(r["iface"], str), r
    assert isinstance(r["id"], int) and isinstance(r["extended"], bool), r
    assert r["name"] is None or isinstance(r["name"], str), r
    if r["extended"]:  # a J1939 database: identifier fields
        assert {"pgn", "sa", "priority"} <= set(r), r
        assert ("da" in r) == (((r["pgn"] >> 8) & 0xFF) < 240), r
    if r.get("transfer"):
        assert r["transfer"] is True and len(r["data"]) == 2 * r["size"], r
        assert r["data"] == r["data"].lower(), r
    for sig in r["signals"].values():
        assert set(sig) <= {"value", "raw", "unit", "text"} and isinstance(sig["raw"], int), sig
        assert sig.get("unit", "x") != "", sig
known = [r for r in rows if r["name"]]
assert len(known) == len(text) and [r for r in rows if not r["name"]], "--all adds unknown frames"
for r, line in zip(known, text):
    words = line.split()
    assert words[0] == "%.6f" % r["t"] and int(words[2], 16) == r["id"] and words[3] == r["name"]
assert [(r["name"], r["sa"], r["size"]) for r in rows if r.get("transfer")] == \
    [("TripSummary", 0, 20), ("TripSummary", 0x17, 20)]
csv_rows = list(csv.DictReader(open(sys.argv[3], newline="")))
assert len(csv_rows) == sum(len(r["signals"]) for r in known), len(csv_rows)
assert csv_rows[0]["signal"] == "TorqueMode" and csv_rows[0]["text"] == "Accelerator pedal"
PY

# Quotes, control characters and Windows-1252 bytes stay valid in JSON and CSV.
printf 'VERSION ""\nBU_: X\nBO_ 291 Odd: 1 X\n SG_ S : 0|8@1+ (1,0) [0|255] "\xb0C" X\nVAL_ 291 S 1 "say \\"hi\\", \ttab" 2 "caf\xe9" ;\n' \
    >"$work/odd.dbc"
printf '(1.5) can0 123#01\n(2.5) can0 123#02\n' >"$work/odd.log"
run 0 "odd texts" -- "$tarn" decode --json "$work/odd.dbc" "$work/odd.log"
"$tarn" decode --csv "$work/odd.dbc" "$work/odd.log" >"$work/odd.csv" 2>/dev/null
"$py" - "$work/out" "$work/odd.csv" <<'PY' || fail "odd texts break JSON or CSV"
import csv, json, sys
rows = [json.loads(line) for line in open(sys.argv[1], encoding="utf-8")]
assert [r["signals"]["S"]["text"] for r in rows] == ['say "hi", \ttab', "caf\u00e9"], rows
assert rows[0]["signals"]["S"]["unit"] == "\u00b0C", rows[0]
assert [r["text"] for r in csv.DictReader(open(sys.argv[2], encoding="utf-8", newline=""))] == \
    ['say "hi", \ttab', "caf\u00e9"]
PY

run 0 "--only" -- "$tarn" decode --only Heartbeat,TripSummary "$dbc" "$log"
[ "$(awk '{print $4}' "$work/out" | sort -u | tr '\n' ' ')" = "Heartbeat TripSummary " ] ||
    fail "--only prints only the named messages"

# --- Streaming: a line leaves while its writer is still open -------------
"$py" - "$tarn" "$dbc" <<'PY' || fail "decoded line held back on a pipe"
import subprocess, sys, select
p = subprocess.Popen([sys.argv[1], "decode", sys.argv[2], "-"], stdin=subprocess.PIPE,
                     stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
p.stdin.write(b"(1.0) can0 100#2A01\n")
p.stdin.flush()
ready, _, _ = select.select([p.stdout], [], [], 10)
assert ready, "no output within 10 s while the writer waits"
assert b"Heartbeat" in p.stdout.readline()
p.stdin.close()
p.wait(10)
PY

# --- Hostile input: bounded memory, bounded and escaped reports ----------
{ printf '(1.0) can0 100#2A01\n'; head -c 8000000 /dev/zero | tr '\0' 'A'; printf '\n\033[31mred\001\n'
  printf '(2.0) can0 100#%s\n' "$(head -c 300000 /dev/zero | tr '\0' 'F')"; } >"$work/hostile.log"
/usr/bin/time -f "%M" -o "$work/rss" "$tarn" decode "$dbc" "$work/hostile.log" \
    >"$work/out" 2>"$work/err" || true
[ "$(cat "$work/rss")" -lt 51200 ] || fail "hostile log took $(cat "$work/rss") KB"
[ "$(wc -l <"$work/out")" -eq 1 ] || fail "the good line around hostile ones decodes"
! grep -q $'\033' "$work/err" || fail "escape byte written to standard error"
[ "$(awk '{ if (length($0) > m) m = length($0) } END { print m }' "$work/err")" -lt 300 ] ||
    fail "a hostile line is echoed at length"
has "$work/err" "line 3:" "the escape line is reported with its number"

# --- Usage and diagnostics -------------------------------------------------
printf 'VERSION ""\nBU_: X\nBO_ 1 M: 8 X\n SG_ Bad 0|8@1+ (1,0) [0|0] "" X\n' >"$work/bad.dbc"
echo "earlier line" >"$work/stderr.txt"
"$tarn" dump -v "$work/bad.dbc" >/dev/null 2>>"$work/stderr.txt" || fail "dump -v"
has "$work/stderr.txt" "earlier line" "standard error is appended to, never reopened"
has "$work/stderr.txt" "line 4" "-v shows the reader's diagnostics with line numbers"
"$tarn" dump --log "$work/diag.txt" "$work/bad.dbc" >/dev/null 2>&1
has "$work/diag.txt" "line 4" "--log FILE receives the diagnostics"
run 1 "strict open" -- "$tarn" dump --strict "$work/bad.dbc"
for args in "" "frobnicate" "dump --csv $dbc" "encode --json $dbc Heartbeat" "decode --raw $dbc" \
    "convert --json $dbc x"; do
    # shellcheck disable=SC2086
    run 2 "usage error: tarn $args" -- "$tarn" $args
done
run 0 "--version" -- "$tarn" --version
has "$work/out" "tarn " "version text"
for topic in decode dump encode convert; do
    run 0 "help $topic" -- "$tarn" help "$topic"
    has "$work/out" "usage: tarn $topic" "help $topic"
done
run 1 "missing DBC" -- "$tarn" decode "$work/none.dbc" "$log"
run 1 "not a DBC" -- "$tarn" dump "$log"
run 1 "missing log" -- "$tarn" decode "$dbc" "$work/none.log"

# --- Encode ------------------------------------------------------------------
run 0 "encode physical" -- "$tarn" encode "$dbc" AmbientConditions AmbientAirTemp=21.5 \
    BarometricPressure=101 RoadSurfaceTemp=25.5
same <(echo "(0.000000) can0 18FEF500#0000AC41CA255000") "$work/out" "physical values"
run 0 "encode a choice and --interface" -- "$tarn" encode --interface vcan3 "$dbc" Heartbeat \
    Alive=7 State=Run
same <(echo "(0.000000) vcan3 100#0701") "$work/out" "a value-table text stands for its raw value"
run 1 "out of range" -- "$tarn" encode "$dbc" Heartbeat Alive=256
has "$work/err" "Alive" "the offending signal is named"
run 1 "unknown signal" -- "$tarn" encode "$dbc" Heartbeat Nope=1
# The long message goes out as the demo log's BAM transfer, packets 50 ms apart.
run 0 "encode TripSummary" -- "$tarn" encode --raw "$dbc" TripSummary TripDistance=8000 \
    FuelUsed=400 AverageSpeed=15488 IdleTime=3600 MaxSpeed=90 TripState=1 DriverId=0x1234 \
    TripId=0xBEEF
sed -n '6,7p;9,10p' "$log" | cut -d' ' -f2- >"$work/want_bam"
cut -d' ' -f2- "$work/out" >"$work/got_bam"
same "$work/want_bam" "$work/got_bam" "TripSummary as the demo log's BAM transfer"
# Every decoded message, encoded again from its raw values, decodes the same.
"$py" - "$tarn" "$dbc" "$work/json" <<'PY' || fail "encode/decode round trip"
import json, subprocess, sys
tarn, dbc, path = sys.argv[1:]
for line in open(path):
    row = json.loads(line)
    if not row["name"]:
        continue
    args = ["%s=%d" % (k, v["raw"]) for k, v in row["signals"].items()]
    if row["name"] == "AmbientConditions":  # a float signal: its raw is the bit pattern
        args = [a for a in args if not a.startswith("AmbientAirTemp")]
        args.append("AmbientAirTemp=%r" % row["signals"]["AmbientAirTemp"]["value"])
    frames = subprocess.run([tarn, "encode", "--raw", dbc, row["name"]] + args, check=True,
                            capture_output=True, text=True).stdout
    out = subprocess.run([tarn, "decode", "--json", dbc], input=frames, check=True,
                         capture_output=True, text=True).stdout.splitlines()
    again = json.loads(out[-1])
    assert again["signals"] == row["signals"], (row["name"], again["signals"], row["signals"])
PY

# --- Convert: a fixed point after one pass, the same model when reopened --
for f in "$shared"/dbc/*.dbc "$shared"/dbc/*.DBC "$dbc"; do
    [ -r "$f" ] || continue
    name=$(basename "$f")
    "$tarn" convert "$f" "$work/a.dbc" 2>/dev/null || { fail "convert $name"; continue; }
    "$tarn" convert "$work/a.dbc" "$work/b.dbc" 2>"$work/err" || fail "convert again $name"
    cmp -s "$work/a.dbc" "$work/b.dbc" || fail "convert of $name is not a fixed point"
    "$tarn" dump --json "$f" >"$work/m1" 2>/dev/null
    "$tarn" dump --json "$work/a.dbc" >"$work/m2" 2>/dev/null
    cmp -s "$work/m1" "$work/m2" || fail "$name reopened after convert is another model"
done

# --- Public J1939 logs -----------------------------------------------------
logs=$shared/dbc/logs
j1939=$shared/dbc/can-dbc__j1939.dbc
if [ -d "$logs" ] && [ -r "$j1939" ]; then
    run 0 "interleaved transfers" -- "$tarn" decode --json --all "$j1939" \
        "$logs/pretty_j1939__multipacket_interleaved.txt"
    "$py" - "$work/out" <<'PY' || fail "both interleaved transfers, whole"
import json, sys
t = [json.loads(l) for l in open(sys.argv[1]) if '"transfer":true' in l]
assert sorted(r["size"] for r in t) == [22, 34], [(r["name"], r["size"]) for r in t]
PY
    run 0 "DM1 log" -- "$tarn" decode --json --all "$j1939" "$logs/pretty_j1939__test_dm1.log"
    has "$work/out" '"dtcs":[{"spn":91,"fmi":3,"oc":1,"cm":0}]' "DM1 trouble codes"
else
    echo "public logs not found under $shared: skipping that part"
fi

if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed" >&2
    exit 1
fi
echo "all checks passed"
