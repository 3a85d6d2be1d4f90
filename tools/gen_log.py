#!/usr/bin/env python3
"""Writes a synthetic candump log for the demo network (examples/demo.dbc).

Mostly single frames of the demo's messages with random payloads, a BAM and
an RTS/CTS transfer of TripSummary every so often, CAN FD frames and a few
unknown identifiers: the same mix as examples/demo.log, at any length.

    tools/gen_log.py --lines 1000000 > big.log
"""

import argparse
import random
import sys

SINGLE = [("0CF00400", 8), ("18FEF500", 8), ("18FF1021", 8), ("100", 2), ("18FEF231", 8)]
FD = ("200", 12)
TRANSFER = 20  # bytes of TripSummary, PGN 0xFF20


def hexbytes(rng, n):
    return "".join("%02X" % rng.randrange(256) for _ in range(n))


def packets(rng):
    payload = [rng.randrange(256) for _ in range(TRANSFER)] + [0xFF]
    return ["%02X" % (k + 1) + "".join("%02X" % b for b in payload[7 * k:7 * k + 7])
            for k in range(3)]


def bam(rng):
    lines = [("1CECFF00", "20140003FF20FF00")]
    return lines + [("1CEBFF00", p) for p in packets(rng)]


def rts_cts(rng):
    lines = [("1CEC2117", "10140003FF20FF00"), ("1CEC1721", "110301FFFF20FF00")]
    lines += [("1CEB2117", p) for p in packets(rng)]
    return lines + [("1CEC1721", "13140003FF20FF00")]


def frames(rng):
    """Endless (id, data, fd) tuples."""
    while True:
        pick = rng.random()
        if pick < 0.02:
            for can_id, data in bam(rng) if pick < 0.01 else rts_cts(rng):
                yield can_id, data, False
        elif pick < 0.07:
            yield FD[0], hexbytes(rng, FD[1]), True
        else:
            can_id, size = rng.choice(SINGLE)
            yield can_id, hexbytes(rng, size), False


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--lines", type=int, default=1000000)
    ap.add_argument("--seed", type=int, default=1)
    args = ap.parse_args()
    rng = random.Random(args.seed)
    out = sys.stdout
    t = 1700000000.0
    gen = frames(rng)
    for i in range(args.lines):
        can_id, data, fd = next(gen)
        sep = "##0" if fd else "#"
        out.write("(%.6f) can0 %s%s%s\n" % (t + i * 0.0005, can_id, sep, data))


if __name__ == "__main__":
    main()
