"""Databases, messages and signals as plain Python objects."""

import ctypes
import math
from dataclasses import dataclass, field
from typing import Dict, List, Optional, Tuple, Union

from . import _native as N
from ._native import lib, text


class TarnError(Exception):
    """A request that the library could not carry out."""


class UnknownMessageError(TarnError, LookupError):
    """No message of the database answers to a name or identifier."""


@dataclass
class Signal:
    name: str
    start_bit: int
    length: int
    byte_order: str  # "little_endian" or "big_endian"
    is_signed: bool
    value_type: str  # "integer", "float" or "double"
    factor: float
    offset: float
    minimum: float
    maximum: float
    unit: str
    comment: str
    multiplexer: Optional[str]  # None, "M" for the switch, "m<n>" for a multiplexed signal
    multiplexer_value: Optional[int]
    value_table: Dict[int, str] = field(default_factory=dict)


@dataclass
class Message:
    id: int
    extended: bool
    name: str
    size: int
    cycle_time: Optional[float]
    comment: str
    signals: List[Signal]

    def signal(self, name: str) -> Signal:
        for s in self.signals:
            if s.name == name:
                return s
        raise UnknownMessageError("message %s has no signal %r" % (self.name, name))


@dataclass
class Node:
    name: str
    station_address: Optional[int]


@dataclass
class Decoded:
    """One decoded message: physical values, raw values and value-table texts."""
    name: str
    id: int
    extended: bool
    values: Dict[str, Union[int, float]]
    raw: Dict[str, int]
    texts: Dict[str, str]
    units: Dict[str, str]
    transfer_size: Optional[int] = None  # payload bytes when reassembled from a J1939 transfer


_VALUE_TYPES = {0: "integer", 1: "float", 2: "double"}


def physical_value(sig: N.DBCSignal):
    """The physical value of a decoded signal slot; exact for plain integers."""
    if sig.valueType == 0 and sig.factor == 1.0 and sig.offset == 0.0:
        length = sig.length
        raw = sig.rawValue if length >= 64 else sig.rawValue & ((1 << length) - 1)
        if sig.isSigned and 0 < length and raw >> (length - 1) & 1:
            return raw - (1 << min(length, 64))
        return raw
    raw = ctypes.c_uint64(sig.rawValue)
    return lib.TARN_CalcActualValue(ctypes.byref(sig), ctypes.byref(raw))


def masked_raw(sig: N.DBCSignal) -> int:
    if sig.valueType == 1:
        return sig.rawValue & 0xFFFFFFFF
    if sig.valueType != 0 or sig.length >= 64:
        return sig.rawValue
    return sig.rawValue & ((1 << sig.length) - 1)


def decoded_from_record(rec: N.DBCMessage, transfer_size=None) -> Decoded:
    values, raw, texts, units = {}, {}, {}, {}
    for i in range(min(rec.signalCount, N.TARN_MAX_SIGNALS)):
        s = rec.signals[i]
        name = text(s.name)
        values[name] = physical_value(s)
        raw[name] = masked_raw(s)
        if s.valueDescription:
            texts[name] = text(s.valueDescription)
        if s.unit:
            units[name] = text(s.unit)
    return Decoded(text(rec.name), rec.id, bool(rec.extended), values, raw, texts, units,
                   transfer_size)


def _frame_fields(can_id, data, extended, fd):
    """Accepts a python-can Message in place of (can_id, data)."""
    if hasattr(can_id, "arbitration_id"):
        msg = can_id
        return (msg.arbitration_id, bytes(msg.data), msg.is_extended_id,
                bool(getattr(msg, "is_fd", False)))
    data = bytes(data or b"")
    if extended is None:
        extended = can_id > 0x7FF
    return can_id, data, bool(extended), bool(fd) or len(data) > 8


def build_frame(can_id, data: bytes, extended: bool, fd: bool):
    """The SocketCAN frame record for the library, and its fd flag."""
    if len(data) > (64 if fd else 8):
        raise TarnError("%d data bytes do not fit in a %s frame"
                        % (len(data), "CAN FD" if fd else "CAN"))
    frame = N.CanFdFrame() if fd else N.CanFrame()
    frame.can_id = (can_id & N.CAN_EFF_MASK) | (N.CAN_EFF_FLAG if extended else 0)
    frame.len = len(data)
    ctypes.memmove(frame.data, data, len(data))
    return frame, 1 if fd else 0


