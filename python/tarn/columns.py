"""Whole logs into one pandas DataFrame per message.

The library decodes a batch of frames per call (tarn_decode_batch); what it
returns is laid out into columns with numpy only, so Python handles no frame
on its own (J1939 transport frames aside, which go one by one to the
reassembly): first every batch's results and values are kept in compact
arrays, then, once the row count of every message is known, all values are
scattered in one go into one NaN-filled buffer that holds a row-major block
per message. The DataFrames are views of those blocks."""

import ctypes
import queue
import threading

import numpy as np
import pandas as pd

from . import _native as N
from ._native import lib
from .errors import Error
from .logs import BATCH, LogReader, frame_batches

NO_MESSAGE = 0xFFFFFFFF
_TP_FORMATS = (0xEC, 0xEB)  # PDU formats of the transport's TP.CM and TP.DT


class _Chunk:
    """What one stretch of records contributed: per record its message,
    time, value count and sequence number; per value its signal and number."""
    __slots__ = ("mi", "time", "count", "seq", "signal", "physical", "late")

    def __init__(self, mi, time, count, seq, signal, physical, late=False):
        self.mi, self.time, self.count, self.seq = mi, time, count, seq
        self.signal, self.physical, self.late = signal, physical, late


class _Transfers:
    """A listen-only J1939 end point reassembling the transfers of a log, and
    decoding each one as the message of its PGN."""

    def __init__(self, db):
        self._db = db
        self._done = []
        opts = N.J1939Options()
        lib.tarn_j1939_options_init(ctypes.byref(opts))
        self._cb = N.TransferFn(self._on_transfer)
        opts.on_transfer = self._cb
        handle = ctypes.c_void_p()
        rc = lib.tarn_j1939_create(ctypes.byref(opts), ctypes.byref(handle))
        if rc != N.OK:
            raise Error("J1939 listener: %s" % N.status_text(rc))
        self._handle = handle.value
        self._now = 0
        self._values = (N.Value * max(db.max_signals, 1))()
        self._decoded = N.Decoded()
        self.rows = []  # (message index, time, seq, signals, numbers)

    def _on_transfer(self, _user, transfer):
        t = transfer.contents
        self._done.append((t.pgn, ctypes.string_at(t.data, t.size)))

    def feed(self, frames, positions, seq0):
        ids = frames["id"][positions].tolist()
        times = frames["time"][positions].tolist()
        lengths = frames["length"][positions].tolist()
        data = frames["data"][positions]
        msg = ctypes.c_void_p()
        for k, pos in enumerate(positions.tolist()):
            t = times[k]
            if t == t and t >= 0:  # not NaN: the transport's timers run on log time
                self._now = max(self._now, int(t * 1e6))
            lib.tarn_j1939_receive(self._handle, self._now, ids[k], data[k].tobytes(),
                                   lengths[k])
            for pgn, payload in self._done:
                if lib.tarn_db_find_message_by_pgn(self._db._handle, pgn,
                                                   ctypes.byref(msg)) != N.OK:
                    continue
                rc = lib.tarn_decode_message(msg, payload, len(payload), self._values,
                                             len(self._values), ctypes.byref(self._decoded))
                if rc != N.OK:
                    continue
                n = self._decoded.count
                vals = np.frombuffer(self._values, N.VALUE_DTYPE, count=n)
                self.rows.append((self._decoded.message_index, t, seq0 + pos,
                                  vals["signal"].copy(), vals["physical"].copy()))
            self._done.clear()

    def take_chunk(self):
        if not self.rows:
            return None
        mi, t, seq, sig, phys = zip(*self.rows)
        self.rows = []
        return _Chunk(np.array(mi, np.uint32), np.array(t, np.float64),
                      np.array([len(s) for s in sig], np.int64), np.array(seq, np.int64),
                      np.concatenate(sig), np.concatenate(phys), late=True)

    def close(self):
        if self._handle:
            lib.tarn_j1939_destroy(self._handle)
            self._handle = None


def _decode_chunks(db, batches, j1939):
    """Pass one: decode every batch, keeping only compact arrays."""
    handle = db._live()
    capacity = BATCH * 16
    values = np.empty(capacity, N.VALUE_DTYPE)
    results = np.empty(BATCH, N.RESULT_DTYPE)
    done = ctypes.c_size_t()
    chunks = []
    transfers = _Transfers(db) if j1939 else None
    seq = 0
    try:
        for frames in batches:
            if not frames.flags.c_contiguous or frames.dtype != N.FRAME_DTYPE:
                frames = np.ascontiguousarray(frames, N.FRAME_DTYPE)
            n = len(frames)
            if len(results) < n:
                results = np.empty(n, N.RESULT_DTYPE)
            start, base = 0, frames.ctypes.data
            while start < n:
                rc = lib.tarn_decode_batch(handle, base + start * N.FRAME_DTYPE.itemsize,
                                           n - start, values.ctypes.data, capacity,
                                           results.ctypes.data, ctypes.byref(done))
                if rc != N.OK:
                    raise Error("decode: %s" % N.status_text(rc))
                d = done.value
                if d == 0:  # one frame needs more room than there is
                    capacity *= 2
                    values = np.empty(capacity, N.VALUE_DTYPE)
                    continue
                res = results[:d]
                mi = res["message_index"]
                times = frames["time"][start:start + d]
                hit = np.flatnonzero(mi != NO_MESSAGE)
                if len(hit) == d:  # every frame known: slices, not fancy indexing
                    mi, count = mi.copy(), res["count"].astype(np.int64)
                    times = times.copy()
                else:
                    mi, count, times = mi[hit], res["count"][hit].astype(np.int64), times[hit]
                used = int(res["first"][d - 1]) + int(res["count"][d - 1])
                v = values[:used]
                chunks.append(_Chunk(mi, times, count, hit + (seq + start),
                                     v["signal"].astype(np.uint16 if db.max_signals <= 0xFFFF
                                                        else np.uint32),
                                     v["physical"].copy()))
                start += d
            if transfers is not None:
                ext = frames["extended"] != 0
                pf = (frames["id"] >> 16) & 0xFF
                tp = np.flatnonzero(ext & np.isin(pf, _TP_FORMATS))
                if len(tp):
                    transfers.feed(frames, tp, seq)
                    extra = transfers.take_chunk()
                    if extra is not None:
                        chunks.append(extra)
            seq += n
    finally:
        if transfers is not None:
            transfers.close()
    return chunks


