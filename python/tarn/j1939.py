"""J1939 on a python-can bus: identifiers, diagnostic messages (DM1 trouble
code lists) and a Node that sends and receives parameter groups of any size
through the library's transport sessions (BAM and RTS/CTS)."""

import atexit
import concurrent.futures
import contextlib
import ctypes
import queue
import threading
import weakref
from typing import NamedTuple, Optional

from . import _native as N
from ._native import lib
from .errors import Error

GLOBAL = N.J1939_GLOBAL
PGN_DM1 = 0xFECA
_TP_FORMATS = (0xEC, 0xEB)


def pgn_of(can_id):
    """The PGN of a 29-bit identifier (a PDU1 PGN without its destination)."""
    return lib.tarn_j1939_pgn(can_id & 0x1FFFFFFF)


def make_id(pgn, source, destination=GLOBAL, priority=6):
    out = ctypes.c_uint32()
    rc = lib.tarn_j1939_make_id(priority, pgn, destination, source, ctypes.byref(out))
    if rc != N.OK:
        raise ValueError("no identifier for PGN 0x%X, destination 0x%X, priority %d"
                         % (pgn, destination, priority))
    return out.value


def _fields(can_id):
    """(priority, pgn, destination, source) of a 29-bit identifier."""
    pf = (can_id >> 16) & 0xFF
    dest = (can_id >> 8) & 0xFF if pf < 240 else GLOBAL
    return (can_id >> 26) & 7, pgn_of(can_id), dest, can_id & 0xFF


# ---- Diagnostic messages ----------------------------------------------------

class Dtc(NamedTuple):
    """One trouble code."""
    spn: int
    fmi: int
    occurrences: int = 1
    conversion: int = 0


class DiagnosticMessage(NamedTuple):
    """Lamps as (malfunction, red stop, amber warning, protect): status 0 off,
    1 on, 2 error, 3 not available; flash 0 slow, 1 fast, 3 off."""
    lamp_status: tuple
    lamp_flash: tuple
    dtcs: list


