#!/usr/bin/env python3
"""Writes the fuzzer's corpus of info files: whole ones and damaged ones, and dumps (see InfoFuzz.h)."""
import pathlib
import struct

FOLDER = pathlib.Path(__file__).parent / "corpus-info"
MIB = 1048576
MOST = 2 ** 63 - 1
ADD, LOG, MERGED, DUMP, EXPORT = 16, 8, 32, 64, 128


def records(*segments):
    """Source, offset in it, virtual offset, length."""
    return b"".join(struct.pack("<4q", *segment) for segment in segments)


def dump(*segments, merged=False):
    word = "--> Merged Segment" if merged else "Segment"
    return "".join(f"{word} path=/a, fox={fox}, ox={ox}, len={length}\n" for _, fox, ox, length in segments).encode()


WHOLE = [(i % 3, i * 7, i * MIB, MIB) for i in range(5)]

INPUTS = {
    "empty": (0, ADD | 5, b""),
    "whole": (5, ADD | 5, records(*WHOLE)),
    "whole-logged": (5, ADD | LOG | 5, records(*WHOLE)),
    "whole-unnamed-sources": (5, 5, records(*WHOLE)),
    "small-file": (5, ADD | EXPORT | 2, records((0, 0, 0, 1000), (1, 5, 1000, 1000), (-1, 0, 2000, 2096))),
    "whole-content": (10, ADD | EXPORT | 4, records(*WHOLE)),
    "no-size": (5, ADD, records(*WHOLE)),
    "one-byte": (5, ADD | 1, records((2, 999, 0, 1))),
    "large": (15, ADD | 6, records(*[(0, 0, i * 3 * MIB, 3 * MIB) for i in range(20)])),
    "largest": (5, ADD | 7, records((0, 0, 0, MOST), (1, MOST, MOST, MOST), (2, MOST - 1, MOST - 1, 2))),
    "negative": (5, ADD | 7, records((-2, -1, -1, -1), (-(2 ** 63), -(2 ** 63), -(2 ** 63), -(2 ** 63)),
                                     (0, -5, -5, 10), (1, 0, 5, MOST))),
    "no-such-source": (5, ADD | 5, records((3, 0, 0, 100), (70000, 0, 100, 100), (MOST, 0, 200, 100))),
    "holes": (5, ADD | MERGED | 5, records((0, 0, 100, 50), (1, 0, 500, 50), (2, 0, 70000, 50))),
    "overlaps": (5, ADD | MERGED | 5, records((0, 0, 0, 500), (1, 0, 250, 500), (2, 0, 100, 10), (0, 3, 0, 900))),
    "disorder": (5, ADD | 5, records(*reversed(WHOLE))),
    "empty-segments": (5, ADD | 5, records((0, 0, 0, 0), (0, 0, 0, -1), (0, 0, 0, 100), (1, 0, 100, 0))),
    "cut-record": (5, ADD | 5, records(*WHOLE)[:-5]),
    "only-part-of-a-record": (5, ADD | 5, records(*WHOLE)[:31]),
    "source-that-ends": (5, ADD | 5, records((0, 990, 0, 100), (1, 2000, 100, 100))),
    "many": (5, ADD | 5, records(*[(i % 3, 0, i * 10, 10) for i in range(40)])),
    "text": (5, ADD | DUMP | 5, b"this is no info file, but somebody's letter, of more than thirty-two bytes"),
    "dump": (5, 5, dump(*WHOLE)),
    "dump-merged": (5, DUMP | 5, dump(*WHOLE, merged=True)),
    "dump-check-points": (5, 5, b"--> CheckPoint Segment fox=32, ox=1048576\n-------------------\n" + dump(*WHOLE)),
    "dump-line-ends-in-path": (5, 5, b"Segment path=/a\n, fox=1\n, fox=1, ox=2, len=3\n"),
    "dump-null": (5, 5, b"Segment path=Null, fox=18446744073709551615, ox=0, len=9223372036854775807\n"),
    "dump-too-great": (5, 5, b"Segment path=/a, fox=99999999999999999999, ox=0, len=1\n"),
    "dump-cut": (5, DUMP | 5, dump(*WHOLE)[:-7]),
}


def main():
    FOLDER.mkdir(exist_ok=True)
    for name, (steps, kind, content) in INPUTS.items():
        (FOLDER / name).write_bytes(bytes([steps, kind]) + content)


if __name__ == "__main__":
    main()