def _layout(db, chunks):
    """Pass two: scatter every value into its message's row-major block."""
    messages = db.messages
    nsig = np.array([m._counts[0] for m in messages], np.int64)
    if not chunks:
        return {}
    mi = np.concatenate([c.mi for c in chunks]).astype(np.int64)
    rows = np.bincount(mi, minlength=len(messages))
    start = np.zeros(len(messages) + 1, np.int64)
    np.cumsum(rows, out=start[1:])
    base = np.zeros(len(messages) + 1, np.int64)
    np.cumsum(rows * nsig, out=base[1:])

    # Records grouped by message, each message's in log order.
    if any(c.late for c in chunks):  # transfers came after the batch they ended in
        seq = np.concatenate([c.seq for c in chunks])
        order = np.lexsort((seq, mi))
    else:
        key = mi.astype(np.uint16) if len(messages) <= 0xFFFF else mi
        order = np.argsort(key, kind="stable")
    pos = np.empty_like(order)
    pos[order] = np.arange(len(order))
    # Where each record's row starts in the buffer.
    row = pos - start[mi]
    record_base = base[mi] + row * nsig[mi]
    del pos, row

    flat = np.full(int(base[-1]), np.nan)
    r0 = 0
    for c in chunks:
        r1 = r0 + len(c.mi)
        dest = np.repeat(record_base[r0:r1], c.count)
        dest += c.signal
        flat[dest] = c.physical
        r0 = r1
    times = np.concatenate([c.time for c in chunks])[order]

    out = {}
    for m in np.flatnonzero(rows).tolist():
        msg = messages[m]
        block = flat[base[m]:base[m + 1]].reshape(int(rows[m]), int(nsig[m]))
        index = pd.Index(times[start[m]:start[m + 1]], name="time", copy=False)
        out[msg.name] = pd.DataFrame(block, index=index, columns=_names(msg), copy=False)
    return out


def _names(msg):
    # Kept with the message: a ready Index makes each DataFrame cheap to build.
    names = getattr(msg, "_columns", None)
    if names is None:
        if "signals" in msg.__dict__:
            names = [s.name for s in msg.signals]
        else:  # names alone, without building every Signal of a large database
            sig, info = ctypes.c_void_p(), N.SignalInfo()
            names = []
            for i in range(msg._counts[0]):
                lib.tarn_message_signal(msg._handle, i, ctypes.byref(sig))
                lib.tarn_signal_get_info(sig, ctypes.byref(info))
                names.append(info.name.decode("utf-8", "replace"))
        names = msg._columns = pd.Index(names)
    return names


def _prefetched(batches, depth=4):
    """The batches, read ahead on a thread of their own: the library reads
    the next ones (outside the GIL) while this thread decodes."""
    q = queue.Queue(depth)
    stop = threading.Event()
    end = object()

    def run():
        try:
            for batch in batches:
                q.put(batch)
                if stop.is_set():
                    return
            q.put(end)
        except BaseException as exc:  # noqa: BLE001 - handed to the consumer
            q.put(exc)

    thread = threading.Thread(target=run, name="tarn-log-read", daemon=True)
    thread.start()
    try:
        while True:
            item = q.get()
            if item is end:
                return
            if isinstance(item, BaseException):
                raise item
            yield item
    finally:
        stop.set()
        while thread.is_alive():  # let a blocked put finish
            try:
                q.get_nowait()
            except queue.Empty:
                thread.join(0.01)


def decode_log(db, source, format=None):
    """{message name: DataFrame} of a log file (path) or of frames (python-can
    Messages, Frames or FRAME_DTYPE arrays): a float `time` index in seconds
    and one column of physical values per signal, NaN where a frame does not
    carry the signal (multiplexed, or cut short). In a J1939 database the
    transport's transfers are reassembled and decoded too, at the time of
    the frame that completed them. Only messages that occur are returned."""
    if isinstance(source, (str, bytes)) or hasattr(source, "__fspath__"):
        with LogReader(source, format) as reader:
            batches = _prefetched(reader.batches())
            try:
                chunks = _decode_chunks(db, batches, db.is_j1939)
            finally:
                batches.close()  # the read-ahead thread is done with the reader
    else:
        chunks = _decode_chunks(db, frame_batches(source), db.is_j1939)
    return _layout(db, chunks)
