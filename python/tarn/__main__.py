"""python3 -m tarn: decode a log as text or JSON lines, or plot signals.

    python3 -m tarn decode DB LOG [--json] [--only NAME ...]
    python3 -m tarn plot DB LOG SIGNAL [SIGNAL ...] -o out.png
"""

import argparse
import ctypes
import json
import logging
import sys

import numpy as np

from . import _native as N
from . import j1939 as _j1939
from .columns import NO_MESSAGE, _TP_FORMATS
from .database import Database
from .errors import Error
from .logs import FORMATS, LogReader

# Groups whose payload is a lamp status and a list of trouble codes.
_DM_PGNS = {0xFECA, 0xFECB, 0xFECF, 0xFED4, 0xFDB5, 0xFD82, 0xFD80}

EXIT_FAILURE, EXIT_USAGE = 1, 2


class _Texts(dict):
    """Value-table texts by their address in the database."""

    def __missing__(self, address):
        value = self[address] = ctypes.string_at(address).decode("utf-8", "replace")
        return value


def _number(value):
    if isinstance(value, float) and value.is_integer() and abs(value) < 1e15:
        return int(value)
    return value


class _Decoder:
    """Frames in, one output line per decoded message out, in log order; J1939
    transfers decode at the frame that completes them."""

    def __init__(self, db, as_json, only):
        self.db = db
        self.json = as_json
        self.only = set(only or ())
        self.texts = _Texts()
        self.counts = dict(frames=0, messages=0, transfers=0, transport=0, unknown={})
        self.values = np.empty(1 << 16, N.VALUE_DTYPE)
        self.one = (N.Value * max(db.max_signals, 1))()
        self.decoded = N.Decoded()
        self.listener = None
        self.done = []
        if db.is_j1939:
            opts = N.J1939Options()
            lib = N.lib
            lib.tarn_j1939_options_init(ctypes.byref(opts))
            self._cb = N.TransferFn(lambda _u, t: self.done.append(
                (t.contents.pgn, ctypes.string_at(t.contents.data, t.contents.size))))
            opts.on_transfer = self._cb
            handle = ctypes.c_void_p()
            lib.tarn_j1939_create(ctypes.byref(opts), ctypes.byref(handle))
            self.listener = handle.value
        self.now = 0

    def close(self):
        if self.listener:
            N.lib.tarn_j1939_destroy(self.listener)
            self.listener = None

    def line(self, msg, when, iface, frame_id, extended, vals, transfer, payload=b""):
        """One output line; `transfer` is a reassembled payload, else None."""
        if self.only and msg.name not in self.only:
            return None
        sigs = msg.signals
        if self.json:
            out = {}
            for sig_i, flags, raw, phys, text in vals:
                s = sigs[sig_i]
                if flags & N.RAW_FLOAT:  # the bit pattern on the wire
                    if s.length == 32:
                        raw = int(np.float32(np.uint64(raw).view(np.float64)).view(np.uint32))
                elif flags & N.RAW_SIGNED and raw >= 1 << 63:
                    raw -= 1 << 64
                entry = {"value": raw * int(s.scale) + int(s.offset) if s._exact_int
                         else _number(phys), "raw": raw}
                if s.unit:
                    entry["unit"] = s.unit
                if text:
                    entry["text"] = self.texts[text]
                out[s.name] = entry
            row = {"t": None if when != when else when, "iface": iface, "id": frame_id,
                   "extended": bool(extended), "name": msg.name}
            if self.db.is_j1939 and extended:
                pgn = _j1939.pgn_of(frame_id)
                row.update(pgn=pgn, sa=frame_id & 0xFF, priority=(frame_id >> 26) & 7)
                if (pgn >> 8) & 0xFF < 240:
                    row["da"] = (frame_id >> 8) & 0xFF
            if transfer is not None:
                row.update(transfer=True, size=len(transfer), data=transfer.hex())
            row["signals"] = out
            if self.db.is_j1939 and extended and _j1939.pgn_of(frame_id) in _DM_PGNS:
                row["dtcs"] = [{"spn": d.spn, "fmi": d.fmi, "oc": d.occurrences,
                                "cm": d.conversion} for d in _j1939.parse_dm(payload)]
            return json.dumps(row, ensure_ascii=False)
        parts = ["%.6f" % when if when == when else "-", iface or "-",
                 "%08X" % frame_id if extended else "%03X" % frame_id, msg.name]
        if transfer is not None:
            parts[-1] += " [transfer %d bytes]" % len(transfer)
        for sig_i, flags, raw, phys, text in vals:
            s = sigs[sig_i]
            if s._exact_int:
                if flags & N.RAW_SIGNED and raw >= 1 << 63:
                    raw -= 1 << 64
                value = str(raw * int(s.scale) + int(s.offset))
            else:
                value = repr(_number(phys))
            item = "%s=%s" % (s.name, value)
            if s.unit:
                item += " " + s.unit
            if text:
                item += ' "%s"' % self.texts[text]
            parts.append(item)
        return " ".join(parts[:4]) + "".join("  " + p for p in parts[4:])

    def batch(self, frames, channels):
        db, lib = self.db, N.lib
        n = len(frames)
        results = np.empty(n, N.RESULT_DTYPE)
        done = ctypes.c_size_t()
        start = 0
        while start < n:
            lib.tarn_decode_batch(db._handle, frames.ctypes.data + start * N.FRAME_DTYPE.itemsize,
                                  n - start, self.values.ctypes.data, len(self.values),
                                  results[start:].ctypes.data, ctypes.byref(done))
            for line in self._emit(frames, results, start, start + done.value, channels):
                yield line
            start += done.value

    def _emit(self, frames, results, lo, hi, channels):
        db = self.db
        rows = frames[lo:hi].tolist()
        res = results[lo:hi].tolist()
        self.counts["frames"] += hi - lo
        for (t, ident, ext, length, flags, chan, data), (_m, mi, first, count) in zip(rows, res):
            iface = channels[chan] if chan < len(channels) else ""
            if mi != NO_MESSAGE:
                self.counts["messages"] += 1
                vals = self.values[first:first + count].tolist()
                out = self.line(db.messages[mi], t, iface, ident, ext, vals, None,
                                bytes(data[:length]))
                if out is not None:
                    yield out
            elif ext and (ident >> 16) & 0xFF in _TP_FORMATS and self.listener:
                self.counts["transport"] += 1
            elif not flags & (N.FRAME_REMOTE | N.FRAME_ERROR):
                key = "%08X" % ident if ext else "%03X" % ident
                self.counts["unknown"][key] = self.counts["unknown"].get(key, 0) + 1
            if self.listener and ext and (ident >> 16) & 0xFF in _TP_FORMATS:
                if t == t and t >= 0:
                    self.now = max(self.now, int(t * 1e6))
                N.lib.tarn_j1939_receive(self.listener, self.now, ident, bytes(data[:length]),
                                         length)
                for out in self._transfers(t, iface, ident):
                    yield out

    def _transfers(self, t, iface, ident):
        lib, msg = N.lib, ctypes.c_void_p()
        for pgn, payload in self.done:
            if lib.tarn_db_find_message_by_pgn(self.db._handle, pgn, ctypes.byref(msg)) != N.OK:
                continue
            if lib.tarn_decode_message(msg, payload, len(payload), self.one, len(self.one),
                                       ctypes.byref(self.decoded)) != N.OK:
                continue
            self.counts["transfers"] += 1
            self.counts["messages"] += 1
            vals = np.frombuffer(self.one, N.VALUE_DTYPE, count=self.decoded.count).tolist()
            m = self.db.messages[self.decoded.message_index]
            # the transfer's identifier: its PGN from the sender of the packets
            frame_id = (ident & 0x1C0000FF) | (pgn << 8)
            out = self.line(m, t, iface, frame_id, True, vals, payload, payload)
            if out is not None:
                yield out
        self.done.clear()

    def summary(self):
        c = self.counts
        unknown = c["unknown"]
        text = "tarn decode: %d frames, %d messages (%d from transport transfers)" % (
            c["frames"], c["messages"], c["transfers"])
        if c["transport"]:
            text += ", %d transport frames" % c["transport"]
        if unknown:
            text += ", %d frames with %d unknown ids: %s" % (
                sum(unknown.values()), len(unknown),
                " ".join("%s(%d)" % kv for kv in sorted(unknown.items())[:20]))
        return text


