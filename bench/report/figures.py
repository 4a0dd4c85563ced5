"""The figures of one run, as read from its folder."""

import csv
import os

SHAPES = {
    "one": "one: 1 call in flight, one processor",
    "deep": "deep: 16 calls in flight, one processor",
    "wide": "wide: 8 connections with 4 calls, one processor",
    "both": "both: 8 connections with 4 calls, two processors",
}
OURS = "nfslib"
BARE = "bare"
RIVAL = "ganesha"
NAMES = {OURS: "NfsLib", BARE: "bare server", RIVAL: "NFS-Ganesha"}


def read(folder, name):
    """The lines of a CSV file as dictionaries; none if there is no such file. Comments are passed over."""
    path = os.path.join(folder, name)
    if not os.path.exists(path):
        return []
    with open(path, newline="", encoding="utf-8") as file:
        return list(csv.DictReader(line for line in file if not line.startswith("#")))


def number(text):
    """A field as a number, or None if it is empty."""
    return float(text) if text else None


class Run:
    """Machine, rows, listings and growth of one run."""

    def __init__(self, folder):
        self.machine = {line["what"]: line["value"] for line in read(folder, "machine.csv")}
        self.rows = read(folder, "rows.csv")
        self.listings = read(folder, "listings.csv")
        self.growth = read(folder, "growth.csv")
        self.profile = read(folder, "profile.csv")
        self.options = read(folder, "options.csv")

    def shapes(self):
        """The shapes that were run, in the order of SHAPES."""
        return [shape for shape in SHAPES if any(line["shape"] == shape for line in self.rows)]

    def names_of_rows(self, shape):
        """The rows of a shape, in the order in which they were run."""
        return list(dict.fromkeys(line["row"] for line in self.rows if line["shape"] == shape))

    def line(self, shape, row, server):
        """One line of rows.csv, or None."""
        for line in self.rows:
            if (line["shape"], line["row"], line["server"]) == (shape, row, server):
                return line
        return None

    def value(self, shape, row, server, column):
        """A figure of rows.csv, or None."""
        line = self.line(shape, row, server)
        return number(line[column]) if line else None

    def p99_of_rival(self, shape, row):
        """Our 99th percentile as a multiple of the rival's, or None."""
        ours = self.value(shape, row, OURS, "p99_us")
        rival = self.value(shape, row, RIVAL, "p99_us")
        return ours / rival if ours and rival else None

    def growth_of(self, figure):
        """(size, value) of a figure, by size."""
        points = [(float(line["size"]), float(line["value"])) for line in self.growth if line["figure"] == figure]
        return sorted(points)

    def growth_figures(self):
        """Names and units of what grows."""
        return dict((line["figure"], line["unit"]) for line in self.growth)
