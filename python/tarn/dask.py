"""Decoding many logs on a Dask cluster: one dask DataFrame per message, one
partition per log file, each partition decoded on a worker.

    from distributed import Client
    client = Client("tcp://scheduler:8786")
    frames = tarn.dask.decode_logs("vehicle.dbc", paths)
    speed = frames["VehicleSpeed"]["Speed"].mean().compute()

The workers need the tarn package and libtarn.so, and see the DBC and the
logs under the same paths as the client (a shared file system)."""

import os
import threading

import numpy as np
import pandas as pd

from .columns import decode_log
from .database import Database

_cache = {}
_cache_lock = threading.Lock()


def _database(dbc_path, strict, j1939):
    """The database, opened once per process (worker) and file version: it is
    immutable, so the worker's threads share it."""
    path = os.path.abspath(dbc_path)
    st = os.stat(path)
    key = (path, st.st_mtime_ns, st.st_size, bool(strict), bool(j1939))
    with _cache_lock:
        db = _cache.get(key)
        if db is None:
            db = _cache[key] = Database(path, strict=strict, j1939=j1939)
        return db


def _decode_file(dbc_path, log_path, strict, j1939, fmt):
    return decode_log(_database(dbc_path, strict, j1939), log_path, format=fmt)


def _empty(columns):
    return pd.DataFrame({c: np.empty(0) for c in columns},
                        index=pd.Index(np.empty(0), name="time"), columns=columns)


def _pick(frames, name, columns):
    df = frames.get(name)
    return _empty(columns) if df is None else df


def decode_logs(dbc_path, paths, messages=None, strict=False, j1939=None, format=None):
    """{message name: dask DataFrame} for the logs `paths`, with the columns
    and time index of Database.decode_log; partition i holds log i's rows
    (empty where that log has none). `messages` limits it to those names.
    Nothing is decoded until the frames are computed; computing several
    messages together decodes each log once."""
    import dask
    import dask.dataframe as dd

    db = _database(dbc_path, strict, j1939)
    wanted = db.messages if messages is None else [db.get_message_by_name(n) for n in messages]
    dbc_path = os.path.abspath(dbc_path)
    parts = [dask.delayed(_decode_file, pure=True)(dbc_path, os.path.abspath(p), strict, j1939,
                                                   format) for p in paths]
    out = {}
    for msg in wanted:
        columns = [s.name for s in msg.signals]
        out[msg.name] = dd.from_delayed(
            [dask.delayed(_pick, pure=True)(part, msg.name, columns) for part in parts],
            meta=_empty(columns), verify_meta=False)
    return out