def parse_dm(data):
    """Lamps and trouble codes of a DM1 (or DM2, ...) payload of any length."""
    data = bytes(data)
    head = N.DmHeader()
    capacity = max(len(data) // 4, 1)
    codes = (N.Dtc * capacity)()
    rc = lib.tarn_j1939_dm_parse(data, len(data), ctypes.byref(head), codes, capacity)
    if rc != N.OK:
        raise Error("diagnostic message of %d bytes: %s" % (len(data), N.status_text(rc)))
    return DiagnosticMessage(tuple(head.lamp_status), tuple(head.lamp_flash),
                             [Dtc(c.spn, c.fmi, c.occurrences, c.conversion)
                              for c in codes[:head.dtc_count]])


def build_dm(dtcs, lamp_status=(0, 0, 0, 0), lamp_flash=(3, 3, 3, 3)):
    """The payload of a DM1 listing `dtcs`: 8 bytes for none or one code
    (padded with 0xFF), 2 + 4 per code otherwise."""
    lamps = bytes(sum((v & 3) << (6 - 2 * i) for i, v in enumerate(values))
                  for values in (lamp_status, lamp_flash))
    body = b"".join(bytes((d.spn & 0xFF, (d.spn >> 8) & 0xFF,
                           ((d.spn >> 16) & 7) << 5 | (d.fmi & 0x1F),
                           (d.conversion & 1) << 7 | (d.occurrences & 0x7F)))
                    for d in dtcs) or bytes(4)
    return (lamps + body).ljust(8, b"\xff")


# ---- Node ----------------------------------------------------------------------

class Received(NamedTuple):
    """A parameter group that reached the node: one frame or a whole transfer.
    With a database, `message` and `values` hold its decoding."""
    pgn: int
    source: int
    destination: int
    priority: int
    data: bytes
    timestamp: float
    transfer: bool
    message: Optional[str] = None
    values: Optional[dict] = None


class TransferError(Error):
    """A transfer that ended without completing; `reason` and `abort_reason`
    are the library's codes."""

    def __init__(self, message, reason=0, abort_reason=0):
        super().__init__(message)
        self.reason = reason
        self.abort_reason = abort_reason


_live_nodes = weakref.WeakSet()


class Node:
    """A J1939 end point on a python-can bus.

    address: own source address (0..253), or None to listen only. Received
    parameter groups (single frames addressed to this node or broadcast, and
    reassembled transfers) queue up for recv(); DM1 lists are kept per
    source in `dtcs`. The transport's timers run on the library's timer
    thread (timer=True) or on the node's receive thread, which then polls
    the library with the monotonic clock. A thread of the node reads the bus
    until close()."""

    def __init__(self, bus, address=None, database=None, timer=True, cts_window=16,
                 bam_gap_ms=50, poll_interval=0.01):
        self.bus = bus
        self.address = address
        self.database = database
        self.dtcs = {}
        self._received = queue.Queue()
        self._pending = {}  # destination -> Future of the transfer being sent
        self._lock = threading.Lock()  # guards _pending only, never held across C calls
        self._calls = contextlib.nullcontext() if timer else threading.Lock()
        self._timer = timer
        self._frame_time = 0.0
        self._interval = poll_interval
        opts = N.J1939Options()
        lib.tarn_j1939_options_init(ctypes.byref(opts))
        opts.address = N.J1939_NO_ADDRESS if address is None else address
        opts.cts_window = cts_window
        opts.bam_gap_ms = bam_gap_ms
        # The callbacks are kept alive with the node; they run on the calling
        # thread, the receive thread or the timer thread (ctypes takes the GIL).
        self._send_cb = N.SendFn(self._send_frame)
        self._transfer_cb = N.TransferFn(self._on_transfer)
        self._ended_cb = N.EndedFn(self._on_ended)
        opts.send, opts.on_transfer, opts.on_ended = (self._send_cb, self._transfer_cb,
                                                      self._ended_cb)
        handle = ctypes.c_void_p()
        rc = lib.tarn_j1939_create(ctypes.byref(opts), ctypes.byref(handle))
        if rc != N.OK:
            raise ValueError("J1939 node: %s" % N.status_text(rc))
        self._handle = handle.value
        if timer:
            lib.tarn_j1939_start_timer(self._handle)
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, name="tarn-j1939-%s" % address,
                                        daemon=True)
        _live_nodes.add(self)
        self._thread.start()

    # -- callbacks (from inside the library) ----------------------------------------
    def _send_frame(self, _user, can_id, data, length):
        try:
            import can
            self.bus.send(can.Message(arbitration_id=can_id, is_extended_id=True,
                                      data=ctypes.string_at(data, length)))
            return 0
        except Exception:  # noqa: BLE001 - a refused frame is the protocol's business
            return -1

    def _on_transfer(self, _user, transfer):
        try:
            t = transfer.contents
            if t.role == 2:  # our own transfer went through
                self._settle(t.destination, None)
                return
            # Completed by a data packet, inside _feed: that frame's time.
            self._deliver(t.pgn, t.source, t.destination, t.priority,
                          ctypes.string_at(t.data, t.size), self._frame_time, True)
        except Exception:  # noqa: BLE001
            N.logger.exception("J1939 transfer callback")

    def _on_ended(self, _user, ended):
        try:
            e = ended.contents
            why = "PGN 0x%X to 0x%X: %s (abort reason %d)" % (
                e.pgn, e.destination, N.text(lib.tarn_j1939_end_reason_text(e.reason)), e.abort_reason)
            if e.role == 2:
                self._settle(e.destination, TransferError(why, e.reason, e.abort_reason))
            else:
                N.logger.info("J1939 transfer from 0x%X %s", e.source, why)
        except Exception:  # noqa: BLE001
            N.logger.exception("J1939 ended callback")

    def _settle(self, destination, error):
        with self._lock:
            future = self._pending.pop(destination, None)
        if future is not None and not future.done():
            if error is None:
                future.set_result(True)
            else:
                future.set_exception(error)

    def _deliver(self, pgn, source, destination, priority, data, when, transfer):
        message = values = None
        if self.database is not None:
            msg = ctypes.c_void_p()
            if lib.tarn_db_find_message_by_pgn(self.database._live(), pgn,
                                               ctypes.byref(msg)) == N.OK:
                m = self.database._message_at(msg.value)
                message = m.name
                try:
                    values = m.decode(data, allow_truncated=True)
                except Error:
                    values = None
        if pgn == PGN_DM1 and len(data) >= 2:
            self.dtcs[source] = parse_dm(data)
        self._received.put(Received(pgn, source, destination, priority, data, when, transfer,
                                    message, values))

    # -- the receive thread ---------------------------------------------------------
    def _run(self):
        next_us = 0
        while not self._stop.is_set():
            timeout = self._interval
            if not self._timer and next_us:
                timeout = min(timeout, max(next_us - lib.tarn_j1939_clock_us(), 0) / 1e6)
            try:
                frame = self.bus.recv(timeout)
            except Exception:  # noqa: BLE001 - a bus shut down under us
                if self._stop.is_set():
                    return
                raise
            if frame is not None and frame.is_extended_id and not frame.is_error_frame:
                self._feed(frame)
            if not self._timer:
                nxt = ctypes.c_uint64()
                with self._calls:
                    lib.tarn_j1939_poll(self._handle, lib.tarn_j1939_clock_us(),
                                        ctypes.byref(nxt))
                next_us = nxt.value if nxt.value != 0xFFFFFFFFFFFFFFFF else 0

    def _feed(self, frame):
        can_id = frame.arbitration_id
        data = bytes(frame.data)
        priority, pgn, destination, source = _fields(can_id)
        self._frame_time = frame.timestamp
        with self._calls:
            lib.tarn_j1939_receive(self._handle, lib.tarn_j1939_clock_us(), can_id, data,
                                   len(data))
        if (can_id >> 16) & 0xFF in _TP_FORMATS or source == self.address:
            return
        if destination in (GLOBAL, self.address) or self.address is None:
            self._deliver(pgn, source, destination, priority, data, frame.timestamp, False)

    # -- the application's side ---------------------------------------------------------
    def send(self, pgn, data, destination=GLOBAL, priority=6):
        """Sends a parameter group: up to 8 bytes as one frame, more as a
        broadcast (BAM) or, to one destination, by RTS/CTS. Returns a Future
        that is done when the transfer completed (result True) or failed
        (TransferError)."""
        data = bytes(data)
        future = concurrent.futures.Future()
        multi = len(data) > 8
        if multi:
            with self._lock:
                if destination in self._pending:
                    raise Error("a transfer to 0x%X is still open" % destination)
                self._pending[destination] = future
        with self._calls:
            rc = lib.tarn_j1939_send(self._live(), lib.tarn_j1939_clock_us(), priority, pgn,
                                     destination, data, len(data))
        if rc != N.OK:
            if multi:
                with self._lock:
                    self._pending.pop(destination, None)
            raise Error("send of PGN 0x%X to 0x%X: %s" % (pgn, destination, N.status_text(rc)))
        if not multi:
            future.set_result(True)
        return future

    def send_message(self, name, values, destination=GLOBAL, priority=6, **encode_args):
        """Encodes a message of the node's database and sends it by its PGN."""
        msg = self.database.get_message_by_name(name)
        return self.send(msg.pgn, msg.encode(values, **encode_args), destination, priority)

    def send_dm1(self, dtcs, lamp_status=(0, 0, 0, 0), lamp_flash=(3, 3, 3, 3)):
        """Broadcasts a DM1 listing `dtcs` (Dtc tuples)."""
        return self.send(PGN_DM1, build_dm(dtcs, lamp_status, lamp_flash), GLOBAL, 6)

    def recv(self, timeout=None):
        """The next Received parameter group, or None after `timeout` seconds."""
        try:
            return self._received.get(timeout=timeout)
        except queue.Empty:
            return None

    @property
    def stats(self):
        s = N.J1939Stats()
        with self._calls:
            lib.tarn_j1939_get_stats(self._live(), ctypes.byref(s))
        return {name: getattr(s, name) for name, _ in N.J1939Stats._fields_}

    def _live(self):
        if not self._handle:
            raise Error("node is closed")
        return self._handle

    def close(self):
        """Stops the receive thread and the timer; open transfers are dropped."""
        if not self._handle:
            return
        self._stop.set()
        if self._thread is not threading.current_thread():
            self._thread.join()
        handle, self._handle = self._handle, None
        lib.tarn_j1939_destroy(handle)
        with self._lock:
            pending, self._pending = self._pending, {}
        for future in pending.values():
            if not future.done():
                future.set_exception(TransferError("node closed"))

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


@atexit.register
def _close_all():
    # Before the interpreter goes, no timer thread may be left to call into it.
    for node in list(_live_nodes):
        node.close()
