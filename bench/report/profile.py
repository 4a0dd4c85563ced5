#!/usr/bin/env python3
"""Where a server's time goes: reads what perf and strace recorded of it while one row ran, and prints lines for
profile.csv. Run by bench/run.sh."""

import argparse
import collections
import re
import sys

# System calls by what a server uses them for. The first that stands in a sample's call chain decides.
USES = (
    ("send", ("sendto", "sendmsg", "write", "writev")),
    ("receive", ("recvfrom", "recvmsg", "read", "poll", "ppoll", "epoll_wait", "epoll_pwait")),
    ("data", ("pread64", "pwrite64", "preadv", "pwritev")),
    ("names", ("openat", "openat2", "open", "newfstatat", "statx", "newfstat", "fstat", "newlstat", "newstat", "lstat",
               "stat", "close", "readlink", "readlinkat", "unlink", "unlinkat", "mkdir", "rename", "statfs", "fstatfs",
               "getdents64", "ftruncate", "chmod", "fchmod", "access", "faccessat", "fcntl")),
    ("locks", ("futex",)),
)
COLUMNS = ("own", "send", "receive", "names", "data", "locks", "switch", "kernel")
USE_OF = {call: use for use, calls in USES for call in calls}
SYSTEM_CALL = re.compile(r"\b_*(?:x64_|se_|do_)?_?sys_(\w+)")


def use_of(frames):
    """What one sample, innermost frame first, was spent on."""
    if not frames or "[kernel" not in frames[0] and "[k" not in frames[0]:
        return "own"
    if any(re.search(r"\b(?:__)?schedule\b", frame) for frame in frames):
        return "switch"
    for frame in frames:
        found = SYSTEM_CALL.search(frame)
        if found and found[1] in USE_OF:
            return USE_OF[found[1]]
    return "kernel"


def uses(script):
    """Samples by use, from the output of perf script."""
    counts = collections.Counter()
    frames = []
    for line in script:
        if line.strip():
            frames.append(line)
        elif frames:
            counts[use_of(frames)] += 1
            frames = []
    if frames:
        counts[use_of(frames)] += 1
    return counts


def usual_calls(trace):
    """The commonest series of system calls from one receive to the next, from the output of strace."""
    series = collections.Counter()
    current = {}
    for line in trace:
        found = re.match(r"(\d+) +(?:<\.\.\. )?(\w+)(\(| resumed)", line)
        if not found or found[3] == " resumed":
            continue
        thread, call = found[1], found[2]
        if call in ("recvfrom", "recvmsg"):
            if current.get(thread):
                series[tuple(current[thread])] += 1
            current[thread] = []
        if thread in current:
            current[thread].append(call)
    return series.most_common(1)[0][0] if series else ()


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("shape")
    parser.add_argument("row")
    parser.add_argument("script", help="what perf script printed")
    parser.add_argument("trace", nargs="?", help="what strace wrote")
    options = parser.parse_args()
    with open(options.script, encoding="utf-8", errors="replace") as file:
        counts = uses(file)
    total = sum(counts.values())
    if total == 0:
        print(f"profile: no samples of {options.row}", file=sys.stderr)
        return 1
    calls = ()
    if options.trace:
        with open(options.trace, encoding="utf-8", errors="replace") as file:
            calls = usual_calls(file)
    shares = ",".join(f"{counts[use] / total:.3f}" for use in COLUMNS)
    print(f"{options.shape},{options.row},{total},{shares},{' '.join(calls)}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
