#!/usr/bin/env python3
"""Writes the fuzzer's corpus of an operator's settings (see OptionsFuzz.h)."""
import pathlib

FOLDER = pathlib.Path(__file__).parent / "corpus-options"
COMMAND_LINE, ENVIRONMENT, ACCESS_FILE, PID_FILE, BIND_ADDRESS = range(5)


def arguments(*words):
    return "".join(word + "\n" for word in words).encode()


INPUTS = {
    "line-none": (COMMAND_LINE, b""),
    "line-help": (COMMAND_LINE, arguments("-md", "int", "-help")),
    "line-all": (COMMAND_LINE, arguments("-id", "me", "-log", "1023", "-md", "svr", "-logfile", "/tmp/l", "-pidfile",
                                         "/tmp/p", "-sync", "-readonly", "-noportmap", "-bind", "127.0.0.1",
                                         "-access", "/tmp/a", "-socketmode", "0700", "-socketgroup", "root")),
    "line-shutdown": (COMMAND_LINE, arguments("-shutdown", "-id", "x" * 300)),
    "line-query": (COMMAND_LINE, arguments("-query", "-md", "cli")),
    "line-test": (COMMAND_LINE, arguments("-test", "/tmp=100", "-md", "int")),
    "line-wrong-test": (COMMAND_LINE, arguments("-test", "/tmp")),
    "line-wrong-mode": (COMMAND_LINE, arguments("-md", "none")),
    "line-unknown": (COMMAND_LINE, arguments("-what", "-md", "-log", "x", "", "-id")),
    "line-long": (COMMAND_LINE, arguments("-test", "/" + "y" * 2000 + "=" + "9" * 2100)),
    "environment": (ENVIRONMENT, b"1\n0\n1\n127.0.0.1\n/etc/access\n0700\nroot\n"),
    "environment-odd": (ENVIRONMENT, b"yes\n11\n\n-1\n%s%n\n" + b"x" * 5000),
    "access": (ACCESS_FILE, b"# who may do what\n\nfuzz 10.0.0.1,10.0.0.0/24 rw\n* 192.168.0.0/16 ro,shared # all\n"
                            b"a 0.0.0.0/0 none\n*\t10.0.0.255\trw,shared\n"),
    "access-order": (ACCESS_FILE, b"* 10.0.0.0/8 ro\nfuzz 10.0.0.1 rw\na 255.255.255.255 rw\n* 0.0.0.0/0 rw"),
    "access-no-rights": (ACCESS_FILE, b"fuzz 10.0.0.1\n"),
    "access-more-words": (ACCESS_FILE, b"fuzz 10.0.0.1 rw ro\n"),
    "access-slash": (ACCESS_FILE, b"a/b 10.0.0.1 rw\n"),
    "access-no-address": (ACCESS_FILE, b"a 10.0.0.256 rw\n"),
    "access-no-network": (ACCESS_FILE, b"a 10.0.0.1/24 rw\n"),
    "access-prefix": (ACCESS_FILE, b"a 10.0.0.0/33 rw\n"),
    "access-comma": (ACCESS_FILE, b"a 10.0.0.1, rw\n"),
    "access-nul": (ACCESS_FILE, b"a 10.0.0.1 rw\0\n"),
    "access-carriage-return": (ACCESS_FILE, b"a 10.0.0.1 rw\r\n"),
    "pid": (PID_FILE, b"1\n"),
    "pid-of-nobody": (PID_FILE, b"99999999\n"),
    "pid-no-number": (PID_FILE, b"nobody\n"),
    "pid-empty": (PID_FILE, b""),
    "pid-too-large": (PID_FILE, b"99999999999999999999999\n"),
    "pid-negative": (PID_FILE, b"-1\n"),
    "pid-long": (PID_FILE, b" " * 300 + b"1\n"),
    "bind": (BIND_ADDRESS, b"127.0.0.1"),
    "bind-all": (BIND_ADDRESS, b""),
    "bind-name": (BIND_ADDRESS, b"localhost"),
    "bind-elsewhere": (BIND_ADDRESS, b"192.0.2.1"),
}


def main():
    FOLDER.mkdir(exist_ok=True)
    for name, (kind, text) in INPUTS.items():
        (FOLDER / name).write_bytes(bytes([kind]) + text)


if __name__ == "__main__":
    main()
