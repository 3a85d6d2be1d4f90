"""ctypes mirror of tarn.h: record layouts, callback types and entry points."""

import ctypes
import ctypes.util
import glob
import os

TARN_MAX_SIGNALS = 256
TARN_NAME_LEN = 128
TARN_COMMENT_LEN = 201
TARN_UNIT_LEN = 11
TARN_VALDESC_LEN = 128
TARN_PATH_LEN = 261

CAN_EFF_FLAG = 0x80000000
CAN_RTR_FLAG = 0x40000000
CAN_EFF_MASK = 0x1FFFFFFF


class DBCSignal(ctypes.Structure):
    _fields_ = [
        ("startBit", ctypes.c_uint32),
        ("length", ctypes.c_uint32),
        ("factor", ctypes.c_double),
        ("offset", ctypes.c_double),
        ("minimum", ctypes.c_double),
        ("maximum", ctypes.c_double),
        ("rawValue", ctypes.c_uint64),
        ("isSigned", ctypes.c_uint8),
        ("byteOrder", ctypes.c_uint8),
        ("multiplexerType", ctypes.c_uint8),
        ("valueType", ctypes.c_uint8),
        ("multiplexerValue", ctypes.c_uint32),
        ("unit", ctypes.c_char * TARN_UNIT_LEN),
        ("name", ctypes.c_char * TARN_NAME_LEN),
        ("comment", ctypes.c_char * TARN_COMMENT_LEN),
        ("valueDescription", ctypes.c_char * TARN_VALDESC_LEN),
    ]


class DBCMessage(ctypes.Structure):
    _fields_ = [
        ("signalCount", ctypes.c_uint32),
        ("id", ctypes.c_uint32),
        ("size", ctypes.c_uint32),
        ("cycleTime", ctypes.c_double),
        ("extended", ctypes.c_uint8),
        ("signals", DBCSignal * TARN_MAX_SIGNALS),
        ("name", ctypes.c_char * TARN_NAME_LEN),
        ("comment", ctypes.c_char * TARN_COMMENT_LEN),
    ]


class FileInfo(ctypes.Structure):
    _fields_ = [("path", ctypes.c_char * TARN_PATH_LEN), ("merge", ctypes.c_uint8)]


class ValDescPair(ctypes.Structure):
    _fields_ = [("value", ctypes.c_double), ("desc", ctypes.c_char * TARN_VALDESC_LEN)]


class DBCNetworkNode(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char * TARN_NAME_LEN), ("stationAddress", ctypes.c_uint32)]


class CanFrame(ctypes.Structure):
    _fields_ = [
        ("can_id", ctypes.c_uint32),
        ("len", ctypes.c_uint8),
        ("pad", ctypes.c_uint8),
        ("res0", ctypes.c_uint8),
        ("res1", ctypes.c_uint8),
        ("data", ctypes.c_uint8 * 8),
    ]


class CanFdFrame(ctypes.Structure):
    _fields_ = [
        ("can_id", ctypes.c_uint32),
        ("len", ctypes.c_uint8),
        ("flags", ctypes.c_uint8),
        ("res0", ctypes.c_uint8),
        ("res1", ctypes.c_uint8),
        ("data", ctypes.c_uint8 * 64),
    ]


# A mismatch here means the binding and the library disagree on the binary
# interface; failing at import is better than corrupting memory later.
_SIZES = {
    DBCSignal: 528,
    DBCMessage: 135536,
    FileInfo: 262,
    ValDescPair: 136,
    DBCNetworkNode: 132,
    CanFrame: 16,
    CanFdFrame: 72,
}
for _cls, _size in _SIZES.items():
    if ctypes.sizeof(_cls) != _size:
        raise ImportError("tarn: %s is %d bytes, expected %d"
                          % (_cls.__name__, ctypes.sizeof(_cls), _size))
if DBCMessage.signals.offset != 32 or DBCMessage.name.offset != 135200:
    raise ImportError("tarn: DBCMessage field offsets do not match the library")

AsyncAnalyseCallback = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.POINTER(DBCMessage),
                                        ctypes.c_uint64)
SenderFunc = ctypes.CFUNCTYPE(ctypes.c_bool, ctypes.c_void_p, ctypes.c_void_p)
MultiTransDoneFunc = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.POINTER(DBCMessage),
                                      ctypes.POINTER(ctypes.c_uint8), ctypes.c_uint16,
                                      ctypes.c_uint8)

