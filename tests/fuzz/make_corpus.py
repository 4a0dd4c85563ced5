#!/usr/bin/env python3
"""Writes the fuzzer's corpus: one well-formed call of every procedure, over TCP and UDP (see RpcFuzz.h)."""
import pathlib
import struct

FOLDER = pathlib.Path(__file__).parent / "corpus"
PORTMAP, NFS, MOUNT = (0, 100000, 2), (1, 100003, 3), (2, 100005, 3)


def u32(*values):
    return b"".join(struct.pack(">I", value) for value in values)


def u64(value):
    return struct.pack(">Q", value)


def opaque(data):
    return u32(len(data)) + data + bytes(-len(data) % 4)


def handle(number):
    return opaque(struct.pack("<I", number) + bytes(52))


NO_ATTRIBUTES = u32(0, 0, 0, 0, 0, 0)
ALL_ATTRIBUTES = u32(1, 0o640, 1, 0, 1, 0, 1) + u64(7) + u32(1, 2, 1000000000, 5)
ROOT, FILE, DIRECTORY, ENTRY = handle(0), handle(1), handle(2), handle(3)

CALLS = {
    "portmap-null": (PORTMAP, 0, b""),
    "portmap-getport": (PORTMAP, 3, u32(100003, 3, 6, 0)),
    "mount-null": (MOUNT, 0, b""),
    "mount-mnt": (MOUNT, 1, opaque(b"fuzz")),
    "mount-dump": (MOUNT, 2, b""),
    "mount-umnt": (MOUNT, 3, opaque(b"fuzz")),
    "mount-export": (MOUNT, 5, b""),
    "nfs-null": (NFS, 0, b""),
    "nfs-getattr": (NFS, 1, FILE),
    "nfs-setattr": (NFS, 2, FILE + ALL_ATTRIBUTES + u32(1, 0, 0)),
    "nfs-setattr-none": (NFS, 2, FILE + NO_ATTRIBUTES + u32(0)),
    "nfs-lookup": (NFS, 3, ROOT + opaque(b"file")),
    "nfs-lookup-dotdot": (NFS, 3, ROOT + opaque(b"..")),
    "nfs-access": (NFS, 4, FILE + u32(0x3F)),
    "nfs-readlink": (NFS, 5, FILE),
    "nfs-read": (NFS, 6, FILE + u64(2) + u32(65536)),
    "nfs-write": (NFS, 7, FILE + u64(3) + u32(5, 2) + opaque(b"hello")),
    "nfs-create-unchecked": (NFS, 8, ROOT + opaque(b"new") + u32(0) + NO_ATTRIBUTES),
    "nfs-create-guarded": (NFS, 8, ROOT + opaque(b"newer") + u32(1) + NO_ATTRIBUTES),
    "nfs-create-exclusive": (NFS, 8, ROOT + opaque(b"newest") + u32(2) + u64(1)),
    "nfs-mkdir": (NFS, 9, ROOT + opaque(b"made") + NO_ATTRIBUTES),
    "nfs-symlink": (NFS, 10, ROOT + opaque(b"link") + NO_ATTRIBUTES + opaque(b"../secret")),
    "nfs-mknod": (NFS, 11, ROOT + opaque(b"node") + u32(7) + NO_ATTRIBUTES),
    "nfs-remove": (NFS, 12, DIRECTORY + opaque(b"entry")),
    "nfs-rmdir": (NFS, 13, ROOT + opaque(b"folder")),
    "nfs-rename": (NFS, 14, ROOT + opaque(b"file") + DIRECTORY + opaque(b"moved")),
    "nfs-link": (NFS, 15, FILE + ROOT + opaque(b"hard")),
    "nfs-readdir": (NFS, 16, ROOT + u64(0) + u64(0) + u32(4096)),
    "nfs-readdirplus": (NFS, 17, ROOT + u64(0) + u64(0) + u32(4096, 32768)),
    "nfs-fsstat": (NFS, 18, ROOT),
    "nfs-fsinfo": (NFS, 19, ROOT),
    "nfs-pathconf": (NFS, 20, ROOT),
    "nfs-commit": (NFS, 21, FILE + u64(0) + u32(0)),
}


def record(call, last=True):
    return u32((0x80000000 if last else 0) | len(call)) + call


def call_of(program, procedure, arguments, version=None):
    _, program_number, usual_version = program
    return u32(77, 0, 2, program_number, version or usual_version, procedure, 0, 0, 0, 0) + arguments


# Streams in pieces of 50 bytes: calls in the data of calls, unread arguments, several fragments, marks that lie.
REMOVE = call_of(NFS, 12, DIRECTORY + opaque(b"entry"))
HARM = record(REMOVE) + b"x" + REMOVE + record(REMOVE)
WRITE = call_of(NFS, 7, FILE + u64(0) + u32(len(HARM), 2) + opaque(HARM))
STREAMS = {
    "stream-calls-in-data": (NFS, record(WRITE) + record(REMOVE)),
    "stream-fragments": (NFS, record(WRITE[:120], False) + record(WRITE[120:])),
    "stream-whole-fragment": (NFS, record(WRITE, False) + record(REMOVE)),
    "stream-refused": (NFS, record(call_of(NFS, 0, HARM, 2)) + record(REMOVE)),
    "stream-refused-fragment": (NFS, record(call_of(NFS, 0, HARM, 2), False) + record(REMOVE)),
    "stream-mark-too-small": (NFS, u32(0x80000000) + WRITE[:-8] + record(REMOVE)),
    "stream-mark-too-large": (NFS, u32(0x80000800) + WRITE + record(REMOVE)),
    "stream-count-beyond-data": (NFS, record(call_of(NFS, 7, FILE + u64(0) + u32(99, 2) + opaque(b"ab") + b"more"))),
    "stream-long-name": (MOUNT, record(call_of(MOUNT, 1, opaque(HARM * 20))) + record(call_of(MOUNT, 0, b""))),
}


def main():
    FOLDER.mkdir(exist_ok=True)
    for name, (program, stream) in STREAMS.items():
        (FOLDER / name).write_bytes(bytes([program[0] << 1, 50]) + stream)
    for number, (name, (program, procedure, arguments)) in enumerate(CALLS.items()):
        index, program_number, version = program
        credential = u32(1) + opaque(u32(7) + opaque(b"client") + u32(0, 0, 0)) if number % 2 else u32(0, 0)
        call = u32(number + 1, 0, 2, program_number, version, procedure) + credential + u32(0, 0) + arguments
        datagram = number % 3 == 0
        record = b"" if datagram else u32(0x80000000 | len(call))
        piece = (0, 0, 50)[number % 3]
        (FOLDER / name).write_bytes(bytes([(8 if number % 4 == 1 else 0) | index << 1 | datagram, piece]) + record + call)


if __name__ == "__main__":
    main()
