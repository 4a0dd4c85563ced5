#!/usr/bin/env python3
"""Writes the fuzzer's corpus of an operator's settings (see OptionsFuzz.h)."""
import pathlib

FOLDER = pathlib.Path(__file__).parent / "corpus-options"
COMMAND_LINE, ENVIRONMENT, ACCESS_FILE, PID_FILE, BIND_ADDRESS, MAP_LINE, GET_LINE = range(7)


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
    "map-all": (MAP_LINE, arguments("--at", "0x1fK", "--at", "7", "--svg", "p.svg", "--summary", "--check", "--size", "1T",
                                    "--info", "--dump", "--segment-size", "64", "--checkpoint-size", "2K", "disk.map")),
    "map-octal": (MAP_LINE, arguments("--at", "010", "disk.map")),
    "map-blank": (MAP_LINE, arguments("--at", " 5", "disk.map")),
    "map-sign": (MAP_LINE, arguments("--size", "+5", "disk.map")),
    "map-largest": (MAP_LINE, arguments("--at", "9223372036854775807", "--at", "8388607T", "disk.map")),
    "map-too-large": (MAP_LINE, arguments("--at", "8388608T", "disk.map")),
    "map-nothing-to-search": (MAP_LINE, arguments("--segment-size", "0", "disk.map")),
    "map-picture-without-name": (MAP_LINE, arguments("--svg", "", "disk.map")),
    "map-file-without-name": (MAP_LINE, arguments("", "disk.map")),
    "map-two-files": (MAP_LINE, arguments("disk.map", "other.map")),
    "map-unknown": (MAP_LINE, arguments("disk.map", "--help", "--at")),
    "get-nothing": (GET_LINE, b""),
    "get-help": (GET_LINE, arguments("list", "-h", "--version")),
    "get-version": (GET_LINE, arguments("--version", "--resume")),
    "get-list": (GET_LINE, arguments("-p", "2049", "list", "-m", "65535", "host:export/folder")),
    "get-stat": (GET_LINE, arguments("stat", "host:export")),
    "get-get": (GET_LINE, arguments("get", "--resume", "host:export/folder/file", "--", "local")),
    "get-get-as-there": (GET_LINE, arguments("get", "host:export/folder/file")),
    "get-get-hyphen": (GET_LINE, arguments("get", "host:export/-", "--resume")),
    "get-get-to-output": (GET_LINE, arguments("get", "--resume", "host:export/file", "-")),
    "get-get-folder": (GET_LINE, arguments("get", "host:export/folder/")),
    "get-get-above": (GET_LINE, arguments("get", "host:export/folder/..")),
    "get-put": (GET_LINE, arguments("put", "--", "-local", "host:export/a:b//c")),
    "get-put-without-name": (GET_LINE, arguments("put", "", "host:export/file")),
    "get-write": (GET_LINE, arguments("write", "-", "host:export/file", "9223372036854775807")),
    "get-write-too-far": (GET_LINE, arguments("write", "-", "host:export/file", "9223372036854775808")),
    "get-write-blank": (GET_LINE, arguments("write", "-", "host:export/file", " 1")),
    "get-mkdir": (GET_LINE, arguments("mkdir", "host:export/folder")),
    "get-remove": (GET_LINE, arguments("remove", "host:export/file")),
    "get-release": (GET_LINE, arguments("release", "host:export")),
    "get-release-resumed": (GET_LINE, arguments("release", "--resume", "host:export")),
    "get-port": (GET_LINE, arguments("-p", "65536", "list", "host:export")),
    "get-port-sign": (GET_LINE, arguments("-m", "+1", "list", "host:export")),
    "get-no-export": (GET_LINE, arguments("list", "host:/folder")),
    "get-no-host": (GET_LINE, arguments("list", ":export")),
}


def main():
    FOLDER.mkdir(exist_ok=True)
    for name, (kind, text) in INPUTS.items():
        (FOLDER / name).write_bytes(bytes([kind]) + text)


if __name__ == "__main__":
    main()
