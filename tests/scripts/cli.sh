#!/usr/bin/env bash
# The tarn command-line tool on the demo network, on broken input and on the
# public J1939 logs. Args: $1 libtarn.so, $2 source dir, $3 build dir.
set -uo pipefail

src=$2
build=$3
tarn=$build/tools/tarn
dbc=$src/examples/demo.dbc
log=$src/examples/demo.log
expected=$src/tests/scripts/cli_expected
shared=${TARN_SHARED_DIR:-$src/../shared}

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

# expect_status WANT DESCRIPTION -- COMMAND...: runs COMMAND, keeps its output
# in $work/out and $work/err and checks the exit status.
expect_status() {
    local want=$1 what=$2
    shift 3
    "$@" >"$work/out" 2>"$work/err"
    local got=$?
    if [ "$want" = nonzero ]; then
        [ "$got" -ne 0 ] || fail "$what: exit status 0, wanted non-zero"
    elif [ "$got" -ne "$want" ]; then
        fail "$what: exit status $got, wanted $want"
    fi
    if [ "$got" -ge 128 ]; then fail "$what: killed by a signal"; fi
    if grep -qE 'Sanitizer|runtime error:' "$work/err"; then
        fail "$what: sanitizer report"
        cat "$work/err" >&2
    fi
}

expect_in() {  # expect_in FILE TEXT DESCRIPTION
    grep -qF -- "$2" "$1" || {
        fail "$3: '$2' missing from $(basename "$1")"
        sed 's/^/    /' "$1" >&2
    }
}

same() {  # same EXPECTED ACTUAL DESCRIPTION
    diff -u "$1" "$2" >"$work/diff" || {
        fail "$3"
        cat "$work/diff" >&2
    }
}

# --- Golden output on the demo network -----------------------------------
expect_status 0 "dump" -- "$tarn" dump "$dbc"
same "$expected/demo_dump.txt" "$work/out" "dump of the demo database"

expect_status 0 "decode" -- "$tarn" decode "$dbc" "$log"
same "$expected/demo_decode.txt" "$work/out" "decode of the demo log"
same "$expected/demo_decode.stderr" "$work/err" "decode summary"
cp "$work/out" "$work/text"

# Standard input, implicit and as "-", gives the same messages.
"$tarn" decode "$dbc" <"$log" >"$work/stdin1" 2>/dev/null || fail "decode from implicit stdin"
"$tarn" decode "$dbc" - <"$log" >"$work/stdin2" 2>/dev/null || fail "decode from -"
same "$work/text" "$work/stdin1" "decode from implicit stdin"
same "$work/text" "$work/stdin2" "decode from -"

# --- JSON ------------------------------------------------------------------
expect_status 0 "decode --json" -- "$tarn" decode --json "$dbc" "$log"
cp "$work/out" "$work/json"
python3 - "$work/json" "$work/text" <<'PY' || fail "JSON output does not match the text output"
import json, sys
rows = [json.loads(line) for line in open(sys.argv[1])]
text = open(sys.argv[2]).read().splitlines()
assert len(rows) == len(text) == 10, (len(rows), len(text))
for row, line in zip(rows, text):
    # Same message, in the same place, in both forms.
    words = line.split()
    assert words[0] == "%.6f" % row["t"], (words[0], row["t"])
    assert int(words[2], 16) == row["id"] and words[3] == row["name"], line
    for name, sig in row["signals"].items():
        assert set(sig) <= {"value", "raw", "unit", "text"}, sig
        assert ("%s=" % name) in line, (name, line)
transfers = [r for r in rows if "transfer" in r]
assert [(r["name"], r["id"], r["transfer"]) for r in transfers] == \
    [("TripSummary", 0x1CFF2000, 20), ("TripSummary", 0x1CFF2017, 20)], transfers
assert rows[1]["signals"]["AmbientAirTemp"] == {"value": 21.5, "raw": 0x41AC0000, "unit": "degC"}
PY

# JSON strings stay valid whatever the bytes: quotes, control characters and
# Latin-1 text in names, units and value descriptions.
printf 'BO_ 291 Odd: 1 X\n SG_ S : 0|8@1+ (1,0) [0|255] "\xb0C" X\nVAL_ 291 S 1 "say \\"hi\\"\ttab" 2 "caf\xe9" ;\n' \
    >"$work/odd.dbc"
printf '(1.5) can0 123#01\n(2.5) can0 123#02\n' >"$work/odd.log"
expect_status 0 "decode --json with odd text" -- "$tarn" decode --json "$work/odd.dbc" "$work/odd.log"
python3 - "$work/out" <<'PY' || fail "odd text breaks the JSON output"
import json, sys
rows = [json.loads(line) for line in open(sys.argv[1], encoding="utf-8")]
assert [r["signals"]["S"]["text"] for r in rows] == ['say "hi"\ttab', "caf\u00e9"], rows
assert rows[0]["signals"]["S"]["unit"] == "\u00b0C", rows[0]
PY

