"""DBC databases, messages and signals over the library's native face, with
decoding and encoding of single frames."""

import ctypes
import errno
import math
import os
import re
import threading
from functools import cached_property
from typing import NamedTuple, Optional

from . import _native as N
from ._native import lib, text
from .errors import DecodeError, EncodeError, Error, ParseError

_VOID = ctypes.c_void_p


class Diagnostic(NamedTuple):
    """A line of the DBC file the reader could not use (line 0: no line)."""
    line: int
    section: str
    reason: str

    def __str__(self):
        return "line %d: %s: %s" % (self.line, self.section, self.reason)


class AttributeDefinition(NamedTuple):
    name: str
    kind: str  # "network", "node", "message", "signal", "environment"
    type: str  # "INT", "HEX", "FLOAT", "STRING", "ENUM"
    minimum: Optional[float]
    maximum: Optional[float]
    choices: Optional[list]  # ENUM texts
    default: object


_ATTR_KINDS = ("network", "node", "message", "signal", "environment")
_ATTR_TYPES = ("INT", "HEX", "FLOAT", "STRING", "ENUM")


def _attr_value(a):
    if a.type in (N.ATTR_INT, N.ATTR_HEX):
        return int(a.number)
    if a.type == N.ATTR_FLOAT:
        return a.number
    return text(a.text)


def _attributes(getter, count):
    out = {}
    a = N.Attr()
    for i in range(count):
        if getter(i, ctypes.byref(a)) == N.OK:
            out[text(a.name)] = _attr_value(a)
    return out


def _frame_fields(frame_id, data):
    """(id, extended or None, payload) from an identifier and data, or from a
    frame object with python-can's attribute names."""
    if hasattr(frame_id, "arbitration_id"):
        msg = frame_id
        return (msg.arbitration_id, bool(msg.is_extended_id),
                bytes(msg.data if data is None else data))
    if data is None:
        raise TypeError("data is required with a frame identifier")
    return frame_id, None, bytes(data)


def _id_space(frame_id, extended):
    """The identifier without flag bits and the spaces to try, most likely
    first. DBC files write extended identifiers with bit 31 set."""
    if extended is not None:
        return frame_id & 0x1FFFFFFF, (bool(extended),)
    if frame_id & 0x80000000:
        return frame_id & 0x1FFFFFFF, (True,)
    if frame_id > 0x7FF:
        return frame_id, (True,)
    return frame_id, (False, True)


class _Scratch(threading.local):
    """Per-thread decode buffers, so that one database serves many threads."""

    def __init__(self, capacity=1):
        self.capacity = max(capacity, 1)
        self.values = (N.Value * self.capacity)()
        self.decoded = N.Decoded()


class Node:
    def __init__(self, db, index):
        info = N.NodeInfo()
        lib.tarn_db_node(db._handle, index, ctypes.byref(info))
        self.name = text(info.name)
        self.comment = text(info.comment) or None
        self.attributes = _attributes(
            lambda i, out: lib.tarn_node_attr(db._handle, index, i, out), info.attr_count)

    def __repr__(self):
        return "Node(%r)" % self.name