_u32, _u8, _bool, _p = ctypes.c_uint32, ctypes.c_uint8, ctypes.c_bool, ctypes.c_void_p
_MSG = ctypes.POINTER(DBCMessage)
_PROTOTYPES = {
    "TARN_Init": (_u32, [_bool, _bool]),
    "TARN_Release": (None, [_u32]),
    "TARN_SetLogFile": (None, [_bool, ctypes.c_char_p]),
    "TARN_SetFrameType": (None, [_u32]),
    "TARN_GetFrameType": (_u32, []),
    "TARN_LoadFile": (_bool, [_u32, ctypes.POINTER(FileInfo)]),
    "TARN_SetProtocol": (None, [_u32, _u8]),
    "TARN_GetProtocol": (_u8, [_u32]),
    "TARN_GetFirstMessage": (_bool, [_u32, _MSG]),
    "TARN_GetNextMessage": (_bool, [_u32, _MSG]),
    "TARN_GetMessageCount": (_u32, [_u32]),
    "TARN_GetMessageById": (_bool, [_u32, _u32, _MSG]),
    "TARN_GetValDescPairCount": (_u32, [_u32, _u32, ctypes.c_char_p]),
    "TARN_GetValDescPair": (None, [_u32, _u32, ctypes.c_char_p, ctypes.POINTER(ValDescPair)]),
    "TARN_GetNetworkNodeCount": (_u32, [_u32]),
    "TARN_GetNetworkNodeAt": (_bool, [_u32, _u32, ctypes.POINTER(DBCNetworkNode)]),
    "TARN_Analyse": (_bool, [_u32, _p, _u8, _MSG]),
    "TARN_Decode": (_bool, [_u32, _MSG, _p, _u32]),
    "TARN_Encode": (_bool, [_u32, _p, ctypes.POINTER(_u32), _MSG]),
    "TARN_OnReceive": (None, [_u32, _p, _u8]),
    "TARN_AsyncAnalyse": (_bool, [_u32, _p, _u8, ctypes.c_uint64]),
    "TARN_SetAsyncAnalyseCallback": (None, [_u32, AsyncAnalyseCallback, _p]),
    "TARN_SetSender": (None, [_u32, SenderFunc, _p]),
    "TARN_SetOnMultiTransDoneFunc": (None, [_u32, MultiTransDoneFunc, _p]),
    "TARN_Send": (_u32, [_u32, _MSG, _u8]),
    "TARN_SetCANFDSender": (None, [_u32, SenderFunc, _p]),
    "TARN_CalcActualValue": (ctypes.c_double, [ctypes.POINTER(DBCSignal),
                                               ctypes.POINTER(ctypes.c_uint64)]),
    "TARN_CalcRawValue": (ctypes.c_uint64, [ctypes.POINTER(DBCSignal),
                                            ctypes.POINTER(ctypes.c_double)]),
}


def _instrumented(build_dir):
    """Sanitizer builds cannot be loaded into an uninstrumented interpreter."""
    try:
        with open(os.path.join(build_dir, "CMakeCache.txt")) as cache:
            return any(line.startswith("TARN_SANITIZE:STRING=") and line.strip()[21:]
                       for line in cache)
    except OSError:
        return False


def _candidates():
    """Where to look for libtarn.so, best first."""
    env = os.environ.get("TARN_LIBRARY")
    if env:
        return [env]
    here = os.path.dirname(os.path.abspath(__file__))
    root = os.path.dirname(os.path.dirname(here))
    found = glob.glob(os.path.join(root, "build", "libtarn.so"))
    others = [p for p in glob.glob(os.path.join(root, "build*", "libtarn.so"))
              if p not in found and not _instrumented(os.path.dirname(p))]
    found += sorted(others, key=os.path.getmtime, reverse=True)
    system = ctypes.util.find_library("tarn")
    return found + [system or "libtarn.so.1"]


def _load():
    errors = []
    for path in _candidates():
        try:
            lib = ctypes.CDLL(path)
        except OSError as exc:
            errors.append(str(exc))
            continue
        for name, (restype, argtypes) in _PROTOTYPES.items():
            fn = getattr(lib, name)
            fn.restype = restype
            fn.argtypes = argtypes
        return lib, path
    raise ImportError("tarn: cannot load libtarn.so (set TARN_LIBRARY to its path): "
                      + "; ".join(errors))


lib, library_path = _load()


def text(buf):
    """A fixed-size record buffer as str; the library may leave it unterminated."""
    raw = bytes(buf)
    end = raw.find(b"\0")
    return (raw if end < 0 else raw[:end]).decode("utf-8", "replace")
