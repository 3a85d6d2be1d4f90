"""ctypes mirror of the native face (tarn/db.h, tarn/log.h, tarn/j1939.h):
finding and loading libtarn.so, record layouts, numpy dtypes of the batch
records, entry point prototypes and the log handler."""

import atexit
import ctypes
import ctypes.util
import glob
import logging
import os

import numpy as np

# ---- Status codes ---------------------------------------------------------

OK = 0
ERR_ARGUMENT = -1
ERR_IO = -3
ERR_NOT_DBC = -4
ERR_PARSE = -5
ERR_NOT_FOUND = -7
ERR_RANGE = -8
ERR_NOT_FINITE = -9
ERR_BUFFER = -10
ERR_MULTIPLEX = -11
ERR_STATE = -12

OPEN_STRICT = 1
OPEN_J1939 = 2
RAW_SIGNED = 1
RAW_FLOAT = 2
FRAME_FD, FRAME_REMOTE, FRAME_ERROR = 1, 2, 4
ENCODE_STRICT = 1
INPUT_PHYSICAL, INPUT_RAW, INPUT_RAW_FLOAT = 0, 1, 2
VALUE_INTEGER, VALUE_FLOAT, VALUE_DOUBLE = 0, 1, 2
ATTR_INT, ATTR_HEX, ATTR_FLOAT, ATTR_STRING, ATTR_ENUM = range(5)
J1939_GLOBAL = 0xFF
J1939_NO_ADDRESS = -1

_c = ctypes
_sz, _u8, _u32, _i32, _u64, _i64, _dbl, _int = (_c.c_size_t, _c.c_uint8, _c.c_uint32, _c.c_int32,
                                               _c.c_uint64, _c.c_int64, _c.c_double, _c.c_int)
_str, _vp = _c.c_char_p, _c.c_void_p

# ---- Records ------------------------------------------------------------------


class Diagnostic(_c.Structure):
    _fields_ = [("line", _u32), ("section", _str), ("reason", _str)]


class DbInfo(_c.Structure):
    _fields_ = [("version", _str), ("comment", _str), ("message_count", _sz),
                ("node_count", _sz), ("attr_def_count", _sz), ("attr_count", _sz),
                ("value_table_count", _sz), ("max_signals", _u32), ("j1939", _int)]


class NodeInfo(_c.Structure):
    _fields_ = [("name", _str), ("comment", _str), ("attr_count", _sz)]


class MessageInfo(_c.Structure):
    _fields_ = [("name", _str), ("comment", _str), ("id", _u32), ("extended", _int),
                ("length", _u32), ("index", _u32), ("signal_count", _sz),
                ("sender_count", _sz), ("attr_count", _sz), ("cycle_time_ms", _i32),
                ("multiplexed", _int), ("pgn", _u32)]


class SignalInfo(_c.Structure):
    _fields_ = [("name", _str), ("unit", _str), ("comment", _str), ("index", _u32),
                ("start_bit", _u32), ("length", _u32), ("big_endian", _int),
                ("is_signed", _int), ("value_type", _int), ("factor", _dbl),
                ("offset", _dbl), ("minimum", _dbl), ("maximum", _dbl), ("is_switch", _int),
                ("switch_index", _i32), ("mux_range_count", _sz), ("receiver_count", _sz),
                ("value_count", _sz), ("attr_count", _sz)]


class AttrDef(_c.Structure):
    _fields_ = [("name", _str), ("object", _int), ("type", _int), ("minimum", _dbl),
                ("maximum", _dbl), ("enum_count", _sz), ("has_default", _int),
                ("default_number", _dbl), ("default_text", _str)]


class Attr(_c.Structure):
    _fields_ = [("name", _str), ("type", _int), ("number", _dbl), ("text", _str)]


class RawUnion(_c.Union):
    _fields_ = [("u", _u64), ("i", _i64), ("f", _dbl)]


class Value(_c.Structure):
    _fields_ = [("signal", _u32), ("flags", _u32), ("raw", RawUnion), ("physical", _dbl),
                ("text", _str)]


class Decoded(_c.Structure):
    _fields_ = [("message", _vp), ("message_index", _u32), ("count", _u32), ("absent", _u32),
                ("pgn", _u32), ("priority", _u8), ("source", _u8), ("destination", _u8),
                ("j1939", _u8)]