class Signal:
    """One signal of a message; what the DBC declares, read-only."""

    def __init__(self, message, handle):
        self._message = message
        self._handle = handle
        info = N.SignalInfo()
        lib.tarn_signal_get_info(handle, ctypes.byref(info))
        self.name = text(info.name)
        self.start = info.start_bit
        self.length = info.length
        self.byte_order = "big_endian" if info.big_endian else "little_endian"
        self.is_signed = bool(info.is_signed)
        self.is_float = info.value_type != N.VALUE_INTEGER
        self.scale = info.factor
        self.offset = info.offset
        declared = info.minimum != 0 or info.maximum != 0
        self.minimum = info.minimum if declared else None
        self.maximum = info.maximum if declared else None
        self.unit = text(info.unit) or None
        self.comment = text(info.comment) or None
        self.is_multiplexer = bool(info.is_switch)
        self._switch_index = info.switch_index
        self._counts = (info.receiver_count, info.value_count, info.mux_range_count,
                        info.attr_count)
        # Raw integers scaled by integral factors stay exact as Python ints.
        self._exact_int = (not self.is_float and float(self.scale).is_integer()
                           and float(self.offset).is_integer())

    @cached_property
    def choices(self):
        """Value-table texts by raw value, None when the signal has none."""
        if not self._counts[1]:
            return None
        self._live()
        raw, t = ctypes.c_int64(), ctypes.c_char_p()
        out = {}
        for i in range(self._counts[1]):
            lib.tarn_signal_value_text(self._handle, i, ctypes.byref(raw), ctypes.byref(t))
            value = raw.value
            if not self.is_signed and value < 0:
                value += 1 << 64  # unsigned raw values keep their bit pattern
            out[value] = text(t.value)
        return out

    @cached_property
    def receivers(self):
        self._live()
        out, t = [], ctypes.c_char_p()
        for i in range(self._counts[0]):
            lib.tarn_signal_receiver(self._handle, i, ctypes.byref(t))
            out.append(text(t.value))
        return out

    @cached_property
    def multiplexer_ranges(self):
        """Inclusive ranges of switch values that select the signal."""
        self._live()
        low, high = ctypes.c_uint64(), ctypes.c_uint64()
        out = []
        for i in range(self._counts[2]):
            lib.tarn_signal_mux_range(self._handle, i, ctypes.byref(low), ctypes.byref(high))
            out.append((low.value, high.value))
        return out

    @property
    def multiplexer_ids(self):
        """Switch values that select the signal; None when always present."""
        if self._switch_index < 0:
            return None
        return [v for low, high in self.multiplexer_ranges for v in range(low, high + 1)]

    @property
    def multiplexer_signal(self):
        """Name of the switch that selects this signal, None when always present."""
        if self._switch_index < 0:
            return None
        return self._message.signals[self._switch_index].name

    @cached_property
    def attributes(self):
        self._live()
        return _attributes(lambda i, out: lib.tarn_signal_attr(self._handle, i, out),
                           self._counts[3])

    def _live(self):
        # The handle points into the database: reading it after close() would crash.
        self._message._db._live()

    def _choice_raw(self, name):
        for raw, t in (self.choices or {}).items():
            if t == name:
                return raw
        raise EncodeError("%s: %r is not a choice of the signal" % (self.name, name), self.name)

    def __repr__(self):
        return "Signal(%r, start=%d, length=%d)" % (self.name, self.start, self.length)


