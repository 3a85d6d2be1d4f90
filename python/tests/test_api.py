"""The database API against the DBC text, an independent bit-level packer,
hand-computed values and the library's own C results on the corpus."""

import ctypes
import logging
import math
import os
import random

import can
import numpy as np
import pandas as pd
import pytest

import tarn
from tarn import _native as N
from conftest import CORPUS, DEMO_DBC, DEMO_LOG, corpus_files
from reference import pack, parse_dbc

MESSAGES, NODES, TABLES = parse_dbc(DEMO_DBC)


@pytest.mark.parametrize("record,dtype,size", [(N.Frame, N.FRAME_DTYPE, 80),
                                                (N.Value, N.VALUE_DTYPE, 32),
                                                (N.BatchResult, N.RESULT_DTYPE, 24)])
def test_batch_records_match_the_c_layout(record, dtype, size):
    assert ctypes.sizeof(record) == dtype.itemsize == size
    for name, _ in record._fields_:
        assert dtype.fields[name][1] == getattr(record, name).offset, name


def test_model_matches_the_dbc_text(db):
    assert [m.name for m in db.messages] == list(MESSAGES)
    for m in db.messages:
        ref = MESSAGES[m.name]
        assert (m.frame_id, m.is_extended_frame, m.length) == \
            (ref["id"], ref["extended"], ref["size"])
        assert m.cycle_time == ref["cycle"]
        assert [s.name for s in m.signals] == list(ref["signals"])
        for s in m.signals:
            r = ref["signals"][s.name]
            assert (s.start, s.length, s.is_signed, s.scale, s.offset) == \
                (r["start"], r["length"], r["signed"], r["factor"], r["offset"])
            assert s.byte_order == ("little_endian" if r["little"] else "big_endian")
            assert s.is_multiplexer == (r["mux"] == "M")
            assert s.multiplexer_ids == ([int(r["mux"][1:])] if r["mux"] and r["mux"] != "M"
                                         else None)
            assert s.choices == TABLES.get((m.frame_id, s.name))
    assert [n.name for n in db.nodes] == list(NODES)
    assert {n.name: n.attributes["NmStationAddress"] for n in db.nodes} == \
        {k: int(v) for k, v in NODES.items()}
    engine = db.get_message_by_name("EngineStatus")
    speed = engine.get_signal_by_name("EngineSpeed")
    assert (engine.senders, engine.comment, speed.comment, speed.unit, speed.maximum) == \
        (["Engine"], "Engine speed and torque", "Crankshaft speed", "rpm", 8031.875)
    assert engine.get_signal_by_name("TorqueMode").receivers == ["Instrument", "Gateway"]
    assert db.get_message_by_name("AmbientConditions").signals[0].is_float
    assert db.get_message_by_name("Diagnostics").signals[1].multiplexer_signal == "Page"
    assert db.attributes == {"ProtocolType": "J1939"}
    assert db.attribute_definitions["GenMsgCycleTime"][1:6] == \
        ("message", "INT", 0, 3600000, None)
    assert db.is_j1939 and db.diagnostics == []


@pytest.mark.parametrize("frame_id,name", [(0x0CF00400, "EngineStatus"),
                                           (0x8CF00400, "EngineStatus"),
                                           (0x100, "Heartbeat"), (0x200, "WheelSpeeds")])
def test_message_lookup(db, frame_id, name):
    assert db.get_message_by_frame_id(frame_id).name == name


def random_raws(rng, name, page=None):
    raws = {}
    for sig, r in MESSAGES[name]["signals"].items():
        if r["mux"] == "M":
            raws[sig] = page
        elif not r["mux"] or int(r["mux"][1:]) == page:
            raws[sig] = rng.getrandbits(r["length"])
            if r["signed"] and raws[sig] >> (r["length"] - 1):
                raws[sig] -= 1 << r["length"]
    return raws


@pytest.mark.parametrize("name,page", [("EngineStatus", None), ("Diagnostics", 0),
                                       ("Diagnostics", 1), ("TripSummary", None),
                                       ("WheelSpeeds", None), ("Heartbeat", None)])
def test_raw_values_against_the_reference_packer(db, name, page):
    rng = random.Random(name + str(page))
    sigs = MESSAGES[name]["signals"]
    for _ in range(30):
        raws = random_raws(rng, name, page)
        payload = pack(MESSAGES[name]["size"],
                       [(sigs[s]["start"], sigs[s]["length"], sigs[s]["little"],
                         v & ((1 << sigs[s]["length"]) - 1)) for s, v in raws.items()])
        assert db.encode_message(name, raws, scaling=False) == payload
        assert db.decode_message(name, payload, scaling=False, decode_choices=False) == raws
        physical = db.decode_message(name, payload, decode_choices=False)
        for s, v in raws.items():
            assert physical[s] == pytest.approx(v * sigs[s]["factor"] + sigs[s]["offset"])
        # python-can Messages and physical values in, the same payload out
        frame = can.Message(arbitration_id=MESSAGES[name]["id"],
                            is_extended_id=MESSAGES[name]["extended"], data=payload)
        assert db.decode_message(frame, decode_choices=False) == physical
        assert db.encode_message(MESSAGES[name]["id"], physical, strict=False) == payload