class Frame(_c.Structure):
    _fields_ = [("time", _dbl), ("id", _u32), ("extended", _u8), ("length", _u8),
                ("flags", _u8), ("channel", _u8), ("data", _u8 * 64)]


class BatchResult(_c.Structure):
    _fields_ = [("message", _vp), ("message_index", _u32), ("first", _u32), ("count", _u32)]


class InputRaw(_c.Union):
    _fields_ = [("u", _u64), ("i", _i64)]


class Input(_c.Structure):
    _fields_ = [("name", _str), ("signal", _u32), ("kind", _int), ("raw", InputRaw),
                ("physical", _dbl)]


class LogInfo(_c.Structure):
    _fields_ = [("format", _int), ("channel_count", _sz), ("lines", _u64), ("frames", _u64),
                ("malformed", _u64), ("overlong", _u64)]


class LogProblem(_c.Structure):
    _fields_ = [("line", _u64), ("kind", _int), ("reason", _str), ("excerpt", _str)]


class DmHeader(_c.Structure):
    _fields_ = [("lamp_status", _u8 * 4), ("lamp_flash", _u8 * 4), ("dtc_count", _u32)]


class Dtc(_c.Structure):
    _fields_ = [("spn", _u32), ("fmi", _u8), ("occurrences", _u8), ("conversion", _u8),
                ("reserved", _u8)]


class J1939Transfer(_c.Structure):
    _fields_ = [("time_us", _u64), ("pgn", _u32), ("size", _u32), ("data", _c.POINTER(_u8)),
                ("priority", _u8), ("source", _u8), ("destination", _u8), ("role", _u8)]


class J1939Ended(_c.Structure):
    _fields_ = [("time_us", _u64), ("pgn", _u32), ("size", _u32), ("done", _u32),
                ("priority", _u8), ("source", _u8), ("destination", _u8), ("role", _u8),
                ("reason", _u8), ("abort_reason", _u8)]


LogFn = _c.CFUNCTYPE(None, _vp, _int, _str)
ProblemFn = _c.CFUNCTYPE(None, _vp, _c.POINTER(LogProblem))
SendFn = _c.CFUNCTYPE(_int, _vp, _u32, _c.POINTER(_u8), _sz)
TransferFn = _c.CFUNCTYPE(None, _vp, _c.POINTER(J1939Transfer))
EndedFn = _c.CFUNCTYPE(None, _vp, _c.POINTER(J1939Ended))


class J1939Options(_c.Structure):
    _fields_ = [("address", _int), ("cts_window", _c.c_uint), ("bam_gap_ms", _c.c_uint),
                ("max_sessions", _c.c_uint), ("send", SendFn), ("on_transfer", TransferFn),
                ("on_ended", EndedFn), ("user", _vp)]


_J1939_STATS = ("frames received sent ended refused duplicates out_of_order out_of_range "
                "unexpected size_mismatches stray malformed timeouts aborts_sent "
                "aborts_received retransmit_requests send_failures open_sessions "
                "peak_sessions").split()


class J1939Stats(_c.Structure):
    _fields_ = [(name, _u64) for name in _J1939_STATS]


# The batch records as numpy dtypes, so that whole arrays of them pass to the
# library in one call; tests check them against the ctypes layouts above.
FRAME_DTYPE = np.dtype([("time", "<f8"), ("id", "<u4"), ("extended", "u1"), ("length", "u1"),
                        ("flags", "u1"), ("channel", "u1"), ("data", "u1", (64,))])
VALUE_DTYPE = np.dtype([("signal", "<u4"), ("flags", "<u4"), ("raw", "<u8"),
                        ("physical", "<f8"), ("text", "<u8")])
RESULT_DTYPE = np.dtype({"names": ["message", "message_index", "first", "count"],
                         "formats": ["<u8", "<u4", "<u4", "<u4"],
                         "offsets": [0, 8, 12, 16], "itemsize": 24})

# ---- Prototypes -------------------------------------------------------------