def _decode(args):
    db = Database(args.dbc, strict=args.strict, j1939=args.j1939 or None)
    decoder = _Decoder(db, args.json, args.only)
    out = sys.stdout
    try:
        with LogReader(args.log, args.format) as reader:
            chunk = []
            for frames in reader.batches():
                chunk.extend(decoder.batch(frames, reader.channels))
                if chunk:
                    out.write("\n".join(chunk) + "\n")
                    chunk = []
    finally:
        decoder.close()
    out.flush()
    print(decoder.summary(), file=sys.stderr)
    return 0


def _plot(args):
    from .plot import plot
    db = Database(args.dbc, strict=args.strict, j1939=args.j1939 or None)
    plot(db, args.log, args.signals, args.output, format=args.format, title=args.title)
    return 0


def main(argv=None):
    parser = argparse.ArgumentParser(prog="python3 -m tarn",
                                     description="Decode or plot CAN logs with a DBC database.")
    parser.add_argument("-v", "--verbose", action="store_true",
                        help="show the library's messages on standard error")
    sub = parser.add_subparsers(dest="command", required=True)
    common = argparse.ArgumentParser(add_help=False)
    common.add_argument("dbc", help="DBC database")
    common.add_argument("log", help="candump, ASC or TRC log")
    common.add_argument("--format", choices=[k for k in FORMATS if k], default=None,
                        help="log format (default: told from the content)")
    common.add_argument("--strict", action="store_true", help="fail on the first DBC problem")
    common.add_argument("--j1939", action="store_true", help="apply J1939 rules")
    dec = sub.add_parser("decode", parents=[common], help="one line per decoded message")
    dec.add_argument("--json", action="store_true", help="one JSON object per line")
    dec.add_argument("--only", action="append", metavar="NAME", help="only these messages")
    plt = sub.add_parser("plot", parents=[common], help="signals over time into an image")
    plt.add_argument("signals", nargs="+", metavar="SIGNAL", help="Signal or Message.Signal")
    plt.add_argument("-o", "--output", required=True, help="image file (PNG, SVG, PDF)")
    plt.add_argument("--title")
    args = parser.parse_args(argv)
    logging.basicConfig(level=logging.INFO if args.verbose else logging.ERROR,
                        stream=sys.stderr, format="%(name)s: %(levelname)s: %(message)s")
    try:
        return _decode(args) if args.command == "decode" else _plot(args)
    except (Error, OSError, KeyError, ValueError) as exc:
        print("tarn: %s" % (exc.args[0] if isinstance(exc, KeyError) else exc), file=sys.stderr)
        return EXIT_FAILURE
    except BrokenPipeError:
        return EXIT_FAILURE


if __name__ == "__main__":
    sys.exit(main())
