#!/usr/bin/env python3
"""Writes the fuzzer's corpus of sessions: scripts of steps of clients, host and local user (see SessionFuzz.h)."""
import pathlib

FOLDER = pathlib.Path(__file__).parent / "corpus-session"
PREPARED, READ_ONLY = 1, 2
NAMES = ["", "file", "folder", "entry", "disk", "link", "made", "made2", "folder/disk", "other", ".", "..",
         "../secret", "folder/entry"]
ROOT, FILE, DIRECTORY, ENTRY, DISK, OTHER = range(6)  # handles
NFS, MOUNT, PORTMAP = 0, 3, 4  # programs
STREAM, DATAGRAM = 0, 3


def connect(client, program, kind=STREAM, address=0):
    return bytes([0, client, program, kind, address])


def call(client, procedure, *arguments):
    return bytes([1, client, procedure]) + b"".join(
        argument if isinstance(argument, bytes) else bytes([argument]) for argument in arguments)


def data(content):
    return bytes([len(content)]) + content


def name(text):
    return bytes([0, NAMES.index(text)])


def say_bytes(client, content):
    return bytes([3, client]) + data(content)


def hear(client, count=None):
    return bytes([5, client]) if count is None else bytes([4, client, count])


def hear_all(piece=0):
    return bytes([6, 0, piece])


def hang_up(client):
    return bytes([7, client])


def ask(kind, *rest, cut=0):
    return bytes([8, 0, kind - 1, cut]) + bytes(rest)


def raw_record(content):
    return bytes([8, 3]) + data(content)


def answer(number, deed=0):
    return bytes([8, 4, number, deed])


def swap(text, deed, more=0):
    return bytes([8, 5, NAMES.index(text), deed]) + (bytes([more]) if deed == 5 else b"")


def disk():
    return NAMES.index("disk")


def write(handle, content, offset=0):
    return (handle, offset, data(content), 0, 2)


# One call of every procedure, with arguments that mostly succeed.
CALLS = {0: (), 1: (FILE,), 2: (FILE, 0x2B, 1, 0), 3: (ROOT, name("file")), 4: (FILE, 3), 5: (FILE,), 6: (FILE, 0, 6),
         7: write(FILE, b"hello"), 8: (ROOT, name("made"), 0, 0), 9: (ROOT, name("made2"), 0, name("file")),
         10: (ROOT, name("link"), 0, name("../secret")), 11: (ROOT, name("made"), 7, 0, name("file")),
         12: (DIRECTORY, name("entry")), 13: (ROOT, name("other")), 14: (ROOT, name("file"), ROOT, name("made")),
         15: (FILE, ROOT, name("link")), 16: (ROOT, 0, 6), 17: (ROOT, 0, 6, 6), 18: (ROOT,), 19: (ROOT,), 20: (ROOT,),
         21: (FILE, 0, 0), 22: ()}
EVERY = b"".join(call(0, procedure, *arguments) for procedure, arguments in CALLS.items())
DISK_CALLS = (call(0, 6, DISK, 0, 6) + call(1, 7, *write(DISK, b"data")) + call(0, 2, DISK, 0x3B, 1, 0) +
              call(1, 14, ROOT, name("disk"), ROOT, name("made")) + call(0, 6, DISK, 1, 4) +
              call(1, 12, ROOT, name("made")))
MOUNTS = connect(2, MOUNT) + call(2, 1, 0) + call(2, 0) + call(2, 2) + call(2, 3, 0)
# What a host asks for, by type: mostly a name, numbers behind it.
REDIRECTED = (ask(10, disk(), 4, 0, 0, 0) + ask(13, disk(), 0, 1, 0, 4) + ask(13, disk(), 1, 0, 3, 4) +
              ask(14, disk()) + ask(15, disk(), 0) + ask(15, disk(), 1) + ask(16, disk()) + ask(17, 0) +
              ask(11, disk()) + ask(12, 0))
OTHER_REQUESTS = b"".join(ask(kind, *([0, 0] if kind in (5, 6) else [1] if kind == 18 else [2] if kind == 28
                                      else data(b"\1text"))) for kind in list(range(1, 10)) + list(range(18, 33)))