_P = _c.POINTER
_pp = _P(_vp)
_PROTOTYPES = {
    "tarn_status_text": (_str, [_int]),
    "tarn_version": (_str, []),
    "tarn_set_log_handler": (None, [LogFn, _vp]),
    "tarn_db_open": (_int, [_str, _c.c_uint, _pp, _c.c_char_p, _sz]),
    "tarn_db_open_buffer": (_int, [_c.c_char_p, _sz, _c.c_uint, _pp, _c.c_char_p, _sz]),
    "tarn_db_close": (None, [_vp]),
    "tarn_db_write_dbc": (_int, [_vp, _c.c_char_p, _sz, _P(_sz)]),
    "tarn_db_diagnostic_count": (_sz, [_vp]),
    "tarn_db_diagnostic": (_int, [_vp, _sz, _P(Diagnostic)]),
    "tarn_db_get_info": (_int, [_vp, _P(DbInfo)]),
    "tarn_db_node": (_int, [_vp, _sz, _P(NodeInfo)]),
    "tarn_db_message": (_int, [_vp, _sz, _pp]),
    "tarn_db_find_message": (_int, [_vp, _u32, _int, _pp]),
    "tarn_db_find_message_by_pgn": (_int, [_vp, _u32, _pp]),
    "tarn_message_get_info": (_int, [_vp, _P(MessageInfo)]),
    "tarn_message_sender": (_int, [_vp, _sz, _P(_str)]),
    "tarn_message_signal": (_int, [_vp, _sz, _pp]),
    "tarn_signal_get_info": (_int, [_vp, _P(SignalInfo)]),
    "tarn_signal_receiver": (_int, [_vp, _sz, _P(_str)]),
    "tarn_signal_value_text": (_int, [_vp, _sz, _P(_i64), _P(_str)]),
    "tarn_signal_mux_range": (_int, [_vp, _sz, _P(_u64), _P(_u64)]),
    "tarn_db_attr_def": (_int, [_vp, _sz, _P(AttrDef)]),
    "tarn_db_attr_enum": (_int, [_vp, _sz, _sz, _P(_str)]),
    "tarn_db_attr": (_int, [_vp, _sz, _P(Attr)]),
    "tarn_node_attr": (_int, [_vp, _sz, _sz, _P(Attr)]),
    "tarn_message_attr": (_int, [_vp, _sz, _P(Attr)]),
    "tarn_signal_attr": (_int, [_vp, _sz, _P(Attr)]),
    "tarn_db_value_table": (_int, [_vp, _sz, _P(_str), _P(_sz)]),
    "tarn_db_value_table_entry": (_int, [_vp, _sz, _sz, _P(_i64), _P(_str)]),
    "tarn_decode": (_int, [_vp, _u32, _int, _c.c_char_p, _sz, _P(Value), _sz, _P(Decoded)]),
    "tarn_decode_message": (_int, [_vp, _c.c_char_p, _sz, _P(Value), _sz, _P(Decoded)]),
    "tarn_decode_batch": (_int, [_vp, _vp, _sz, _vp, _sz, _vp, _P(_sz)]),
    "tarn_encode": (_int, [_vp, _P(Input), _sz, _c.c_uint, _c.c_char_p, _sz, _P(_sz),
                           _P(_sz)]),
    "tarn_log_format_name": (_str, [_int]),
    "tarn_log_open": (_int, [_str, _int, _pp]),
    "tarn_log_open_fd": (_int, [_int, _int, _pp]),
    "tarn_log_close": (None, [_vp]),
    "tarn_log_read": (_int, [_vp, _vp, _sz, _P(_sz)]),
    "tarn_log_get_info": (_int, [_vp, _P(LogInfo)]),
    "tarn_log_channel": (_int, [_vp, _sz, _P(_str)]),
    "tarn_log_set_problem_handler": (_int, [_vp, ProblemFn, _vp]),
    "tarn_j1939_pgn": (_u32, [_u32]),
    "tarn_j1939_make_id": (_int, [_u8, _u32, _u8, _u8, _P(_u32)]),
    "tarn_j1939_dm_parse": (_int, [_c.c_char_p, _sz, _P(DmHeader), _P(Dtc), _sz]),
    "tarn_j1939_options_init": (None, [_P(J1939Options)]),
    "tarn_j1939_create": (_int, [_P(J1939Options), _pp]),
    "tarn_j1939_destroy": (None, [_vp]),
    "tarn_j1939_receive": (_int, [_vp, _u64, _u32, _c.c_char_p, _sz]),
    "tarn_j1939_send": (_int, [_vp, _u64, _u8, _u32, _u8, _c.c_char_p, _sz]),
    "tarn_j1939_poll": (_int, [_vp, _u64, _P(_u64)]),
    "tarn_j1939_start_timer": (_int, [_vp]),
    "tarn_j1939_stop_timer": (_int, [_vp]),
    "tarn_j1939_clock_us": (_u64, []),
    "tarn_j1939_get_stats": (_int, [_vp, _P(J1939Stats)]),
    "tarn_j1939_end_reason_text": (_str, [_int]),
}

