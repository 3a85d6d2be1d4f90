#!/usr/bin/env python3
"""Throughput of tarn's Database.decode_log: a generated candump log of the
Tesla Model 3 vehicle bus (1,000,000 frames by default) into one DataFrame
per message, end to end (file read by the library, decoded in batches,
laid out into columns, DataFrames built), in frames per second.

    /usr/bin/python3 bench/bench_python_decode_log.py [--frames N] [--repeat R]

Each run is timed separately in one process with the database open: the
first run also pays for building the column names of every message. Wall
time is what counts; CPU time is printed too, being steadier when other
work shares the machine.
"""

import argparse
import ctypes
import os
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SHARED = os.path.join(os.path.dirname(ROOT), "shared")
sys.path.insert(0, os.path.join(ROOT, "python"))

import numpy as np  # noqa: E402

import tarn  # noqa: E402
import tarn.columns  # noqa: E402,F401  (pandas imported outside the timing)
from tarn import _native as N  # noqa: E402


def library_only(db, path):
    """Read and decode_batch alone, no layout: the library's share."""
    frames = np.empty(tarn.logs.BATCH, N.FRAME_DTYPE)
    values = np.empty(tarn.logs.BATCH * 16, N.VALUE_DTYPE)
    results = np.empty(tarn.logs.BATCH, N.RESULT_DTYPE)
    done = ctypes.c_size_t()
    total = 0
    with tarn.read_log(path) as reader:
        while True:
            n = reader.read_into(frames)
            if n == 0:
                return total
            start = 0
            while start < n:
                N.lib.tarn_decode_batch(db._handle, frames.ctypes.data + start * 80, n - start,
                                        values.ctypes.data, len(values), results.ctypes.data,
                                        ctypes.byref(done))
                start += done.value
            total += n


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--dbc", default=os.path.join(SHARED, "dbc",
                                                  "opendbc-pr1020__tesla_model3_veh.dbc"))
    ap.add_argument("--frames", type=int, default=1000000)
    ap.add_argument("--repeat", type=int, default=5)
    ap.add_argument("--log", help="use this log instead of generating one")
    args = ap.parse_args()

    tmp = None
    log = args.log
    if not log:
        tmp = tempfile.TemporaryDirectory()
        log = os.path.join(tmp.name, "bench.log")
        with open(log, "w") as out:
            subprocess.run([sys.executable, os.path.join(SHARED, "tools", "gen_candump.py"),
                            args.dbc, str(args.frames), "--seed", "1"], stdout=out,
                           stderr=subprocess.DEVNULL, check=True)
    size = os.path.getsize(log)
    t = time.perf_counter()
    db = tarn.load_file(args.dbc)
    print("database %s: %d messages, opened in %.3f s" % (os.path.basename(args.dbc),
                                                           len(db.messages),
                                                           time.perf_counter() - t))
    rates = []
    for run in range(args.repeat):
        t, cpu = time.perf_counter(), time.process_time()
        frames = db.decode_log(log)
        dt, dcpu = time.perf_counter() - t, time.process_time() - cpu
        rows = sum(len(df) for df in frames.values())
        rates.append(rows / dt)
        # CPU time (all threads) varies less than wall time on a shared machine
        print("run %d: %d rows in %d DataFrames, %.3f s (%.3f s CPU), %.0f frames/s"
              % (run + 1, rows, len(frames), dt, dcpu, rows / dt))
        del frames
    t = time.perf_counter()
    n = library_only(db, log)
    dt = time.perf_counter() - t
    print("library only (read + tarn_decode_batch): %.3f s, %.0f frames/s" % (dt, n / dt))
    print("decode_log on %d frames (%.1f MB): median %.0f frames/s, best %.0f frames/s"
          % (rows, size / 1e6, statistics.median(rates), max(rates)))


if __name__ == "__main__":
    main()