def test_hand_computed_values(db):
    # The first frame of the demo log.
    assert db.decode_message(0x0CF00400, bytes.fromhex("F1968C803EFFF0F6")) == {
        "TorqueMode": "Accelerator pedal", "DriverDemandTorque": 25, "ActualTorque": 15,
        "EngineSpeed": 2000.0, "StarterMode": "Start not requested", "TorqueTrim": -5.0}
    values = db.decode_message(0x18FEF500, bytes.fromhex("0000AC41CA2550FF"))
    assert values == {"AmbientAirTemp": 21.5, "BarometricPressure": 101.0,
                      "RoadSurfaceTemp": 25.5}
    payload = db.encode_message("EngineStatus", {"EngineSpeed": 2000, "TorqueMode": "Low idle",
                                                 "TorqueTrim": -5, "DriverDemandTorque": 0})
    assert payload[3:5] == bytes.fromhex("803E") and payload[7] == 0xF6 and payload[1] == 125
    assert payload[0] & 0xF == 0
    trip = db.decode_message("TripSummary", bytes(range(20)), scaling=True)
    assert trip["IdleTime"] == 0x0D0C0B0A and isinstance(trip["IdleTime"], int)
    mux = db.decode_message(0x18FF1021, bytes.fromhex("0130021100FFFFF4"))
    assert mux == {"Page": 1, "BatteryVoltage": 28.0, "FaultCode": "Overheat", "Counter": 4}


def _raises(exc, fn, signal=None):
    with pytest.raises(exc) as info:
        fn()
    if signal is not None:
        assert info.value.signal == signal and signal in str(info.value)


def closed():
    db = tarn.load_file(DEMO_DBC)
    db.close()
    return db


@pytest.mark.parametrize("case", [
    lambda db: _raises(tarn.DecodeError, lambda: db.decode_message("Nope", b"")),
    lambda db: _raises(tarn.DecodeError, lambda: db.decode_message(0x7FF, bytes(8))),
    lambda db: _raises(tarn.DecodeError, lambda: db.decode_message("EngineStatus", bytes(3))),
    lambda db: _raises(tarn.EncodeError, lambda: db.encode_message(
        "EngineStatus", {"EngineSpeed": 8100}), "EngineSpeed"),
    lambda db: _raises(tarn.EncodeError, lambda: db.encode_message(
        "EngineStatus", {"EngineSpeed": 9000}, strict=False), "EngineSpeed"),
    lambda db: _raises(tarn.EncodeError, lambda: db.encode_message(
        "EngineStatus", {"TorqueTrim": math.nan}), "TorqueTrim"),
    lambda db: _raises(tarn.EncodeError, lambda: db.encode_message(
        "EngineStatus", {"Speed": 1}), "Speed"),
    lambda db: _raises(tarn.EncodeError, lambda: db.encode_message(
        "EngineStatus", {"TorqueMode": "Warp"}), "TorqueMode"),
    lambda db: _raises(tarn.EncodeError, lambda: db.encode_message(
        "Heartbeat", {"Alive": -1}, scaling=False), "Alive"),
    lambda db: _raises(tarn.EncodeError, lambda: db.encode_message(
        "Diagnostics", {"Page": 0, "BatteryVoltage": 1}), "BatteryVoltage"),
    lambda db: _raises(tarn.EncodeError, lambda: db.encode_message("Nope", {})),
    lambda db: _raises(FileNotFoundError, lambda: tarn.load_file("/nonexistent.dbc")),
    lambda db: _raises(tarn.Error, lambda: closed().messages[0].signals),
], ids=["unknown name", "unknown id", "short payload", "strict range", "raw overflow",
        "nan", "unknown signal", "unknown choice", "negative unsigned raw",
        "unselected page", "unknown message", "missing file", "closed database"])
def test_errors(db, case):
    case(db)


def test_lenient_forms(db):
    assert db.decode_message("EngineStatus", bytes(3), allow_truncated=True,
                             decode_choices=False) == \
        {"TorqueMode": 0, "DriverDemandTorque": -125, "ActualTorque": -125}
    assert db.encode_message("EngineStatus", {"EngineSpeed": 8100}, strict=False)[3:5] == \
        (64800).to_bytes(2, "little")


BROKEN = 'VERSION ""\nBU_: A\nBO_ 1 M: 8 A\n SG_ S : 0|8@1+ (1,0) [0|1] "" A\n SG_ T 8|8@1+\n'


def test_parse_errors_carry_line_numbers(caplog):
    with pytest.raises(tarn.ParseError) as info:
        tarn.load_string(BROKEN, strict=True)
    assert info.value.line == 5 and "line 5" in str(info.value)
    with caplog.at_level(logging.WARNING, logger="tarn"):
        db = tarn.load_string(BROKEN)
    assert [d.line for d in db.diagnostics] == [5]
    assert any("line 5" in r.getMessage() for r in caplog.records if r.name == "tarn")
    assert [s.name for s in db.get_message_by_name("M").signals] == ["S"]


