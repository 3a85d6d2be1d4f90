"""The database API: its model against the DBC text, decoding and encoding
against the library's own C results, errors, logs and DataFrames."""

import ctypes
import logging
import math
import os
import random

import can
import pandas as pd
import pytest

import tarn
from tarn import _native as N
from conftest import DEMO_DBC, DEMO_LOG, SHARED
from reference import parse_dbc

MESSAGES, NODES, TABLES = parse_dbc(DEMO_DBC)
CORPUS = os.path.join(SHARED, "dbc")
DBCS = [DEMO_DBC] + (sorted(os.path.join(CORPUS, f) for f in os.listdir(CORPUS)
                            if f.endswith(".dbc")) if os.path.isdir(CORPUS) else [])


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
        assert (m.frame_id, m.is_extended_frame, m.length, m.cycle_time) == \
            (ref["id"], ref["extended"], ref["size"], ref["cycle"])
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
    lookups = {0x0CF00400: "EngineStatus", 0x8CF00400: "EngineStatus", 0x100: "Heartbeat"}
    assert {i: db.get_message_by_frame_id(i).name for i in lookups} == lookups


def test_choice_texts_and_value_types(db):
    assert db.decode_message(0x18FF1021, bytes.fromhex("0130021100FFFFF4")) == \
        {"Page": 1, "BatteryVoltage": 28.0, "FaultCode": "Overheat", "Counter": 4}
    payload = db.encode_message("EngineStatus", {"TorqueMode": "Low idle", "EngineSpeed": 2000})
    assert db.decode_message("EngineStatus", payload, decode_choices=False)["TorqueMode"] == 0
    trip = db.decode_message("TripSummary", bytes(range(20)))
    assert trip["IdleTime"] == 0x0D0C0B0A and isinstance(trip["IdleTime"], int)
    # Lenient forms: a short payload, and a value past the declared maximum.
    assert db.decode_message("EngineStatus", bytes(3), allow_truncated=True,
                             decode_choices=False) == \
        {"TorqueMode": 0, "DriverDemandTorque": -125, "ActualTorque": -125}
    assert db.encode_message("EngineStatus", {"EngineSpeed": 8100}, strict=False)[3:5] == \
        (64800).to_bytes(2, "little")


def closed():
    db = tarn.load_file(DEMO_DBC)
    db.close()
    return db.messages[0].signals


def enc(*args, **kwargs):
    return lambda db: db.encode_message(*args, **kwargs)


def dec(*args, **kwargs):
    return lambda db: db.decode_message(*args, **kwargs)


@pytest.mark.parametrize("exc,signal,call", [
    (tarn.DecodeError, None, dec("Nope", b"")),
    (tarn.DecodeError, None, dec(0x7FF, bytes(8))),
    (tarn.DecodeError, None, dec("EngineStatus", bytes(3))),
    (tarn.EncodeError, "EngineSpeed", enc("EngineStatus", {"EngineSpeed": 8100})),
    (tarn.EncodeError, "EngineSpeed", enc("EngineStatus", {"EngineSpeed": 9000}, strict=False)),
    (tarn.EncodeError, "TorqueTrim", enc("EngineStatus", {"TorqueTrim": math.nan})),
    (tarn.EncodeError, "Speed", enc("EngineStatus", {"Speed": 1})),
    (tarn.EncodeError, "TorqueMode", enc("EngineStatus", {"TorqueMode": "Warp"})),
    (tarn.EncodeError, "Alive", enc("Heartbeat", {"Alive": -1}, scaling=False)),
    (tarn.EncodeError, "BatteryVoltage", enc("Diagnostics", {"Page": 0, "BatteryVoltage": 1})),
    (tarn.EncodeError, None, enc("Nope", {})),
    (FileNotFoundError, None, lambda db: tarn.load_file("/nonexistent.dbc")),
    (tarn.Error, None, lambda db: closed()),
])
def test_errors(db, exc, signal, call):
    with pytest.raises(exc) as info:
        call(db)
    if signal is not None:
        assert info.value.signal == signal and signal in str(info.value)


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