INPUTS = {
    "empty": (0, b""),
    "every-call": (PREPARED, EVERY + hear(0)),
    "every-call-in-pieces": (PREPARED, EVERY + hear_all(7)),
    "every-call-read-only": (PREPARED | READ_ONLY, EVERY + hear(0)),
    "every-call-without-exports": (0, EVERY + hear(0)),
    "every-call-as-datagrams": (PREPARED, b"".join(
        connect(3, NFS, DATAGRAM) + call(3, procedure, *arguments) + hear(3) for procedure, arguments in CALLS.items())),
    "redirected": (PREPARED, answer(0x80) + DISK_CALLS + hear_all()),
    "redirected-refused": (PREPARED, answer(1) + DISK_CALLS + hear_all()),
    "redirected-thrown": (PREPARED, answer(0xF0) + DISK_CALLS + hear_all(20)),
    **{f"redirected-deed-{deed}": (PREPARED, answer(0x80, deed) + DISK_CALLS + hear_all(33)) for deed in range(1, 5)},
    "mounts": (PREPARED, MOUNTS + hear(2) + connect(4, PORTMAP) + call(4, 3, 3) + call(4, 0) + hear(4)),
    "mount-of-two-clients": (PREPARED, MOUNTS[:-3] + hear(2) + connect(3, MOUNT, STREAM, 1) + call(3, 1, 0) + hear(3) +
                             connect(1, NFS, STREAM, 1) + call(1, 1, FILE) + hear(1)),
    "host-redirected": (PREPARED, REDIRECTED + call(0, 6, DISK, 0, 6) + hear(0)),
    "host-redirected-info-file": (PREPARED, ask(10, disk(), 4, 1, 1, 1) + ask(13, disk(), 0, 0, 0, 5) +
                                  call(0, 6, DISK, 0, 6) + hear(0) + ask(15, disk(), 0) + ask(10, disk(), 4, 1, 1, 1) +
                                  call(0, 6, DISK, 5, 6) + hear(0)),
    "host-others": (PREPARED, OTHER_REQUESTS),
    "host-cut": (PREPARED, ask(5, 0, 0, cut=0xF1) + ask(10, disk(), 4, 0, 0, 0, cut=0xF0) + ask(13, disk(), cut=0xFF)),
    "host-bytes": (PREPARED, raw_record(b"") + raw_record(b"\2\0\0\0\6\0\0\0" + b"x" * 200) + raw_record(b"\3\0\0\0\1")),
    "exports-removed-under-calls": (PREPARED, call(0, 16, ROOT, 0, 4) + hear(0) + ask(6, 0, 0) +
                                    call(0, 16, ROOT, 2, 4) + call(0, 1, FILE) + hear(0) + ask(5, 0, 0) +
                                    call(0, 16, ROOT, 2, 4) + hear(0)),
    "inner-export": (PREPARED, ask(5, 1, 1) + ask(5, 2, 2) + call(0, 14, ROOT, name("folder"), ROOT, name("made")) +
                     call(0, 13, ROOT, name("other")) + hear(0) + ask(6, 1, 0)),
    "cut-and-gone": (PREPARED, call(0, 7, *write(FILE, b"x" * 200)) + hear(0, 100) + hang_up(0) + connect(0, NFS) +
                     call(0, 6, FILE, 0, 6) + hear(0, 30) + call(1, 1, FILE) + hear(1) + hear(0)),
    "bytes": (PREPARED, say_bytes(0, b"\x80\0\0\x28" + b"\0" * 40) + hear(0) + call(0, 1, FILE) + hear_all(1)),
    "local-user": (PREPARED, swap("file", 3) + call(0, 6, FILE, 0, 6) + call(0, 7, *write(FILE, b"harm")) + hear(0) +
                   swap("folder", 4) + call(0, 6, ENTRY, 0, 6) + call(0, 12, DIRECTORY, name("file")) + hear(0) +
                   swap("folder", 1) + call(0, 16, DIRECTORY, 0, 6) + hear(0) + swap("made", 6) + swap("link", 5, 1)),
    "local-user-redirected": (PREPARED, swap("disk", 3) + call(0, 6, DISK, 0, 6) + hear(0) + ask(11, disk()) +
                              call(0, 6, DISK, 0, 6) + call(0, 7, *write(DISK, b"harm")) + hear(0) + swap("disk", 2) +
                              swap("disk", 7) + swap("disk", 0)),
}


def main():
    FOLDER.mkdir(exist_ok=True)
    for file_name, (kind, steps) in INPUTS.items():
        (FOLDER / file_name).write_bytes(bytes([kind]) + steps)


if __name__ == "__main__":
    main()
