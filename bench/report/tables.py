"""The tables of a run, in Markdown."""

import re

from . import figures, targets
from .figures import BARE, OURS, RIVAL

MACHINE = (("date", "Date"), ("commit", "Commit"), ("processor", "Processor"), ("processors", "Processors"),
           ("governor", "Frequency governor"), ("memory", "Memory"), ("kernel", "Kernel"), ("folder", "File system"),
           ("ganesha", "NFS-Ganesha"), ("rounds", "Rounds"), ("load", "Load of the machine"))


def table(heads, lines):
    """The first column is text, the others are figures."""
    rule = "|---|" + "---:|" * (len(heads) - 1)
    return "\n".join(["| " + " | ".join(heads) + " |", rule] + ["| " + " | ".join(line) + " |" for line in lines])


def count(value):
    return "" if value is None else f"{value:,.0f}"


def precise(value):
    """Microseconds and the like: what is small with a digit more."""
    if value is None:
        return ""
    return f"{value:,.0f}" if value >= 100 else f"{value:.1f}"


def share(run, shape, row, server, column):
    """A share with the inner half of its rounds."""
    middle = run.value(shape, row, server, column)
    if middle is None:
        return ""
    digits = 2 if middle < 10 else 1
    lower, upper = (run.value(shape, row, server, column + end) for end in ("_q1", "_q3"))
    return f"{middle:.{digits}f} ({lower:.{digits}f} to {upper:.{digits}f})"


def machine(run):
    lines = [[name, run.machine[key]] for key, name in MACHINE if run.machine.get(key)]
    return "| | |\n|---|---|\n" + "\n".join("| " + " | ".join(line) + " |" for line in lines)


def rows(run, shape):
    heads = ["Row", "NfsLib", "best round", "bare server", "NFS-Ganesha", "NfsLib of bare", "Ganesha of bare",
             "NfsLib of Ganesha"]
    lines = []
    for row in run.names_of_rows(shape):
        lines.append([row, count(run.value(shape, row, OURS, "ops_per_s")),
                      count(run.value(shape, row, OURS, "ops_per_s_best")),
                      count(run.value(shape, row, BARE, "ops_per_s")),
                      count(run.value(shape, row, RIVAL, "ops_per_s")),
                      share(run, shape, row, OURS, "of_bare"), share(run, shape, row, RIVAL, "of_bare"),
                      share(run, shape, row, OURS, "of_rival")])
    return table(heads, lines)


def latency(run, shape):
    """Percentiles in microseconds: NfsLib, the bare server, NFS-Ganesha."""
    heads = ["Row"]
    for server in (OURS, BARE, RIVAL):
        heads += [figures.NAMES[server] + " p50", "p90", "p99"]
    lines = []
    for row in run.names_of_rows(shape):
        line = [row]
        for server in (OURS, BARE, RIVAL):
            line += [precise(run.value(shape, row, server, column)) for column in ("p50_us", "p90_us", "p99_us")]
        lines.append(line)
    return table(heads, lines)


def listings(run):
    return table(["Entries in the directory", "Server", "entries a second", "best round"],
                 [[f"{int(line['entries']):,}", figures.NAMES[line["server"]], count(float(line["entries_per_s"])),
                   count(float(line["entries_per_s_best"]))] for line in run.listings])


def growth(run):
    lines = []
    for figure, unit in run.growth_figures().items():
        values = "; ".join(f"{value:.3g} at {size:,.0f}" for size, value in run.growth_of(figure))
        lines.append([figure.replace("_", " "), unit, values])
    return table(["Figure", "Unit", "Value at size"], lines)


def options(run):
    """What options and log bits cost: rows against options, operations a second and the share of the bare server."""
    rows_run = list(dict.fromkeys(line["row"] for line in run.options))
    lines = []
    for option in dict.fromkeys(line["option"] for line in run.options):
        cells = {line["row"]: f"{count(float(line['ops_per_s']))} ({float(line['of_bare']):.2f})"
                 for line in run.options if line["option"] == option}
        lines.append([option] + [cells.get(row, "") for row in rows_run])
    return table(["Setting"] + rows_run, lines)


def profile(run, shape):
    """Where the server's processor time goes, in percent; calls one by one also by their system calls."""
    heads = ["Row", "own code", "send", "receive", "look at paths", "file data", "change of threads", "rest of the kernel"]
    lines = []
    for line in run.profile:
        if line["shape"] == shape:
            parts = [float(line[use]) for use in ("own", "send", "receive", "names", "data", "switch")]
            rest = float(line["kernel"]) + float(line["locks"])
            lines.append([line["row"]] + [f"{part * 100:.0f}" for part in parts + [rest]])
    return table(heads, lines)


def calls(run):
    """The system calls of one operation."""
    lines = [[line["row"], ", ".join(f"`{call}`" for call in line["calls"].split())]
             for line in run.profile if line["calls"]]
    return "| Row | System calls from one receive to the next |\n|---|---|\n" + "\n".join(
        "| " + " | ".join(line) + " |" for line in lines)


def missed(run):
    """Every target that was not met."""
    judged = targets.judge_run(run)
    texts = [text for met, text in judged if not met]
    head = f"{len(judged) - len(texts)} of {len(judged)} targets are met."
    return head if not texts else head + " Missed:\n\n" + "\n".join("- " + text for text in texts)


def named(run):
    """All tables by the names under which a document asks for them."""
    found = {"machine": machine(run), "listings": listings(run), "growth": growth(run), "targets": missed(run)}
    for shape in run.shapes():
        found["rows-" + shape] = rows(run, shape)
        found["latency-" + shape] = latency(run, shape)
    if run.options:
        found["options"] = options(run)
    if run.profile:
        found["calls"] = calls(run)
        for shape in dict.fromkeys(line["shape"] for line in run.profile):
            found["profile-" + shape] = profile(run, shape)
    return found


def all_of(run):
    return "\n\n".join(f"{name}\n\n{text}" for name, text in named(run).items())


def renew(run, path):
    """Replaces what stands in a document between <!-- bench:NAME --> and <!-- /bench -->."""
    with open(path, encoding="utf-8") as file:
        text = file.read()
    for name, new in named(run).items():
        pattern = re.compile(rf"(<!-- bench:{re.escape(name)} -->\n).*?(<!-- /bench -->)", re.DOTALL)
        text = pattern.sub(lambda found, new=new: f"{found[1]}\n{new}\n\n{found[2]}", text)
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)
