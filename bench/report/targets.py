"""Judges a run by the targets of a CSV file."""

import fnmatch
import os

from . import figures

FOLDER = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


class Targets:
    """The bounds of targets.csv."""

    def __init__(self):
        self.lines = figures.read(FOLDER, "targets.csv")

    def bound(self, shape, row, measure):
        """("least" or "most", value) for a figure, or None."""
        for line in self.lines:
            if (line["shape"], line["measure"]) == (shape, measure) and fnmatch.fnmatchcase(row, line["row"]):
                return None if line["bound"] == "none" else (line["bound"], float(line["value"]))
        return None

    def judge(self, shape, row, measure, value):
        """None where nothing is asked or measured; otherwise whether the value keeps to the bound, and a text."""
        bound = self.bound(shape, row, measure)
        if bound is None or value is None:
            return None
        kind, limit = bound
        met = value >= limit if kind == "least" else value <= limit
        return met, f"{shape} {row}: {measure} is {value:.2f}, at {kind} {limit:g} is wanted"


def judge_run(run):
    """(met, text) of every target that has a figure in the run."""
    targets = Targets()
    found = []
    for shape in run.shapes():
        for row in run.names_of_rows(shape):
            for measure in ("of_bare", "of_rival"):
                found.append(targets.judge(shape, row, measure, run.value(shape, row, figures.OURS, measure)))
            found.append(targets.judge(shape, row, "p99_of_rival", run.p99_of_rival(shape, row)))
    for line in run.listings:
        if line["server"] == figures.OURS:
            found.append(targets.judge("listing", line["entries"], "entries_per_s", float(line["entries_per_s"])))
    for figure, unit in run.growth_figures().items():
        found.append(targets.judge("growth", figure, unit, run.growth_of(figure)[-1][1]))
    return [each for each in found if each is not None]
