import json
import math
import random
import subprocess
import threading
import time

import can
import pytest

import tarn
from conftest import DEMO_DBC, DEMO_LOG, cli_path
from reference import pack, parse_dbc, unpack

MESSAGES, NODES, TABLES = parse_dbc(DEMO_DBC)


# --- Model ------------------------------------------------------------------

def test_messages_match_the_dbc_text(db):
    got = {m.name: m for m in db.messages}
    assert set(got) == set(MESSAGES)
    for name, ref in MESSAGES.items():
        m = got[name]
        assert (m.id, m.extended, m.size, m.cycle_time) == \
            (ref["id"], ref["extended"], ref["size"], ref["cycle"]), name
        assert {s.name for s in m.signals} == set(ref["signals"])
        starts = [(s.start_bit, s.length) for s in m.signals]
        assert starts == sorted(starts), "signals come sorted by start bit"
        for s in m.signals:
            r = ref["signals"][s.name]
            assert (s.start_bit, s.length, s.is_signed, s.factor, s.offset) == \
                (r["start"], r["length"], r["signed"], r["factor"], r["offset"])
            assert s.byte_order == ("little_endian" if r["little"] else "big_endian")
            if r["mux"] and r["mux"] != "M":
                assert s.multiplexer_value == int(r["mux"][1:])
            if (m.id, s.name) in TABLES:
                assert s.value_table == TABLES[(m.id, s.name)]


def test_nodes_and_protocol(db):
    assert db.is_j1939
    assert {n.name: n.station_address for n in db.nodes} == \
        {k: int(v) for k, v in NODES.items()}


@pytest.mark.parametrize("key,name", [
    ("TripSummary", "TripSummary"),
    (0x18FEF5AB, "AmbientConditions"),  # J1939: the source address does not matter
    (0x0CF00417, "EngineStatus"),
    (0x100, "Heartbeat"),
])
def test_message_lookup(db, key, name):
    assert db.message(key).name == name


@pytest.mark.parametrize("key", ["NoSuchMessage", 0x18AAAA00])
def test_unknown_message_raises(db, key):
    with pytest.raises(tarn.UnknownMessageError):
        db.message(key)


def test_bad_files_raise(tmp_path):
    with pytest.raises(FileNotFoundError):
        tarn.Database(str(tmp_path / "missing.dbc"))
    with pytest.raises(tarn.TarnError):
        tarn.Database("x" * 300)
    db = tarn.Database(DEMO_DBC)
    db.close()
    with pytest.raises(tarn.TarnError, match="closed"):
        db.decode(0x100, b"\x00\x00")


# --- Decoding ---------------------------------------------------------------

def physical(sig, raw):
    if sig["signed"] and raw >> (sig["length"] - 1) & 1:
        raw -= 1 << sig["length"]
    return raw * sig["factor"] + sig["offset"]


def single_frames():
    frames = []
    for msg in can.CanutilsLogReader(DEMO_LOG):
        name = next((n for n, m in MESSAGES.items() if m["id"] == msg.arbitration_id), None)
        if name and not msg.is_fd and name != "AmbientConditions":
            frames.append(pytest.param(msg, name, id="%s@%.3f" % (name, msg.timestamp)))
    return frames


@pytest.mark.parametrize("msg,name", single_frames())
def test_decode_matches_reference_unpacking(db, msg, name):
    """Integer signals of every single frame in the log against the reference."""
    got_name, values = db.decode(msg)
    assert got_name == name
    assert db.decode(msg.arbitration_id, msg.data) == (got_name, values)  # plain arguments
    ref = MESSAGES[name]["signals"]
    for sig, value in values.items():
        r = ref[sig]
        raw = unpack(msg.data, r["start"], r["length"], r["little"])
        assert value == pytest.approx(physical(r, raw)), sig


def test_float_signal_and_unknown_frame(db):
    name, values = db.decode(0x18FEF500, bytes.fromhex("0000AC41CA2550FF"))
    assert values["AmbientAirTemp"] == 21.5
    with pytest.raises(tarn.UnknownMessageError):
        db.decode(0x18FEF231, bytes(8))
    with pytest.raises(tarn.TarnError):
        db.decode(0x100, bytes(65))  # more than a CAN FD frame holds


def test_frames_over_a_virtual_bus(db):
    """The same frames sent over python-can's virtual bus decode the same."""
    channel = "tarn-replay-%d" % random.randrange(1 << 30)
    with can.Bus(interface="virtual", channel=channel) as tx, \
            can.Bus(interface="virtual", channel=channel) as rx:
        sent = list(can.CanutilsLogReader(DEMO_LOG))
        for msg in sent:
            tx.send(msg)
        got = []
        for _ in sent:
            msg = rx.recv(timeout=2)
            assert msg is not None
            got += db.analyse(msg)
    expected = [d for msg in can.CanutilsLogReader(DEMO_LOG) for d in db.analyse(msg)]
    assert [(d.name, d.values) for d in got] == [(d.name, d.values) for d in expected]
    assert len(got) == 10


# --- Encoding ---------------------------------------------------------------

def random_raws(rng, msg, mux=None):
    """Random raw values; with a multiplexer only the selected page's signals."""
    raws = {}
    for name, sig in MESSAGES[msg]["signals"].items():
        if sig["mux"] and sig["mux"] != "M" and int(sig["mux"][1:]) != mux:
            continue
        raws[name] = mux if sig["mux"] == "M" else rng.getrandbits(sig["length"])
    return raws


def reference_payload(msg, raws):
    sigs = MESSAGES[msg]["signals"]
    return pack(MESSAGES[msg]["size"],
                [(sigs[n]["start"], sigs[n]["length"], sigs[n]["little"], v)
                 for n, v in raws.items()])


