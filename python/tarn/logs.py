"""CAN logs (candump, Vector ASC, PEAK TRC) read by the library's readers, as
frame objects or as numpy arrays of whole batches."""

import ctypes
import os

import numpy as np

from . import _native as N
from ._native import lib, text
from .errors import Error

FORMATS = {None: 0, "auto": 0, "candump": 1, "candump-screen": 2, "asc": 3, "trc1": 4,
           "trc2": 5}
BATCH = 1 << 15


class Frame:
    """One CAN frame; the attribute names are python-can's, so either kind of
    object may be passed where a frame is expected."""

    __slots__ = ("timestamp", "arbitration_id", "is_extended_id", "is_remote_frame",
                 "is_error_frame", "is_fd", "data", "channel")

    def __init__(self, arbitration_id, data=b"", is_extended_id=None, timestamp=0.0,
                 is_fd=False, is_remote_frame=False, is_error_frame=False, channel=None):
        self.timestamp = timestamp
        self.arbitration_id = arbitration_id
        self.is_extended_id = arbitration_id > 0x7FF if is_extended_id is None \
            else bool(is_extended_id)
        self.data = bytes(data)
        self.is_fd = is_fd
        self.is_remote_frame = is_remote_frame
        self.is_error_frame = is_error_frame
        self.channel = channel

    @property
    def dlc(self):
        return len(self.data)

    def __eq__(self, other):
        return all(getattr(self, k) == getattr(other, k, None) for k in self.__slots__)

    def __repr__(self):
        ident = "%08X" % self.arbitration_id if self.is_extended_id \
            else "%03X" % self.arbitration_id
        return "Frame(%.6f %s %s#%s)" % (self.timestamp, self.channel, ident, self.data.hex())


class LogReader(N.Owned):
    """A log file open for reading; iterate it for Frame objects, or call
    batches() for numpy arrays of tarn_frame records (FRAME_DTYPE)."""

    _free = "tarn_log_close"

    def __init__(self, path, format=None):
        if format not in FORMATS:
            raise ValueError("unknown log format %r (one of %s)"
                             % (format, ", ".join(k for k in FORMATS if k)))
        self.path = os.fspath(path)
        handle = ctypes.c_void_p()
        rc = lib.tarn_log_open(os.fsencode(self.path), FORMATS[format], ctypes.byref(handle))
        if rc != N.OK:
            if not os.path.exists(self.path):
                raise FileNotFoundError(2, "No such file or directory", self.path)
            raise Error("%s: %s" % (self.path, N.status_text(rc)))
        self._handle = handle.value
        self._problem_cb = N.ProblemFn(self._problem)  # kept alive with the reader
        lib.tarn_log_set_problem_handler(self._handle, self._problem_cb, None)

    def _problem(self, _user, problem):
        try:
            p = problem.contents
            N.logger.warning("%s line %d: %s: %s", self.path, p.line, text(p.reason),
                             text(p.excerpt))
        except Exception:  # noqa: BLE001 - must not cross into C
            pass

    def _live(self):
        if not self._handle:
            raise Error("log reader is closed")
        return self._handle

    def read_into(self, frames):
        """Fills a FRAME_DTYPE array from its start; returns the frame count
        (0 at the end of the log)."""
        count = ctypes.c_size_t()
        rc = lib.tarn_log_read(self._live(), frames.ctypes.data, len(frames), ctypes.byref(count))
        if rc != N.OK and count.value == 0:
            raise Error("%s: %s" % (self.path, N.status_text(rc)))
        return count.value

    def batches(self, size=BATCH):
        """Arrays of up to `size` frames each, until the log ends."""
        while True:
            frames = np.empty(size, N.FRAME_DTYPE)
            n = self.read_into(frames)
            if n == 0:
                return
            yield frames[:n]

    def __iter__(self):
        names = []
        for batch in self.batches(4096):
            if len(names) < self.channel_count:
                names = self.channels
            for f in batch.tolist():
                t, ident, ext, length, flags, chan, data = f
                yield Frame(ident, bytes(data[:length]), bool(ext), t, bool(flags & N.FRAME_FD),
                            bool(flags & N.FRAME_REMOTE), bool(flags & N.FRAME_ERROR),
                            names[chan] if chan < len(names) else None)

    @property
    def info(self):
        i = N.LogInfo()
        lib.tarn_log_get_info(self._live(), ctypes.byref(i))
        return {"format": text(lib.tarn_log_format_name(i.format)),
                "channels": i.channel_count, "lines": i.lines, "frames": i.frames,
                "malformed": i.malformed, "overlong": i.overlong}

    @property
    def channel_count(self):
        i = N.LogInfo()
        lib.tarn_log_get_info(self._live(), ctypes.byref(i))
        return i.channel_count

    @property
    def channels(self):
        """Interface names in the order first seen (a frame's channel indexes it)."""
        out, name = [], ctypes.c_char_p()
        for i in range(self.channel_count):
            lib.tarn_log_channel(self._handle, i, ctypes.byref(name))
            out.append(text(name.value))
        return out



def read_log(path, format=None):
    """Opens a log for reading: `for frame in tarn.read_log(path)`. The format
    ("candump", "candump-screen", "asc", "trc1", "trc2") is told from the
    content unless given."""
    return LogReader(path, format)


def frame_batches(frames, size=BATCH):
    """FRAME_DTYPE arrays from an iterable of frame objects (python-can
    Messages or Frames), or from FRAME_DTYPE arrays passed through."""
    if isinstance(frames, np.ndarray):
        yield frames
        return
    channels = {}
    chunk = []
    for f in frames:
        if isinstance(f, np.ndarray):
            yield f
            continue
        chunk.append(f)
        if len(chunk) == size:
            yield _to_array(chunk, channels)
            chunk = []
    if chunk:
        yield _to_array(chunk, channels)


def _to_array(chunk, channels):
    out = np.zeros(len(chunk), N.FRAME_DTYPE)
    data = bytearray(64 * len(chunk))
    cols = []
    for i, f in enumerate(chunk):
        payload = bytes(f.data)[:64]
        data[i * 64:i * 64 + len(payload)] = payload
        flags = ((N.FRAME_FD if getattr(f, "is_fd", False) else 0)
                 | (N.FRAME_REMOTE if getattr(f, "is_remote_frame", False) else 0)
                 | (N.FRAME_ERROR if getattr(f, "is_error_frame", False) else 0))
        chan = channels.setdefault(getattr(f, "channel", None), len(channels)) & 0xFF
        t = f.timestamp
        cols.append((np.nan if t is None else t, f.arbitration_id & 0x1FFFFFFF,
                     bool(f.is_extended_id), len(payload), flags, chan))
    t, ident, ext, length, flags, chan = zip(*cols)
    out["time"], out["id"], out["extended"] = t, ident, ext
    out["length"], out["flags"], out["channel"] = length, flags, chan
    out["data"] = np.frombuffer(bytes(data), np.uint8).reshape(-1, 64)
    return out
