"""The few model facts the tests check, read straight from the DBC text with
regular expressions rather than through the library."""

import re


def parse_dbc(path):
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
