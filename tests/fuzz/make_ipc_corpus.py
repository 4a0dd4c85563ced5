#!/usr/bin/env python3
"""Writes the fuzzer's corpus for the remote control: one well-formed record of every request and callback."""
import pathlib
import struct

FOLDER = pathlib.Path(__file__).parent / "corpus-ipc"
REQUEST, CALLBACK = 2, 3

# Lengths by type, from 1.
REQUESTS = [16, 16, 16, 36, 1552, 1040, 1296, 272, 272, 1064, 1040, 1040, 2088, 2064, 2068, 1040, 1040, 20, 276, 276,
            3352, 16, 16, 20, 276, 1296, 272, 1300, 1300, 276, 1552, 1040]
CALLBACKS = [2324, 1344, 1296, 2320, 1312]

# Where texts begin in records that hold more than one behind the header.
MORE_TEXTS = {(REQUEST, 5): [1040, 1296], (REQUEST, 7): [272], (REQUEST, 13): [1040], (REQUEST, 14): [1040],
              (REQUEST, 15): [1040], (REQUEST, 21): [272], (REQUEST, 26): [272, 528, 784, 1040], (REQUEST, 28): [272],
              (REQUEST, 29): [272], (REQUEST, 31): [1040, 1295], (CALLBACK, 1): [272], (CALLBACK, 2): [272],
              (CALLBACK, 3): [272], (CALLBACK, 4): [272, 1296], (CALLBACK, 5): [272]}


def record(group, kind, length):
    data = bytearray(length)
    data[:16] = struct.pack("<ii8s", group, kind, b"1.4")
    if length >= 272:
        for offset in [16] + MORE_TEXTS.get((group, kind), []):
            text = b"/text-at-%d" % offset
            data[offset:offset + len(text)] = text
    elif length > 16:
        data[16:20] = struct.pack("<i", 1)
    return bytes(data)


def main():
    FOLDER.mkdir(exist_ok=True)
    for group, name, lengths in ((REQUEST, "request", REQUESTS), (CALLBACK, "callback", CALLBACKS)):
        for kind, length in enumerate(lengths, 1):
            (FOLDER / f"{name}-{kind:02}").write_bytes(record(group, kind, length))


if __name__ == "__main__":
    main()