# ---- Finding the library ------------------------------------------------------


def _instrumented(build_dir):
    """Sanitizer builds cannot be loaded into an uninstrumented interpreter."""
    try:
        with open(os.path.join(build_dir, "CMakeCache.txt")) as cache:
            return any(line.startswith("TARN_SANITIZE:STRING=") and line.strip()[21:]
                       for line in cache)
    except OSError:
        return False


def _candidates():
    """Where to look for libtarn.so, best first: the environment, the library
    installed with this package, a build tree of the repository around it,
    then the system's loader."""
    env = os.environ.get("TARN_LIBRARY")
    if env:
        return [env]
    here = os.path.dirname(os.path.abspath(__file__))
    found = []
    try:
        from . import _install  # written by the CMake install beside the package
        found.append(os.path.normpath(os.path.join(here, _install.LIBRARY)))
    except ImportError:
        pass
    root = os.path.dirname(os.path.dirname(here))
    builds = [p for pattern in (("build*", "libtarn.so"), ("build*", "*", "libtarn.so"))
              for p in glob.glob(os.path.join(root, *pattern))
              if not _instrumented(os.path.dirname(p))]
    # ./build first, then the most recently built of the others
    builds.sort(key=lambda p: (os.path.basename(os.path.dirname(p)) != "build",
                               -os.path.getmtime(p)))
    found += builds
    return found + [ctypes.util.find_library("tarn") or "libtarn.so.1"]


def _load():
    errors = []
    for path in _candidates():
        try:
            handle = ctypes.CDLL(path)
        except OSError as exc:
            errors.append(str(exc))
            continue
        try:
            for name, (restype, argtypes) in _PROTOTYPES.items():
                fn = getattr(handle, name)
                fn.restype = restype
                fn.argtypes = argtypes
        except AttributeError as exc:
            errors.append("%s: %s" % (path, exc))
            continue
        return handle, path
    raise ImportError("tarn: cannot load libtarn.so (set TARN_LIBRARY to its path): "
                      + "; ".join(errors))


lib, library_path = _load()

# ---- Log handler ----------------------------------------------------------------

logger = logging.getLogger("tarn")
_LEVELS = (logging.DEBUG, logging.INFO, logging.WARNING, logging.ERROR)


def _forward(_user, level, text):
    # Runs on whatever thread the library logs from (ctypes takes the GIL);
    # an exception must not cross back into C.
    try:
        lvl = _LEVELS[level] if 0 <= level < 4 else logging.ERROR
        if logger.isEnabledFor(lvl):
            logger.log(lvl, "%s", text.decode("utf-8", "replace"))
    except Exception:  # noqa: BLE001
        pass


_log_callback = LogFn(_forward)  # referenced for as long as the library may call it
lib.tarn_set_log_handler(_log_callback, None)


@atexit.register
def _unhook():
    # A timer thread logging during interpreter shutdown must find no Python.
    lib.tarn_set_log_handler(LogFn(), None)


# ---- Helpers ------------------------------------------------------------------------


def text(value):
    """A const char* result as str ("" for NULL)."""
    return value.decode("utf-8", "replace") if value else ""


def status_text(status):
    return text(lib.tarn_status_text(status))


class Owned:
    """Owns one library handle: `close()` (also on leaving a `with` block and
    on collection) frees it once through the class's `_free` function name."""

    _free = None
    _handle = None

    def close(self):
        if self._handle:
            handle, self._handle = self._handle, None
            getattr(lib, self._free)(handle)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        try:
            self.close()
        except Exception:  # noqa: BLE001 - interpreter shutdown
            pass
