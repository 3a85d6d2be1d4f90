"""libtarn for Python: DBC databases, decoding and encoding of CAN and CAN FD
frames, whole logs into pandas DataFrames, and J1939 transport, over the
library's native C interface (ctypes; numpy and pandas).

    import tarn
    db = tarn.load_file("examples/demo.dbc")
    db.decode_message("EngineStatus", payload)
    frames = db.decode_log("drive.log")   # {message name: DataFrame}

The library's diagnostics go to the logging logger "tarn", never to
standard output.
"""

from ._native import library_path
from .database import (AttributeDefinition, Database, Diagnostic, Message, Node, Signal,
                       load_file, load_string)
from .errors import DecodeError, EncodeError, Error, ParseError
from .logs import Frame, LogReader, read_log

__all__ = ["AttributeDefinition", "Database", "DecodeError", "Diagnostic", "EncodeError",
           "Error", "Frame", "LogReader", "Message", "Node", "ParseError", "Signal",
           "library_path", "load_file", "load_string", "read_log"]