class Message:
    """One message of a database; decode and encode its payloads."""

    def __init__(self, db, handle):
        self._db = db
        self._handle = handle
        info = N.MessageInfo()
        lib.tarn_message_get_info(handle, ctypes.byref(info))
        self.name = text(info.name)
        self.frame_id = info.id
        self.is_extended_frame = bool(info.extended)
        self.length = info.length
        # milliseconds; None when undeclared or 0 (the usual default: not cyclic)
        self.cycle_time = info.cycle_time_ms if info.cycle_time_ms > 0 else None
        self.comment = text(info.comment) or None
        self.pgn = info.pgn if db.is_j1939 else None
        self._index = info.index
        self._multiplexed = bool(info.multiplexed)
        self._counts = (info.signal_count, info.sender_count, info.attr_count)

    def is_multiplexed(self):
        return self._multiplexed

    @cached_property
    def signals(self):
        self._db._live()
        out, sig = [], ctypes.c_void_p()
        for i in range(self._counts[0]):
            lib.tarn_message_signal(self._handle, i, ctypes.byref(sig))
            out.append(Signal(self, sig.value))
        return out

    @cached_property
    def _by_name(self):
        return {s.name: i for i, s in enumerate(self.signals)}

    def get_signal_by_name(self, name):
        try:
            return self.signals[self._by_name[name]]
        except KeyError:
            raise KeyError("message %s has no signal %r" % (self.name, name)) from None

    @cached_property
    def senders(self):
        self._db._live()
        out, t = [], ctypes.c_char_p()
        for i in range(self._counts[1]):
            lib.tarn_message_sender(self._handle, i, ctypes.byref(t))
            out.append(text(t.value))
        return out

    @cached_property
    def attributes(self):
        self._db._live()
        return _attributes(lambda i, out: lib.tarn_message_attr(self._handle, i, out),
                           self._counts[2])

    # -- decoding ------------------------------------------------------------
    def decode(self, data, decode_choices=True, scaling=True, allow_truncated=False):
        """The signal values of a payload (bytes or a python-can Message) as
        {name: value}; only the signals its multiplexer selects."""
        if hasattr(data, "arbitration_id"):
            data = data.data
        data = bytes(data)
        db = self._db
        s = db._scratch()
        rc = lib.tarn_decode_message(self._handle, data, len(data), s.values, s.capacity,
                                     ctypes.byref(s.decoded))
        if rc != N.OK:
            raise DecodeError("%s: %s" % (self.name, N.status_text(rc)))
        return self._values(s, len(data), decode_choices, scaling, allow_truncated)

    def _values(self, s, length, decode_choices, scaling, allow_truncated):
        if (s.decoded.absent or length < self.length) and not allow_truncated:
            raise DecodeError("%s: %d bytes given, the message has %d"
                              % (self.name, length, self.length))
        signals = self.signals
        out = {}
        for k in range(s.decoded.count):
            v = s.values[k]
            sig = signals[v.signal]
            if decode_choices and v.text is not None:
                out[sig.name] = text(v.text)
                continue
            if v.flags & N.RAW_FLOAT:
                raw = v.raw.f
            else:
                raw = v.raw.i if v.flags & N.RAW_SIGNED else v.raw.u
            if not scaling:
                out[sig.name] = raw
            elif sig._exact_int:
                out[sig.name] = raw * int(sig.scale) + int(sig.offset)
            else:
                out[sig.name] = v.physical
        return out

    # -- encoding --------------------------------------------------------------
    def encode(self, values, scaling=True, strict=True):
        """The payload (bytes of the declared length) of {signal: value}.
        Physical values unless scaling is False; choice texts are accepted.
        Signals not given take their start value. Unknown signals, values
        that do not fit and (strict) values outside [minimum, maximum] raise
        EncodeError naming the signal."""
        self._db._live()
        items = list(values.items())
        inputs = (N.Input * max(len(items), 1))()
        for k, (name, value) in enumerate(items):
            try:
                sig = self.signals[self._by_name[name]]
            except KeyError:
                raise EncodeError("%s: no signal %r" % (self.name, name), name) from None
            self._fill_input(inputs[k], sig, value, scaling, strict)
        out = ctypes.create_string_buffer(max(self.length, 1))
        written, failed = ctypes.c_size_t(), ctypes.c_size_t(len(items))
        rc = lib.tarn_encode(self._handle, inputs, len(items),
                             N.ENCODE_STRICT if strict else 0, out, len(out),
                             ctypes.byref(written), ctypes.byref(failed))
        if rc != N.OK:
            if failed.value < len(items):
                name, value = items[failed.value]
                raise EncodeError(self._why(self.get_signal_by_name(name), value, rc), name)
            raise EncodeError("%s: %s" % (self.name, N.status_text(rc)))
        return out.raw[:written.value]

    def _why(self, sig, value, rc):
        if rc == N.ERR_RANGE:
            span = ""
            if sig.minimum is not None and sig.minimum < sig.maximum:
                span = " [%.15g, %.15g]" % (sig.minimum, sig.maximum)
            return "%s: %r is out of range%s (%d-bit %s)" % (
                sig.name, value, span, sig.length, "signed" if sig.is_signed else "unsigned")
        return "%s: %r: %s" % (sig.name, value, N.status_text(rc))

    def _fill_input(self, inp, sig, value, scaling, strict):
        inp.signal = self._by_name[sig.name]
        if isinstance(value, str):
            raw = sig._choice_raw(value)
            inp.kind = N.INPUT_RAW
            inp.raw.u = raw & 0xFFFFFFFFFFFFFFFF
            return
        if hasattr(value, "value") and not isinstance(value, (int, float)):
            value = value.value  # a named choice object carrying its raw value
        if isinstance(value, bool):
            value = int(value)
        if not isinstance(value, (int, float)):
            try:
                value = float(value)
            except (TypeError, ValueError):
                raise EncodeError("%s: %r is not a number" % (sig.name, value),
                                  sig.name) from None
        if isinstance(value, float) and not math.isfinite(value):
            raise EncodeError("%s: %r is not a finite number" % (sig.name, value), sig.name)
        plain = sig._exact_int and sig.scale == 1 and sig.offset == 0
        if sig.is_float and not scaling:
            inp.kind = N.INPUT_RAW_FLOAT
            inp.physical = float(value)
        elif not scaling or (plain and isinstance(value, int) and abs(value) >= 1 << 53):
            # Integers past a double's precision go in exactly, as raw values.
            if isinstance(value, float):
                if not value.is_integer():
                    raise EncodeError("%s: raw value %r is not an integer"
                                      % (sig.name, value), sig.name)
                value = int(value)
            if strict and scaling and sig.minimum is not None and sig.minimum < sig.maximum \
                    and not sig.minimum <= value <= sig.maximum:
                raise EncodeError(self._why(sig, value, N.ERR_RANGE), sig.name)
            if not -(1 << 63) <= value < 1 << 64 or (value < 0 and not sig.is_signed):
                raise EncodeError(self._why(sig, value, N.ERR_RANGE), sig.name)
            inp.kind = N.INPUT_RAW
            inp.raw.u = value & 0xFFFFFFFFFFFFFFFF
        else:
            inp.kind = N.INPUT_PHYSICAL
            inp.physical = float(value)

    def __repr__(self):
        return "Message(%r, 0x%x, %s, %d)" % (self.name, self.frame_id,
                                              self.is_extended_frame, self.length)


