"""Python binding of libtarn: DBC databases, signal decoding and encoding,
and J1939 transport, over the library's C interface (ctypes, no build step).

    import tarn
    db = tarn.Database("examples/demo.dbc")
    name, values = db.decode(0x0CF00400, bytes.fromhex("F1968C803EFFF0F6"))
"""

import ctypes as _ctypes

from ._native import lib as _lib, library_path
from .database import (Database, Decoded, Message, Node, Signal, TarnError,
                       UnknownMessageError)
from .transport import (Frame, TransportSession, SEND_OK, SEND_FAILED, SEND_QUEUED,
                        SEND_REFUSED)

# The binding hands the library SocketCAN-layout frames; the layout is one
# switch for the whole process.
_lib.TARN_SetFrameType(0)


def set_log_file(path):
    """Sends the library's diagnostics to `path` (None: standard output)."""
    _lib.TARN_SetLogFile(True, None if path is None else str(path).encode())


__all__ = ["Database", "Decoded", "Message", "Node", "Signal", "TarnError",
           "UnknownMessageError", "Frame", "TransportSession", "SEND_OK", "SEND_FAILED",
           "SEND_QUEUED", "SEND_REFUSED", "library_path", "set_log_file"]