def _signal_from_record(s: N.DBCSignal, table: Dict[int, str]) -> Signal:
    if s.multiplexerType == 2:
        mux, mux_value = "M", None
    elif s.multiplexerType == 1:
        mux, mux_value = "m%d" % s.multiplexerValue, s.multiplexerValue
    else:
        mux, mux_value = None, None
    return Signal(text(s.name), s.startBit, s.length,
                  "little_endian" if s.byteOrder else "big_endian", bool(s.isSigned),
                  _VALUE_TYPES.get(s.valueType, "integer"), s.factor, s.offset, s.minimum,
                  s.maximum, text(s.unit), text(s.comment), mux, mux_value, table)


class Database:
    """One DBC file loaded into its own library instance."""

    def __init__(self, path: str, *, _multi_send: bool = False):
        encoded = str(path).encode()
        if len(encoded) >= N.TARN_PATH_LEN:
            raise TarnError("path longer than %d bytes: %s" % (N.TARN_PATH_LEN - 1, path))
        # Check first: the library only reports that loading failed.
        with open(path, "rb"):
            pass
        self._record = N.DBCMessage()
        self._handle = lib.TARN_Init(not _multi_send, False)
        info = N.FileInfo(encoded, 0)
        if not lib.TARN_LoadFile(self._handle, ctypes.byref(info)):
            lib.TARN_Release(self._handle)
            self._handle = 0
            raise TarnError("cannot load DBC file %s" % path)
        self.path = str(path)
        self._messages = None
        self._pending = []
        # Completed J1939 transfers come back through this callback while
        # TARN_Analyse handles the frame that completed them.
        self._on_done = N.MultiTransDoneFunc(self._transfer_done)
        lib.TARN_SetOnMultiTransDoneFunc(self._handle, self._on_done, None)

    # -- lifetime ---------------------------------------------------------
    def close(self):
        if self._handle:
            lib.TARN_Release(self._handle)
            self._handle = 0

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        try:
            self.close()
        except Exception:
            pass

    def _live(self) -> int:
        if not self._handle:
            raise TarnError("database is closed")
        return self._handle

    # -- model ------------------------------------------------------------
    @property
    def is_j1939(self) -> bool:
        return lib.TARN_GetProtocol(self._live()) == 0

    @property
    def messages(self) -> List[Message]:
        if self._messages is None:
            self._messages = []
            rec = self._record
            h = self._live()
            rec.cycleTime = math.nan
            ok = lib.TARN_GetFirstMessage(h, ctypes.byref(rec))
            while ok:
                self._messages.append(self._message_from_record(rec))
                rec.cycleTime = math.nan  # kept as it is by a message without one
                ok = lib.TARN_GetNextMessage(h, ctypes.byref(rec))
        return self._messages

    def message(self, key: Union[int, str]) -> Message:
        """A message by name, or by identifier with the library's matching rules."""
        if isinstance(key, str):
            for m in self.messages:
                if m.name == key:
                    return m
            raise UnknownMessageError("no message named %r in %s" % (key, self.path))
        rec = self._record
        if not lib.TARN_GetMessageById(self._live(), key, ctypes.byref(rec)):
            raise UnknownMessageError("no message with id 0x%X in %s" % (key, self.path))
        name = text(rec.name)
        return next(m for m in self.messages if m.name == name)

    @property
    def nodes(self) -> List[Node]:
        h = self._live()
        out = []
        for i in range(lib.TARN_GetNetworkNodeCount(h)):
            node = N.DBCNetworkNode()
            node.stationAddress = 0xFFFFFFFF  # never written for a node without one
            if lib.TARN_GetNetworkNodeAt(h, i, ctypes.byref(node)):
                addr = node.stationAddress
                out.append(Node(text(node.name), None if addr == 0xFFFFFFFF else addr))
        return out

    def _value_table(self, msg_id: int, signal: bytes) -> Dict[int, str]:
        h = self._live()
        n = lib.TARN_GetValDescPairCount(h, msg_id, signal)
        if n == 0:
            return {}
        pairs = (N.ValDescPair * n)()
        lib.TARN_GetValDescPair(h, msg_id, signal, pairs)
        return {int(p.value): text(p.desc) for p in pairs}

    def _message_from_record(self, rec: N.DBCMessage) -> Message:
        signals = []
        for i in range(min(rec.signalCount, N.TARN_MAX_SIGNALS)):
            s = rec.signals[i]
            signals.append(_signal_from_record(s, self._value_table(rec.id, s.name)))
        cycle = None if math.isnan(rec.cycleTime) else rec.cycleTime
        return Message(rec.id, bool(rec.extended), text(rec.name), rec.size, cycle,
                       text(rec.comment), signals)

    # -- frames -----------------------------------------------------------
    def _transfer_done(self, _ctx, rec, _data, length, _value):
        self._pending.append(decoded_from_record(rec.contents, length))

    def analyse(self, can_id, data=None, extended=None, fd=False) -> List[Decoded]:
        """Feeds one received frame: returns what it decodes to, plus any J1939
        transfer that it completes (BAM or RTS/CTS), in that order."""
        can_id, data, extended, fd = _frame_fields(can_id, data, extended, fd)
        frame, fd_flag = build_frame(can_id, data, extended, fd)
        self._pending = []
        rec = self._record
        out = []
        if lib.TARN_Analyse(self._live(), ctypes.byref(frame), fd_flag, ctypes.byref(rec)):
            out.append(decoded_from_record(rec))
        out.extend(self._pending)
        self._pending = []
        return out

    def decode(self, can_id, data=None, extended=None) -> Tuple[str, Dict[str, object]]:
        """Decodes one frame (or a python-can Message) into (name, {signal: value})."""
        can_id, data, extended, fd = _frame_fields(can_id, data, extended, False)
        frame, fd_flag = build_frame(can_id, data, extended, fd)
        rec = self._record
        if not lib.TARN_Analyse(self._live(), ctypes.byref(frame), fd_flag, ctypes.byref(rec)):
            raise UnknownMessageError("no message of %s decodes frame 0x%X" % (self.path, can_id))
        d = decoded_from_record(rec)
        return d.name, d.values

    def _record_for(self, name: str, values: Dict[str, int]) -> N.DBCMessage:
        """A message record with the given raw values; other signals are 0."""
        msg = self.message(name)
        rec = N.DBCMessage()
        rec.id, rec.size, rec.extended = msg.id, msg.size, msg.extended
        rec.name = msg.name.encode()
        rec.signalCount = len(msg.signals)
        known = set()
        for i, s in enumerate(msg.signals[:N.TARN_MAX_SIGNALS]):
            slot = rec.signals[i]
            slot.name = s.name.encode()
            slot.startBit, slot.length = s.start_bit, s.length
            slot.factor, slot.offset = s.factor, s.offset
            slot.isSigned = s.is_signed
            slot.byteOrder = 1 if s.byte_order == "little_endian" else 0
            slot.multiplexerType = {"M": 2, None: 0}.get(s.multiplexer, 1)
            slot.multiplexerValue = s.multiplexer_value or 0
            slot.valueType = {"integer": 0, "float": 1, "double": 2}[s.value_type]
            known.add(s.name)
        for sig, raw in values.items():
            if sig not in known:
                raise UnknownMessageError("message %s has no signal %r" % (name, sig))
            i = next(i for i, s in enumerate(msg.signals) if s.name == sig)
            rec.signals[i].rawValue = int(raw) & 0xFFFFFFFFFFFFFFFF
        return rec

    def encode(self, name: str, values: Dict[str, int]) -> List[bytes]:
        """Raw signal values to the payloads of the message's frames (for a
        long message, the sequence-numbered transport packets)."""
        rec = self._record_for(name, values)
        frames = (N.CanFrame * 256)()
        count = ctypes.c_uint32(256)
        if not lib.TARN_Encode(self._live(), frames, ctypes.byref(count), ctypes.byref(rec)):
            raise TarnError("the library could not encode %s" % name)
        return [bytes(frames[i].data[:frames[i].len]) for i in range(count.value)]

    def raw_from_physical(self, message: str, signal: str, value: float) -> int:
        """The raw value that the library sends for a physical value."""
        msg = self.message(message)
        msg.signal(signal)  # raises for an unknown signal
        rec = self._record_for(message, {})
        i = next(i for i, s in enumerate(msg.signals) if s.name == signal)
        phys = ctypes.c_double(value)
        return lib.TARN_CalcRawValue(ctypes.byref(rec.signals[i]), ctypes.byref(phys))
