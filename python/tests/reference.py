"""Independent bit-level reference for DBC signal placement, written from the
DBC conventions and not from the library: Intel signals count bits upward from
the start bit; Motorola signals start at their most significant bit and walk
the 'sawtooth' numbering (bit 7 of a byte is followed by bit 0 ... of the next
byte's top)."""

import re


def bit_positions(start, length, little_endian):
    """Payload bit numbers (byte * 8 + bit) from least to most significant."""
    if little_endian:
        return [start + i for i in range(length)]
    positions, pos = [], start
    for _ in range(length):  # most significant first
        positions.append(pos)
        pos = pos + 15 if pos % 8 == 0 else pos - 1
    return positions[::-1]


def pack(size, signals):
    """signals: iterable of (start, length, little_endian, raw)."""
    payload = bytearray(size)
    for start, length, little, raw in signals:
        for i, pos in enumerate(bit_positions(start, length, little)):
            if raw >> i & 1:
                payload[pos // 8] |= 1 << (pos % 8)
    return bytes(payload)


def unpack(payload, start, length, little_endian):
    raw = 0
    for i, pos in enumerate(bit_positions(start, length, little_endian)):
        raw |= (payload[pos // 8] >> (pos % 8) & 1) << i
    return raw


def parse_dbc(path):
    """The few facts the tests check, read straight from the DBC text."""
    text = open(path, encoding="latin-1").read()
    messages = {}
    for m in re.finditer(r"^BO_ (\d+) (\w+): (\d+) \w+\n((?: SG_ .*\n)*)", text, re.M):
        dbc_id, name, size, body = int(m.group(1)), m.group(2), int(m.group(3)), m.group(4)
        sigs = {}
        for s in re.finditer(r"SG_ (\w+) ?(M|m\d+)? : (\d+)\|(\d+)@([01])([+-]) "
                             r"\(([^,]+),([^)]+)\)", body):
            sigs[s.group(1)] = dict(mux=s.group(2), start=int(s.group(3)),
                                    length=int(s.group(4)), little=s.group(5) == "1",
                                    signed=s.group(6) == "-", factor=float(s.group(7)),
                                    offset=float(s.group(8)))
        messages[name] = dict(id=dbc_id & 0x7FFFFFFF, extended=bool(dbc_id >> 31), size=size,
                              signals=sigs)
    cycles = {int(i): float(v) for i, v in
              re.findall(r'^BA_ "GenMsgCycleTime" BO_ (\d+) (\d+);', text, re.M)}
    for msg in messages.values():
        msg["cycle"] = cycles.get(msg["id"] | (0x80000000 if msg["extended"] else 0))
    addresses = dict(re.findall(r'^BA_ "NmStationAddress" BU_ (\w+) (\d+);', text, re.M))
    nodes = re.search(r"^BU_:(.*)$", text, re.M).group(1).split()
    tables = {}
    for i, sig, body in re.findall(r"^VAL_ (\d+) (\w+) (.*);", text, re.M):
        tables[(int(i) & 0x7FFFFFFF, sig)] = {int(v): d for v, d in
                                              re.findall(r'(\d+) "([^"]*)"', body)}
    return messages, {n: addresses.get(n) for n in nodes}, tables
