"""The pictures of a run."""

import os

from . import figures, svg
from .targets import Targets

WIDTH = 1000
LABELS = 134       # room for the names of rows
LINE = 26          # height of a row
HEAD = 76          # title and legend
FOOT = 44          # axis and its label


def legend(picture, servers, further=()):
    x = 20.0
    for server in servers:
        picture.mark(x + 5, 50, server)
        picture.text(x + 18, 54.5, figures.NAMES[server])
        x += 40 + 8 * len(figures.NAMES[server])
    for text in further:
        picture.text(x, 54.5, text, style="soft")
        x += 20 + 7 * len(text)


class Grid:
    """Panels with one line for each row of calls, two beside one another, over the same axis."""

    def __init__(self, run, title, unit, low, high, logarithmic):
        self.shapes = run.shapes()
        lines = max(len(run.names_of_rows(shape)) for shape in self.shapes)
        self.panel_height = lines * LINE + FOOT + 34
        height = HEAD + self.panel_height * ((len(self.shapes) + 1) // 2)
        self.run, self.unit = run, unit
        self.low, self.high, self.logarithmic = low, high, logarithmic
        self.picture = svg.Picture(WIDTH, height, title)
        self.picture.text(20, 28, title, style="title")

    def panels(self):
        """Draws the frame of each panel and yields shape, axis and the rows with their places."""
        for i, shape in enumerate(self.shapes):
            left = (i % 2) * (WIDTH / 2) + LABELS
            top = HEAD + (i // 2) * self.panel_height + 26
            axis = svg.Axis(self.low, self.high, left, left + WIDTH / 2 - LABELS - 26, self.logarithmic)
            rows = [(row, top + LINE * (k + 0.7)) for k, row in enumerate(self.run.names_of_rows(shape))]
            self.frame(shape, axis, rows, top)
            yield shape, axis, rows

    def frame(self, shape, axis, rows, top):
        picture, bottom = self.picture, top + LINE * len(rows) + 6
        picture.text(axis.start - LABELS + 20, top - 8, figures.SHAPES[shape], style="head")
        for tick in axis.ticks():
            picture.line(axis.at(tick), top, axis.at(tick), bottom, "grid")
            picture.text(axis.at(tick), bottom + 16, svg.short(tick), "middle", "small")
        picture.line(axis.start, bottom, axis.end, bottom, "axis")
        picture.text((axis.start + axis.end) / 2, bottom + 33, self.unit, "middle", "soft small")
        for row, y in rows:
            picture.text(axis.start - 10, y + 4.5, row, "end", "small")


def all_values(run, columns, servers):
    found = [figures.number(line[column]) for line in run.rows if line["server"] in servers for column in columns]
    return [value for value in found if value]


def servers_of(run):
    present = {line["server"] for line in run.rows}
    return [server for server in (figures.OURS, figures.BARE, figures.RIVAL) if server in present]


def throughput(run):
    servers = servers_of(run)
    low, high = svg.bounds(all_values(run, ["ops_per_s"], servers), True)
    grid = Grid(run, "Throughput by row", "operations per second (logarithmic; more is better)", low, high, True)
    legend(grid.picture, servers, ("median round",))
    for shape, axis, rows in grid.panels():
        for row, y in rows:
            places = [(server, run.value(shape, row, server, "ops_per_s")) for server in reversed(servers)]
            places = [(server, axis.at(value)) for server, value in places if value]
            ends = [x for _, x in places]
            grid.picture.line(min(ends), y, max(ends), y, "grid", 2)
            for server, x in places:
                grid.picture.mark(x, y, server)
    return grid.picture


def shares(run):
    servers = [server for server in servers_of(run) if server != figures.BARE]
    targets = Targets()
    high = max(1.05, min(1.6, max(all_values(run, ["of_bare"], servers)) * 1.05))
    grid = Grid(run, "Speed as a share of the bare server's", "share of the bare server (more is better)", 0, high, False)
    legend(grid.picture, servers, ("bar: the inner half of the rounds", "upright line: target"))
    for shape, axis, rows in grid.panels():
        for row, y in rows:
            bound = targets.bound(shape, row, "of_bare")
            if bound:
                grid.picture.line(axis.at(bound[1]), y - 9, axis.at(bound[1]), y + 9, "target", 1.5)
            for server in reversed(servers):
                lower, middle, upper = (run.value(shape, row, server, column)
                                        for column in ("of_bare_q1", "of_bare", "of_bare_q3"))
                if middle is not None:
                    grid.picture.line(axis.at(min(lower, high)), y, axis.at(min(upper, high)), y, server, 2.5)
                    grid.picture.mark(axis.at(min(middle, high)), y, server)
    return grid.picture


def latency(run):
    servers = servers_of(run)
    columns = ["p50_us", "p90_us", "p99_us"]
    low, high = svg.bounds(all_values(run, columns, servers), True)
    grid = Grid(run, "Latency by row", "microseconds (logarithmic; less is better)", low, high, True)
    legend(grid.picture, servers, ("filled: half of the operations, hollow: 90 %, end of the line: 99 %",))
    for shape, axis, rows in grid.panels():
        for row, y in rows:
            for k, server in enumerate(servers):
                values = [run.value(shape, row, server, column) for column in columns]
                if None in values:
                    continue
                p50, p90, p99 = (axis.at(value) for value in values)
                here = y + 7 * (k - (len(servers) - 1) / 2)
                grid.picture.line(p50, here, p99, here, server, 1.6)
                grid.picture.line(p99, here - 3, p99, here + 3, server, 1.6)
                small_mark(grid.picture, p90, here, server + " open")
                small_mark(grid.picture, p50, here, server)
    return grid.picture


def small_mark(picture, x, y, style):
    picture.parts.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="2.8" class="{style}" stroke-width="1.3"/>')


# What grows: title, what the sizes are, unit, and the figures with their names in the picture.
GROWTH = (
    ("Calls by the number of known paths", "known paths", "microseconds",
     (("getattr_known_paths", "GETATTR"), ("lookup_known_paths", "LOOKUP"))),
    ("A directory renamed", "known paths below it", "milliseconds",
     (("rename_folder_known_paths_below", "to a new name"), ("rename_folder_onto_known_paths", "to a name known before"))),
    ("Memory of a known path of 40 characters", "paths known", "bytes",
     (("memory_10_in_a_folder", "10 in a directory"), ("memory_1000_in_a_folder", "1,000"),
      ("memory_1000000_in_a_folder", "1,000,000"))),
    ("A file renamed after many saves", "files renamed over it before", "milliseconds",
     (("rename_file_after_saves", "RENAME"),)),
    ("A directory listed by READDIRPLUS", "entries", "entries per second",
     (("readdirplus_entries", "one call after the other"),)),
    ("READ of a redirected file, beside a plain one", "size of the file in GiB", "ratio of the times",
     (("redirected_memory_4096", "map in memory, 4 KiB"), ("redirected_info_4096", "info file, 4 KiB"),
      ("redirected_memory_65536", "map in memory, 64 KiB"), ("redirected_info_65536", "info file, 64 KiB"))),
)
STROKES = ("nfslib", "ganesha", "bare", "nfslib")
DASHES = ("", "", "6 4", "2 4")


def growth(run):
    panels = []
    for title, x_label, unit, lines in GROWTH:
        lines = [(name, run.growth_of(figure)) for figure, name in lines]
        lines = [(name, points) for name, points in lines if points]
        if any(len(points) > 1 for _, points in lines):
            panels.append((title, x_label, unit, lines))
    if not panels:
        return None
    panel_height = 290
    picture = svg.Picture(WIDTH, 50 + panel_height * ((len(panels) + 1) // 2), "Growth")
    picture.text(20, 28, "What grows, and how much", style="title")
    for i, panel in enumerate(panels):
        growth_panel(picture, (i % 2) * WIDTH / 2, 50 + (i // 2) * panel_height, panel)
    return picture


def growth_panel(picture, left, top, panel):
    title, x_label, unit, lines = panel
    points = [point for _, line in lines for point in line]
    x_axis = svg.Axis(*svg.bounds([x for x, _ in points], True), left + 70, left + WIDTH / 2 - 26, True)
    y_axis = svg.Axis(*svg.bounds([y for _, y in points], False), top + 226, top + 70)
    picture.text(left + 20, top + 14, title, style="head")
    for tick in x_axis.ticks():
        picture.line(x_axis.at(tick), y_axis.start, x_axis.at(tick), y_axis.end, "grid")
        picture.text(x_axis.at(tick), y_axis.start + 16, svg.short(tick), "middle", "small")
    for tick in y_axis.ticks():
        picture.line(x_axis.start, y_axis.at(tick), x_axis.end, y_axis.at(tick), "grid")
        picture.text(x_axis.start - 8, y_axis.at(tick) + 4.5, svg.short(tick), "end", "small")
    picture.text((x_axis.start + x_axis.end) / 2, y_axis.start + 34, x_label, "middle", "soft small")
    picture.text(left + 26, (y_axis.start + y_axis.end) / 2, unit, "middle", "soft small", -90)
    for k, ((name, line), style, dash) in enumerate(zip(lines, STROKES, DASHES)):
        x, y = left + 70 + (k % 2) * 190, top + 34 + (k // 2) * 20
        places = [(x_axis.at(a), y_axis.at(b)) for a, b in line]
        picture.path(places, style)
        picture.parts[-1] = picture.parts[-1].replace("/>", f' stroke-dasharray="{dash}"/>' if dash else "/>")
        for place in places:
            small_mark(picture, *place, style)
        picture.path([(x, y), (x + 22, y)], style)
        picture.parts[-1] = picture.parts[-1].replace("/>", f' stroke-dasharray="{dash}"/>' if dash else "/>")
        picture.text(x + 28, y + 4, name, style="small")


def write_all(run, folder):
    """Writes every picture that the run has figures for."""
    pictures = {}
    if run.rows:
        pictures = {"throughput.svg": throughput(run), "latency.svg": latency(run)}
        if any(line["of_bare"] for line in run.rows):
            pictures["shares.svg"] = shares(run)
    pictures["growth.svg"] = growth(run)
    for name, picture in pictures.items():
        if picture is not None:
            picture.save(os.path.join(folder, name))