class Database(N.Owned):
    """A DBC database opened by the library. Immutable; any number of threads
    may decode with it at once. Closed by close(), `with`, or when collected."""

    _free = "tarn_db_close"

    def __init__(self, path=None, strict=False, j1939=None, *, _text=None):
        flags = (N.OPEN_STRICT if strict else 0) | (N.OPEN_J1939 if j1939 else 0)
        handle = ctypes.c_void_p()
        err = ctypes.create_string_buffer(512)
        if _text is not None:
            data = _text.encode("utf-8") if isinstance(_text, str) else bytes(_text)
            rc = lib.tarn_db_open_buffer(data, len(data), flags, ctypes.byref(handle), err,
                                         len(err))
            self.path = None
        else:
            path = os.fspath(path)
            rc = lib.tarn_db_open(os.fsencode(path), flags, ctypes.byref(handle), err,
                                  len(err))
            self.path = path
        self._handle = None
        if rc != N.OK:
            why = err.value.decode("utf-8", "replace") or N.status_text(rc)
            where = self.path or "DBC text"
            if rc == N.ERR_IO and not os.path.exists(path):
                raise FileNotFoundError(errno.ENOENT, os.strerror(errno.ENOENT), path)
            if rc in (N.ERR_PARSE, N.ERR_NOT_DBC):
                m = re.match(r"line (\d+):", why)
                raise ParseError("%s: %s" % (where, why), int(m.group(1)) if m else None)
            raise Error("%s: %s" % (where, why))
        self._handle = handle.value
        info = N.DbInfo()
        lib.tarn_db_get_info(self._handle, ctypes.byref(info))
        self.version = text(info.version)
        self.comment = text(info.comment) or None
        self.is_j1939 = bool(info.j1939)
        self._info = (info.message_count, info.node_count, info.attr_def_count,
                      info.attr_count, info.value_table_count)
        self.max_signals = info.max_signals
        self._local = _Scratch(info.max_signals)
        d = N.Diagnostic()
        self.diagnostics = []
        for i in range(lib.tarn_db_diagnostic_count(self._handle)):
            lib.tarn_db_diagnostic(self._handle, i, ctypes.byref(d))
            self.diagnostics.append(Diagnostic(d.line, text(d.section), text(d.reason)))
        msg = ctypes.c_void_p()
        self.messages = []
        for i in range(info.message_count):
            lib.tarn_db_message(self._handle, i, ctypes.byref(msg))
            self.messages.append(Message(self, msg.value))
        self._by_name = {m.name: m for m in self.messages}

    # -- lifetime --------------------------------------------------------------

    def _live(self):
        if not self._handle:
            raise Error("database is closed")
        return self._handle

    def _scratch(self):
        self._live()
        return self._local

    # -- model ---------------------------------------------------------------------
    @cached_property
    def nodes(self):
        self._live()
        return [Node(self, i) for i in range(self._info[1])]

    @cached_property
    def attributes(self):
        return _attributes(lambda i, out: lib.tarn_db_attr(self._live(), i, out), self._info[3])

    @cached_property
    def attribute_definitions(self):
        self._live()
        out = {}
        d, t = N.AttrDef(), ctypes.c_char_p()
        for i in range(self._info[2]):
            lib.tarn_db_attr_def(self._handle, i, ctypes.byref(d))
            choices = None
            if d.type == N.ATTR_ENUM:
                choices = []
                for k in range(d.enum_count):
                    lib.tarn_db_attr_enum(self._handle, i, k, ctypes.byref(t))
                    choices.append(text(t.value))
            default = None
            if d.has_default:
                default = (text(d.default_text) if d.type in (N.ATTR_STRING, N.ATTR_ENUM)
                           else int(d.default_number) if d.type in (N.ATTR_INT, N.ATTR_HEX)
                           else d.default_number)
            numeric = d.type in (N.ATTR_INT, N.ATTR_HEX, N.ATTR_FLOAT)
            out[text(d.name)] = AttributeDefinition(
                text(d.name), _ATTR_KINDS[d.object] if 0 <= d.object < 5 else str(d.object),
                _ATTR_TYPES[d.type] if 0 <= d.type < 5 else str(d.type),
                d.minimum if numeric else None, d.maximum if numeric else None, choices,
                default)
        return out

    @cached_property
    def value_tables(self):
        """Named value tables (VAL_TABLE_) as {name: {raw: text}}."""
        self._live()
        out = {}
        name, count = ctypes.c_char_p(), ctypes.c_size_t()
        raw, t = ctypes.c_int64(), ctypes.c_char_p()
        for i in range(self._info[4]):
            lib.tarn_db_value_table(self._handle, i, ctypes.byref(name), ctypes.byref(count))
            table = {}
            for k in range(count.value):
                lib.tarn_db_value_table_entry(self._handle, i, k, ctypes.byref(raw),
                                              ctypes.byref(t))
                table[raw.value] = text(t.value)
            out[text(name.value)] = table
        return out

    def get_message_by_name(self, name):
        try:
            return self._by_name[name]
        except KeyError:
            raise KeyError("no message named %r" % name) from None

    def get_message_by_frame_id(self, frame_id, is_extended_frame=None):
        """The message declared with that identifier (bit 31 set, or a value
        above 0x7FF, means extended; a small identifier is looked up as a
        standard one first)."""
        ident, spaces = _id_space(frame_id, is_extended_frame)
        msg = ctypes.c_void_p()
        for ext in spaces:
            if lib.tarn_db_find_message(self._live(), ident, int(ext), ctypes.byref(msg)) == N.OK:
                return self._message_at(msg.value)
        raise KeyError("no message with frame id 0x%x" % frame_id)

    def _message_at(self, handle):
        info = N.MessageInfo()
        lib.tarn_message_get_info(handle, ctypes.byref(info))
        return self.messages[info.index]

    def _message(self, key):
        if isinstance(key, str):
            return self.get_message_by_name(key)
        return self.get_message_by_frame_id(key)

    def as_dbc_string(self):
        """The database as normalised DBC text."""
        needed = ctypes.c_size_t()
        lib.tarn_db_write_dbc(self._live(), None, 0, ctypes.byref(needed))
        buf = ctypes.create_string_buffer(needed.value)
        rc = lib.tarn_db_write_dbc(self._handle, buf, len(buf), ctypes.byref(needed))
        if rc != N.OK:
            raise Error(N.status_text(rc))
        return buf.value.decode("utf-8", "replace")

    # -- frames ------------------------------------------------------------------------
    def decode_message(self, frame_id_or_name, data=None, decode_choices=True, scaling=True,
                       allow_truncated=False):
        """Decodes a payload as {signal: value}. The message is given by name,
        by frame identifier (matched like received frames are: by PGN in a
        J1939 database), or by a python-can Message carrying the data."""
        if isinstance(frame_id_or_name, str):
            try:
                msg = self.get_message_by_name(frame_id_or_name)
            except KeyError as exc:
                raise DecodeError(exc.args[0]) from None
            return msg.decode(data, decode_choices, scaling, allow_truncated)
        frame_id, extended, payload = _frame_fields(frame_id_or_name, data)
        ident, spaces = _id_space(frame_id, extended)
        s = self._scratch()
        for ext in spaces:
            rc = lib.tarn_decode(self._handle, ident, int(ext), payload, len(payload), s.values,
                                 s.capacity, ctypes.byref(s.decoded))
            if rc != N.ERR_NOT_FOUND:
                break
        if rc == N.ERR_NOT_FOUND:
            raise DecodeError("no message with frame id 0x%x" % frame_id)
        if rc != N.OK:
            raise DecodeError("frame 0x%x: %s" % (frame_id, N.status_text(rc)))
        msg = self.messages[s.decoded.message_index]
        return msg._values(s, len(payload), decode_choices, scaling, allow_truncated)

    def encode_message(self, frame_id_or_name, values, scaling=True, strict=True):
        """Encodes {signal: value} into the message's payload; see Message.encode."""
        try:
            msg = self._message(frame_id_or_name)
        except KeyError as exc:
            raise EncodeError(exc.args[0]) from None
        return msg.encode(values, scaling, strict)

    def decode_log(self, source, format=None):
        """Decodes a whole log (a path, or an iterable of frames) into
        {message name: pandas.DataFrame}; see tarn.columns.decode_log."""
        from .columns import decode_log
        return decode_log(self, source, format=format)

    def __repr__(self):
        return "Database(%r, %d messages)" % (self.path or "<text>", len(self.messages))


def load_file(path, strict=False, j1939=None):
    """Opens a DBC file. strict: the first problem raises ParseError, else
    problems are listed in db.diagnostics. j1939=True applies J1939 rules
    whatever the file declares."""
    return Database(path, strict=strict, j1939=j1939)


def load_string(dbc_text, strict=False, j1939=None):
    """As load_file, from DBC text (str or bytes)."""
    return Database(strict=strict, j1939=j1939, _text=dbc_text)
