"""Two J1939 nodes on python-can's virtual bus, and the DM payload format."""

import itertools
import os

import can
import pytest

import tarn
from tarn import j1939
from conftest import DEMO_DBC

_channels = itertools.count()


@pytest.fixture
def bus_pair():
    channel = "tarn-j1939-%d-%d" % (os.getpid(), next(_channels))
    with can.Bus(interface="virtual", channel=channel) as b1, \
            can.Bus(interface="virtual", channel=channel) as b2:
        yield b1, b2


@pytest.mark.parametrize("timer", [True, False], ids=["timer thread", "node polls"])
def test_sessions_both_ways_broadcasts_and_dm1(bus_pair, timer):
    db = tarn.load_file(DEMO_DBC)
    with j1939.Node(bus_pair[0], 0x10, database=db, timer=timer) as a, \
            j1939.Node(bus_pair[1], 0x20, database=db, timer=timer) as b:
        # RTS/CTS in both directions at once
        to_b = a.send(0xEF00, bytes(range(100)), destination=0x20)
        to_a = b.send(0xEF00, bytes(range(200, 250)), destination=0x10)
        assert to_b.result(5) and to_a.result(5)
        got_b, got_a = b.recv(5), a.recv(5)
        assert (got_b.pgn, got_b.source, got_b.destination, got_b.data, got_b.transfer) == \
            (0xEF00, 0x10, 0x20, bytes(range(100)), True)
        assert (got_a.source, got_a.data) == (0x20, bytes(range(200, 250)))

        # a broadcast of a database message, decoded on arrival
        values = {"TripDistance": 1000, "FuelUsed": 200, "TripState": "Closed", "TripId": 7}
        assert a.send_message("TripSummary", values).result(5)
        trip = b.recv(5)
        assert (trip.destination, trip.message, len(trip.data)) == (0xFF, "TripSummary", 20)
        assert {k: trip.values[k] for k in values} == values

        # DM1: a list needs a broadcast, a single code fits one frame
        codes = [j1939.Dtc(100, 3, 2), j1939.Dtc(0x7FFFF, 31, 126), j1939.Dtc(5000, 1, 1, 1)]
        assert a.send_dm1(codes, lamp_status=(1, 0, 1, 0)).result(5)
        assert b.recv(5).transfer
        assert b.dtcs[0x10] == j1939.DiagnosticMessage((1, 0, 1, 0), (3, 3, 3, 3), codes)
        a.send_dm1(codes[:1])
        single = b.recv(5)
        assert not single.transfer and single.data == bytes.fromhex("00FF640003 02FFFF")
        assert b.recv(0.05) is None
        assert a.stats["sent"] == 3 and b.stats["received"] == 3

        # nobody answers at 0x55: no CTS within T3
        with pytest.raises(j1939.TransferError) as info:
            a.send(0xEF00, bytes(20), destination=0x55).result(5)
        assert info.value.reason == 3


@pytest.mark.parametrize("payload,lamps,codes", [
    ("0000000000000000", (0, 0, 0, 0), []),
    ("40FF640003820000", (1, 0, 0, 0), [j1939.Dtc(100, 3, 2, 1)]),
    ("04FFFFFFFF7E1027010A", (0, 0, 1, 0), [j1939.Dtc(0x7FFFF, 31, 126),
                                           j1939.Dtc(10000, 1, 10)]),
])
def test_dm_payloads(payload, lamps, codes):
    dm = j1939.parse_dm(bytes.fromhex(payload))
    assert (dm.lamp_status, dm.dtcs) == (lamps, codes)
