"""libtarn for Python: DBC databases, decoding and encoding of CAN and CAN FD
frames, whole logs into pandas DataFrames, and J1939 transport, over the
library's native C interface (ctypes; numpy and pandas).

    import tarn
    db = tarn.load_file("examples/demo.dbc")
    db.decode_message("EngineStatus", payload)
    frames = db.decode_log("drive.log")   # {message name: DataFrame}
    node = tarn.j1939.Node(bus, address=0x80)   # a python-can bus

The library's diagnostics go to the logging logger "tarn", never to
standard output.
"""

import importlib

from . import j1939
from ._native import library_path
from .database import (AttributeDefinition, Database, Diagnostic, Message, Node, Signal,
                       load_file, load_string)
from .errors import DecodeError, EncodeError, Error, ParseError
from .logs import Frame, LogReader, read_log


def __getattr__(name):
    # The modules that need pandas, matplotlib or Dask load on first use.
    if name in ("columns", "dask", "plot"):
        return importlib.import_module("." + name, __name__)
    raise AttributeError("module 'tarn' has no attribute %r" % name)


__all__ = ["AttributeDefinition", "Database", "DecodeError", "Diagnostic", "EncodeError",
           "Error", "Frame", "LogReader", "Message", "Node", "ParseError", "Signal",
           "j1939", "library_path", "load_file", "load_string", "read_log"]