def c_decode(db, frame_id, extended, data):
    """The library's own result for one frame: name, {signal: (raw, physical)}."""
    values = (N.Value * max(db.max_signals, 1))()
    out = N.Decoded()
    if N.lib.tarn_decode(db._handle, frame_id, extended, data, len(data), values, len(values),
                         ctypes.byref(out)) != N.OK:
        return None, {}
    msg = db.messages[out.message_index]
    got = {}
    for v in values[:out.count]:
        raw = v.raw.f if v.flags & N.RAW_FLOAT else v.raw.i if v.flags & N.RAW_SIGNED \
            else v.raw.u
        got[msg.signals[v.signal].name] = (raw, v.physical)
    return msg.name, got


@pytest.mark.parametrize("path", DBCS, ids=os.path.basename)
def test_against_the_c_results(path):
    """Random payloads of every message, as python-can Messages and as Frames:
    decoded one by one and as a whole through decode_log, and encoded again
    from the raw values, all against direct tarn_decode calls."""
    db = tarn.load_file(path)
    rng = random.Random(os.path.basename(path))
    frames = []
    for i, m in enumerate(m for m in db.messages * 2 if m.frame_id <= 0x1FFFFFFF):
        data = rng.randbytes(min(m.length, 64))
        frames.append(can.Message(timestamp=i * 0.001, arbitration_id=m.frame_id, data=data,
                                  is_extended_id=m.is_extended_frame, is_fd=len(data) > 8)
                      if i % 2 else tarn.Frame(m.frame_id, data, m.is_extended_frame,
                                               timestamp=i * 0.001))
    expected = {}
    for f in frames:
        msg, ref = c_decode(db, f.arbitration_id, f.is_extended_id, bytes(f.data))
        if msg is None:
            continue
        raws = db.decode_message(f, scaling=False, decode_choices=False, allow_truncated=True)
        assert raws == {s: r for s, (r, _) in ref.items()}
        physical = db.decode_message(f, decode_choices=False, allow_truncated=True)
        assert physical == pytest.approx({s: p for s, (_, p) in ref.items()}, nan_ok=True)
        m = db.get_message_by_name(msg)
        if len(f.data) == m.length and not any(isinstance(r, float) for r in raws.values()):
            again = db.encode_message(msg, raws, scaling=False, strict=False)
            assert c_decode(db, f.arbitration_id, f.is_extended_id, again)[1] == ref
        row = [ref.get(s.name, (None, math.nan))[1] for s in m.signals]
        expected.setdefault(msg, []).append((f.timestamp, row))
    got = db.decode_log(frames)
    assert sorted(got) == sorted(expected)
    for msg, rows in expected.items():
        want = pd.DataFrame([r for _, r in rows], dtype=float,
                            index=pd.Index([t for t, _ in rows], name="time"),
                            columns=[s.name for s in db.get_message_by_name(msg).signals])
        pd.testing.assert_frame_equal(got[msg], want, check_exact=True)


def test_logs_through_the_library_readers(db):
    ours = list(tarn.read_log(DEMO_LOG))
    theirs = list(can.CanutilsLogReader(DEMO_LOG))
    assert len(ours) == len(theirs) == 21
    for a, b in zip(ours, theirs):
        assert (a.timestamp, a.arbitration_id, a.is_extended_id, a.data, a.channel) == \
            (pytest.approx(b.timestamp), b.arbitration_id, b.is_extended_id, bytes(b.data),
             b.channel)
    from_file, from_frames = db.decode_log(DEMO_LOG), db.decode_log(theirs)
    assert from_file.keys() == from_frames.keys()
    for name in from_file:
        pd.testing.assert_frame_equal(from_file[name], from_frames[name])


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
