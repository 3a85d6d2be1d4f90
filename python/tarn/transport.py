"""Sending messages with the library's J1939 transport protocol."""

import ctypes
import threading
from dataclasses import dataclass
from typing import Callable, Dict, List, Optional, Union

from . import _native as N
from ._native import lib
from .database import Database, Decoded, TarnError, build_frame, decoded_from_record, \
    _frame_fields

SEND_OK, SEND_FAILED, SEND_QUEUED, SEND_REFUSED = 0, 1, 2, 3


@dataclass
class Frame:
    """A frame the library wants sent; attribute names follow python-can."""
    arbitration_id: int
    is_extended_id: bool
    data: bytes
    is_remote_frame: bool = False

    def to_can(self):
        import can
        return can.Message(arbitration_id=self.arbitration_id,
                           is_extended_id=self.is_extended_id, data=self.data,
                           is_remote_frame=self.is_remote_frame)


class TransportSession:
    """A library instance with its J1939 send thread.

    `send` is a callable taking a Frame and returning true when the frame went
    out, or a python-can bus. Frames received from the bus go to `receive`,
    which lets the transport see the peer's CTS, acknowledgement and abort and
    also reassembles transfers that other nodes send. `on_transfer(decoded,
    payload, value)` reports completed transfers: value 0 for one of our sends
    acknowledged by the peer, 1 for one received.
    """

    def __init__(self, path: Union[str, Database], send, on_transfer: Optional[Callable] = None):
        if isinstance(path, Database):
            path = path.path
        self.database = Database(path, _multi_send=True)
        self._send = self._bus_sender(send) if hasattr(send, "recv") else send
        self._on_transfer = on_transfer
        self._lock = threading.Lock()  # receive() and the library's send thread
        self._sender_cb = N.SenderFunc(self._sender)
        self._done_cb = N.MultiTransDoneFunc(self._done)
        h = self.database._live()
        lib.TARN_SetSender(h, self._sender_cb, None)
        lib.TARN_SetOnMultiTransDoneFunc(h, self._done_cb, None)

    @staticmethod
    def _bus_sender(bus):
        def send(frame: Frame) -> bool:
            bus.send(frame.to_can())
            return True
        return send

    def _sender(self, _ctx, frame_ptr) -> bool:
        # Runs on the caller's thread for short messages and on the library's
        # send thread for transfers; an exception must not cross into C.
        try:
            f = N.CanFrame.from_address(frame_ptr)
            frame = Frame(f.can_id & N.CAN_EFF_MASK, bool(f.can_id & N.CAN_EFF_FLAG),
                          bytes(f.data[:min(f.len, 8)]), bool(f.can_id & N.CAN_RTR_FLAG))
            return bool(self._send(frame))
        except Exception:  # noqa: BLE001 - reported as a failed send
            return False

    def _done(self, _ctx, rec, data, length, value):
        try:
            decoded = decoded_from_record(rec.contents, length)
            payload = ctypes.string_at(data, length) if data else b""
            if self._on_transfer:
                self._on_transfer(decoded, payload, value)
        except Exception:  # noqa: BLE001
            pass

    def send(self, name: str, values: Dict[str, int]) -> int:
        """Sends a message from raw values: SEND_OK when a short message went
        out, SEND_QUEUED when a long one waits for the peer's clear to send."""
        rec = self.database._record_for(name, values)
        status = lib.TARN_Send(self.database._live(), ctypes.byref(rec), 0)
        if status == SEND_FAILED:
            raise TarnError("%s was not sent" % name)
        if status == SEND_REFUSED:
            raise TarnError("%s refused: the transport protocol is disabled or 1,024 "
                            "long messages wait already" % name)
        return status

    def receive(self, can_id, data=None, extended=None) -> List[Decoded]:
        """Feeds one frame from the bus (or a python-can Message)."""
        can_id, data, extended, fd = _frame_fields(can_id, data, extended, False)
        frame, fd_flag = build_frame(can_id, data, extended, fd)
        with self._lock:
            lib.TARN_OnReceive(self.database._live(), ctypes.byref(frame), fd_flag)
        return self.database.analyse(can_id, data, extended, fd)

    def close(self):
        self.database.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