# --- --only ----------------------------------------------------------------
for case in "TripSummary:2" "Heartbeat,Diagnostics:3" "EngineStatus:2"; do
    names=${case%:*}
    want=${case#*:}
    expect_status 0 "--only $names" -- "$tarn" decode --only "$names" "$dbc" "$log"
    got=$(wc -l <"$work/out")
    [ "$got" -eq "$want" ] || fail "--only $names printed $got lines, wanted $want"
    awk '{print $4}' "$work/out" | sort -u >"$work/names"
    tr ',' '\n' <<<"$names" | sort -u >"$work/wanted"
    same "$work/wanted" "$work/names" "--only $names prints only those messages"
done
expect_status 0 "--only=a --only b" -- "$tarn" decode --only=Heartbeat --only TripSummary "$dbc" "$log"
[ "$(wc -l <"$work/out")" -eq 3 ] || fail "repeated --only"

# --- Other line formats ----------------------------------------------------
# The screen format of candump, with and without time stamps, classic and FD.
cat >"$work/screen.log" <<'LOG'
  can0  0CF00400   [8]  F1 96 8C 80 3E FF F0 F6
 (1700000000.006000)  can0  100   [2]  2A 01
  can0  200  [12]  88 13 A1 13 7E 13 92 13 40 E2 01 00
  can0  123   [0]  remote request
LOG
expect_status 0 "screen format" -- "$tarn" decode "$dbc" "$work/screen.log"
sed -n '1p;4p;5p' "$work/text" | cut -d' ' -f2- >"$work/want_screen"
sed 's/^1700000000.006000 //' "$work/out" >"$work/got_screen"
same "$work/want_screen" "$work/got_screen" "screen-format frames decode like log-format ones"
expect_in "$work/err" "1 remote frame" "remote frames are counted"

# --- Bad input -------------------------------------------------------------
cat >"$work/bad.log" <<'LOG'
(1700000000.000000) can0 0CF00400#F1968C803EFFF0F6
(1700000000.001000) can0 12345#00
this is not a frame

(1700000000.002000) can0 100#2A0
(1700000000.003000) can0 100#2A01
(1700000000.004000) can0 800#00
(1700000000.005000) can0 123#0102030405060708090A
(1700000000.006000 can0 100#2A01
LOG
expect_status 0 "malformed lines are skipped" -- "$tarn" decode "$dbc" "$work/bad.log"
for n in 2 3 5 7 8 9; do expect_in "$work/err" "bad.log:$n:" "malformed line $n reported"; done
[ "$(grep -c 'malformed line skipped' "$work/err")" -eq 6 ] || fail "exactly six malformed lines"
[ "$(wc -l <"$work/out")" -eq 2 ] || fail "the two good lines around the bad ones decode"

printf 'garbage\nmore garbage\n' >"$work/garbage.log"
expect_status 1 "a log without one frame" -- "$tarn" decode "$dbc" "$work/garbage.log"
expect_in "$work/err" "garbage.log:1:" "garbage line numbers"

expect_status nonzero "missing DBC" -- "$tarn" decode "$work/none.dbc" "$log"
expect_in "$work/err" "none.dbc" "missing DBC named"
expect_status nonzero "DBC is a directory" -- "$tarn" dump "$work"
expect_status nonzero "missing log" -- "$tarn" decode "$dbc" "$work/none.log"
expect_in "$work/err" "none.log" "missing log named"
expect_status nonzero "unknown message" -- "$tarn" encode "$dbc" NoSuchMessage A=1
expect_in "$work/err" "NoSuchMessage" "unknown message named"
expect_status nonzero "unknown signal" -- "$tarn" encode "$dbc" Heartbeat Nope=1
expect_status nonzero "raw value too wide" -- "$tarn" encode "$dbc" Heartbeat Alive=256
expect_status nonzero "not a number" -- "$tarn" encode "$dbc" Heartbeat Alive=abc
expect_status nonzero "--only of an unknown message" -- "$tarn" decode --only Nope "$dbc" "$log"
expect_status 2 "no command" -- "$tarn"
expect_status 2 "unknown command" -- "$tarn" frobnicate "$dbc"
expect_status 2 "unknown option" -- "$tarn" decode --bogus "$dbc"
expect_status 0 "help" -- "$tarn" --help
expect_in "$work/out" "usage: tarn" "help text"

# Mangled copies of the demo log and raw bytes: any exit status, but no crash.
python3 - "$log" >"$work/mangled.log" <<'PY'
import random, sys
rng = random.Random(11)
lines = open(sys.argv[1]).read().splitlines()
alphabet = "0123456789ABCDEF#()[]. R_\t"
for _ in range(3000):
    line = list(rng.choice(lines))
    for _ in range(rng.randrange(1, 4)):
        i = rng.randrange(len(line))
        op = rng.randrange(3)
        if op == 0:
            line[i] = rng.choice(alphabet)
        elif op == 1:
            del line[i]
        else:
            line.insert(i, rng.choice(alphabet) * rng.randrange(1, 70))
    print("".join(line))
PY
expect_status 0 "mangled log lines" -- "$tarn" decode --json "$dbc" "$work/mangled.log"
python3 -c 'import json, sys; [json.loads(l) for l in open(sys.argv[1])]' "$work/out" ||
    fail "JSON output of mangled input"
head -c 65536 /dev/urandom >"$work/random.log"
"$tarn" decode "$dbc" "$work/random.log" >/dev/null 2>"$work/err"
[ $? -lt 2 ] || fail "random bytes as a log"

# --- Encode ----------------------------------------------------------------
# The long message goes out as the BAM transfer written by hand in the demo log.
expect_status 0 "encode TripSummary" -- "$tarn" encode "$dbc" TripSummary TripDistance=8000 \
    FuelUsed=400 AverageSpeed=15488 IdleTime=3600 MaxSpeed=90 TripState=1 DriverId=0x1234 \
    TripId=0xBEEF
sed -n '6,7p;9,10p' "$log" | cut -d' ' -f2- >"$work/want_bam"
cut -d' ' -f2- "$work/out" >"$work/got_bam"
same "$work/want_bam" "$work/got_bam" "TripSummary is encoded as the demo log's BAM transfer"

expect_status 0 "encode --physical" -- "$tarn" encode --physical "$dbc" AmbientConditions \
    AmbientAirTemp=21.5 BarometricPressure=101 RoadSurfaceTemp=25.5
same <(echo "(0.000000) can0 18FEF500#0000AC41CA255000") "$work/out" "physical values"
expect_status 0 "encode --interface" -- "$tarn" encode --interface vcan3 "$dbc" Heartbeat \
    Alive=-1 State=2
same <(echo "(0.000000) vcan3 100#FF02") "$work/out" "negative raw values and interface name"

# Round trip: every message of the demo log, encoded from its decoded raw
# values and decoded again, gives the same values (BAM and CAN FD included).
python3 - "$tarn" "$dbc" "$work/json" <<'PY' || fail "encode/decode round trip"
import json, subprocess, sys
tarn, dbc, path = sys.argv[1:]
for line in open(path):
    row = json.loads(line)
    args = ["%s=%d" % (k, v["raw"]) for k, v in row["signals"].items()]
    frames = subprocess.run([tarn, "encode", dbc, row["name"]] + args, check=True,
                            capture_output=True, text=True).stdout
    out = subprocess.run([tarn, "decode", "--json", dbc], input=frames, check=True,
                         capture_output=True, text=True).stdout.splitlines()
    assert len(out) == 1, (row["name"], frames, out)
    again = json.loads(out[0])
    assert again["name"] == row["name"], (again, row)
    assert again["signals"] == row["signals"], (again["signals"], row["signals"])
PY

# --- Progress line ---------------------------------------------------------
# Shown only for big files when standard error is a terminal.
if command -v script >/dev/null && [ -r "$src/tools/gen_log.py" ]; then
    python3 "$src/tools/gen_log.py" --lines 250000 --seed 7 >"$work/big.log"
    script -qec "$tarn decode $dbc $work/big.log >/dev/null" /dev/null >"$work/tty" 2>&1 ||
        fail "decode of a big log under a terminal"
    expect_in "$work/tty" "%" "progress line on a terminal"
    "$tarn" decode "$dbc" "$work/big.log" >/dev/null 2>"$work/err" || fail "decode of a big log"
    if grep -q "%" "$work/err"; then fail "progress line without a terminal"; fi
fi

# --- Public J1939 logs -----------------------------------------------------
logs=$shared/dbc/logs
j1939=$shared/dbc/can-dbc__j1939.dbc
if [ -d "$logs" ] && [ -r "$j1939" ]; then
    largest=$(ls -S "$logs"/* | head -n 1)
    expect_status 0 "decode $(basename "$largest")" -- "$tarn" decode "$j1939" "$largest"
    [ -s "$work/out" ] || fail "nothing decoded from $(basename "$largest")"
    expect_status 0 "RTS/CTS transfer in the public log" -- \
        "$tarn" decode --json --only VI "$j1939" "$logs/pretty_j1939__multipacket_cts.txt"
    expect_in "$work/out" '"transfer":22' "VI reassembled from its RTS/CTS transfer"
else
    echo "public logs not found under $shared: skipping that part"
fi
# Every public DBC file dumps without trouble.
for f in "$shared"/dbc/*.dbc "$shared"/dbc/*.DBC; do
    [ -r "$f" ] || continue
    expect_status 0 "dump $(basename "$f")" -- "$tarn" dump "$f"
done

if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed" >&2
    exit 1
fi
echo "all checks passed"