def c_decode(db, frame):
    """The library's own result for one frame: {signal: (raw, physical)}."""
    values = (N.Value * max(db.max_signals, 1))()
    out = N.Decoded()
    data = bytes(frame.data)
    rc = N.lib.tarn_decode(db._handle, frame.arbitration_id, frame.is_extended_id, data,
                           len(data), values, len(values), ctypes.byref(out))
    if rc != N.OK:
        return None, {}
    msg = db.messages[out.message_index]
    got = {}
    for v in values[:out.count]:
        raw = v.raw.f if v.flags & N.RAW_FLOAT else v.raw.i if v.flags & N.RAW_SIGNED \
            else v.raw.u
        got[msg.signals[v.signal].name] = (raw, v.physical)
    return msg.name, got


@pytest.mark.parametrize("name", corpus_files())
def test_corpus_against_the_c_results(name):
    """Random payloads of every message, decoded one by one through the API
    and as a whole through decode_log, against direct tarn_decode calls."""
    db = tarn.load_file(os.path.join(CORPUS, name))
    rng = random.Random(name)
    frames = [tarn.Frame(m.frame_id, rng.randbytes(min(m.length, 64)), m.is_extended_frame,
                         timestamp=i * 0.001)
              for i, m in enumerate(db.messages * 2) if m.frame_id <= 0x1FFFFFFF]
    expected = {}
    for f in frames:
        msg, ref = c_decode(db, f)
        if msg is None:
            continue
        raws = db.decode_message(f, scaling=False, decode_choices=False, allow_truncated=True)
        assert raws == {s: r for s, (r, _) in ref.items()}
        physical = db.decode_message(f, decode_choices=False, allow_truncated=True)
        assert physical == pytest.approx({s: p for s, (_, p) in ref.items()}, nan_ok=True)
        m = db.get_message_by_name(msg)
        row = [ref.get(s.name, (None, math.nan))[1] for s in m.signals]
        expected.setdefault(msg, []).append((f.timestamp, row))
    got = db.decode_log(frames)
    assert sorted(got) == sorted(expected)
    for msg, rows in expected.items():
        want = pd.DataFrame([r for _, r in rows], index=pd.Index([t for t, _ in rows],
                                                                 name="time"),
                            columns=[s.name for s in db.get_message_by_name(msg).signals],
                            dtype=float)
        pd.testing.assert_frame_equal(got[msg], want, check_exact=True)


def test_logs_through_the_library_readers(db):
    ours = list(tarn.read_log(DEMO_LOG))
    theirs = list(can.CanutilsLogReader(DEMO_LOG))
    assert len(ours) == len(theirs) == 21
    for a, b in zip(ours, theirs):
        assert (a.timestamp, a.arbitration_id, a.is_extended_id, a.data, a.channel) == \
            (pytest.approx(b.timestamp), b.arbitration_id, b.is_extended_id, bytes(b.data),
             b.channel)
    # python-can Messages decode as the file does
    from_file = db.decode_log(DEMO_LOG)
    from_frames = db.decode_log(theirs)
    assert from_file.keys() == from_frames.keys()
    for name in from_file:
        pd.testing.assert_frame_equal(from_file[name], from_frames[name])


def test_decode_log_reassembles_transfers(db):
    frames = db.decode_log(DEMO_LOG)
    trip = frames["TripSummary"]
    assert list(trip.index) == [1700000000.018, 1700000000.028]
    assert list(trip["TripDistance"]) == [1000, 2000] and list(trip["TripId"]) == [48879, 257]
    diag = frames["Diagnostics"]
    assert diag["CoolantTemp"].isna().tolist() == [False, True]
    assert np.isnan(diag["BatteryVoltage"].iloc[0]) and diag["BatteryVoltage"].iloc[1] == 28


def test_nothing_reaches_standard_output(tmp_path, caplog):
    """At the descriptor level: loading with warnings, a log with transfers and
    a J1939 exchange write nothing to fd 1; warnings reach logging."""
    from tarn import j1939
    capture = open(tmp_path / "stdout", "w+b")
    saved = os.dup(1)
    os.dup2(capture.fileno(), 1)
    try:
        with caplog.at_level(logging.DEBUG, logger="tarn"):
            tarn.load_string(BROKEN)
            tarn.load_file(DEMO_DBC).decode_log(DEMO_LOG)
            channel = "stdout-%d" % os.getpid()
            with can.Bus(interface="virtual", channel=channel) as b1, \
                    can.Bus(interface="virtual", channel=channel) as b2, \
                    j1939.Node(b1, 0x10) as a, j1939.Node(b2, 0x20) as b:
                a.send(0xEF00, bytes(40), 0x20).result(5)
                assert b.recv(5).data == bytes(40)
    finally:
        os.dup2(saved, 1)
        os.close(saved)
    capture.seek(0)
    assert capture.read() == b""
    assert any(r.name == "tarn" and r.levelno == logging.WARNING for r in caplog.records)
