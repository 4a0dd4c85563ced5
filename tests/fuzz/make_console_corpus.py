#!/usr/bin/env python3
"""Writes the fuzzer's corpus of what users type at the console (see ConsoleFuzz.h)."""
import pathlib

FOLDER = pathlib.Path(__file__).parent / "corpus-console"
LOG_FILE = 1

LINES = {
    "basic": b"help\nstatus\nlog 1023\nlog\nlog x\nquit\nstatus\n",
    "stats": b"stats\nstats json\nstats text\nstats x\nstats \nstatsjson\nquit\n",
    "help-of-debug-mode": b"help\ndebug\nhelp\n",
    "not-in-debug-mode": b"start\nexec true\nmount /tmp=a\n",
    "start": b"debug\nstart\nstart 1058=2049\nstart 1=2=3\nstart =\nstart a=\nstart \nstatus\n",
    "mounts": b"debug\nmount /tmp=a\nmount /tmp=b\nmount /=c/d\nmount x\nstatus\numount /tmp\numount /none\nstatus\n",
    "mount-long": b"debug\nmount /" + b"x" * 3000 + b"=" + b"y" * 900 + b"\nstatus\n",
    "test": b"debug\ntest /tmp=100\ntest /tmp=99999999999999999999\ntest =\ntest x\n",
    "log-file-size": b"debug\nlogfilesize 100\nprint %s%n%x\nlogfilesize -1\nlogfilesize 99999999999999999999\nprint b\n",
    "print": b"debug\nprint hello\nprint %n%n%s\nprint \n" + b"print " + b"z" * 4500 + b"\n",
    "debug-action": b"debug\ndebugaction 1\ndebugaction 0\ndebugaction x\n",
    "datastores": b"debug\naddvsphereinfo a b c d e\naddvsphereinfo a b\naddvsphereinfo  b  d e\nstatus\n"
                  b"removevsphereinfo a\nremovevsphereinfo x\nstatus\n",
    "quick-test": b"debug\nqtest /tmp 0\nqtest /none 0\nqtest /tmp\nqtest /tmp 77\n",
    "exec": b"debug\nexec echo hello\nexec\nexec  \nexec a;b|c\n",
    "net-devices": b"debug\naddnet /a b c\naddnet a\nremovenet /a\nstatus\n",
    "long-line": b"a" * 4095 + b"\n" + b"b" * 4096 + b"\n" + b"c" * 9000 + b"\nquit\n",
    "no-line-end": b"status\nhel",
    "bytes": bytes(range(256)) + b"\nquit\0x\nhelp\r\n\n\n",
    "quit-only-alone": b" quit\nquit \nquit\r\nQUIT\nquit",
}


def main():
    FOLDER.mkdir(exist_ok=True)
    for number, (name, lines) in enumerate(LINES.items()):
        log_file = LOG_FILE if number % 2 or name == "log-file-size" else 0
        (FOLDER / name).write_bytes(bytes([(0, 7, 0, 100)[number % 4], log_file]) + lines)


if __name__ == "__main__":
    main()