@pytest.mark.parametrize("msg,mux", [("EngineStatus", None), ("Heartbeat", None),
                                     ("Diagnostics", 0), ("Diagnostics", 1),
                                     ("AmbientConditions", None)])
def test_encode_matches_reference_packer(db, msg, mux):
    rng = random.Random(hash((msg, mux)) & 0xFFFF)
    for _ in range(50):
        raws = random_raws(rng, msg, mux)
        if msg == "AmbientConditions":
            raws["AmbientAirTemp"] = 0x41AC0000  # keep the float a number
        frames = db.encode(msg, raws)
        assert frames == [reference_payload(msg, raws)], raws
        name, values = db.decode(MESSAGES[msg]["id"], frames[0])
        assert name == msg and set(values) == set(raws)


def test_long_messages_round_trip(db):
    """TripSummary over a BAM transfer and WheelSpeeds as a CAN FD frame."""
    rng = random.Random(5)
    for _ in range(20):
        raws = random_raws(rng, "TripSummary")
        packets = db.encode("TripSummary", raws)
        assert [p[0] for p in packets] == [1, 2, 3]
        payload = b"".join(p[1:] for p in packets)
        assert payload[:20] == reference_payload("TripSummary", raws)
        assert payload[20:] == b"\xff"
        db.analyse(can.Message(arbitration_id=0x1CECFF00,
                               data=bytes.fromhex("20140003FF20FF00")))
        done = [d for p in packets for d in db.analyse(0x1CEBFF00, p, True)]
        assert [(d.name, d.transfer_size, d.raw) for d in done] == \
            [("TripSummary", 20, raws)]

        raws = random_raws(rng, "WheelSpeeds")
        packets = db.encode("WheelSpeeds", raws)
        fd = can.Message(arbitration_id=0x200, is_extended_id=False, is_fd=True,
                         data=b"".join(p[1:] for p in packets)[:12])
        assert fd.data == reference_payload("WheelSpeeds", raws)
        (decoded,) = db.analyse(fd)
        assert decoded.raw == raws


def test_encode_errors(db):
    with pytest.raises(tarn.UnknownMessageError):
        db.encode("NoSuchMessage", {})
    with pytest.raises(tarn.UnknownMessageError):
        db.encode("Heartbeat", {"NoSuchSignal": 1})
    assert db.raw_from_physical("EngineStatus", "EngineSpeed", 1234.5) == 9876
    assert db.raw_from_physical("EngineStatus", "EngineSpeed", 1e9) == 0xFFFF


# --- J1939 transport session -------------------------------------------------

class ScriptedPeer(threading.Thread):
    """A J1939 node that answers one RTS: CTS for all packets, then the
    end-of-message acknowledgement once every data packet has arrived."""

    def __init__(self, bus):
        super().__init__(daemon=True)
        self.bus, self.rts, self.packets, self.plain = bus, None, {}, []
        self.stop = threading.Event()

    def reply(self, rts, control, b1, b2, b3, b4):
        sa, da = rts.arbitration_id & 0xFF, rts.arbitration_id >> 8 & 0xFF
        data = bytes([control, b1, b2, b3, b4]) + bytes(rts.data[5:8])
        self.bus.send(can.Message(arbitration_id=0x1CEC0000 | sa << 8 | da, data=data))

    def run(self):
        while not self.stop.is_set():
            msg = self.bus.recv(timeout=0.05)
            if msg is None:
                continue
            pf = msg.arbitration_id >> 16 & 0xFF
            if pf == 0xEC and msg.data[0] == 0x10:
                self.rts = msg
                self.reply(msg, 0x11, msg.data[3], 1, 0xFF, 0xFF)
            elif pf == 0xEB and self.rts is not None:
                self.packets[msg.data[0]] = bytes(msg.data[1:])
                if len(self.packets) == self.rts.data[3]:
                    d = self.rts.data
                    self.reply(self.rts, 0x13, d[1], d[2], d[3], 0xFF)
            else:
                self.plain.append(msg)


def test_transport_session_sends_over_rts_cts():
    channel = "tarn-j1939-%d" % random.randrange(1 << 30)
    done = []
    with can.Bus(interface="virtual", channel=channel) as ours, \
            can.Bus(interface="virtual", channel=channel) as theirs, \
            tarn.TransportSession(DEMO_DBC, send=ours,
                                  on_transfer=lambda *a: done.append(a)) as session:
        peer = ScriptedPeer(theirs)
        peer.start()
        raws = {"TripDistance": 8000, "FuelUsed": 400, "TripState": 1, "TripId": 0xBEEF}
        assert session.send("TripSummary", raws) == tarn.SEND_QUEUED
        assert session.send("Heartbeat", {"Alive": 7, "State": 2}) == tarn.SEND_OK
        deadline = time.monotonic() + 10
        while not done and time.monotonic() < deadline:
            msg = ours.recv(timeout=0.05)
            if msg is not None:
                session.receive(msg)
        peer.stop.set()
        peer.join()
    assert done, "the peer's acknowledgement completes the transfer"
    decoded, payload, value = done[0]
    expected = reference_payload("TripSummary", raws)
    assert (decoded.name, value, payload) == ("TripSummary", 0, expected)
    assert b"".join(peer.packets[k] for k in sorted(peer.packets))[:20] == expected
    rts = peer.rts
    assert rts.arbitration_id & 0xFFFF00FF == 0x1CEC0000  # from source 0x00
    assert bytes(rts.data) == bytes.fromhex("10140003FF20FF00")
    assert [(m.arbitration_id, bytes(m.data)) for m in peer.plain] == [(0x100, b"\x07\x02")]
