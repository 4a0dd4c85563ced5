"""SVG that is legible on light and on dark pages: colours by class, chosen by the reader's colour scheme."""

import math
from xml.sax.saxutils import escape

LIGHT = {"page": "#ffffff", "ink": "#1f2328", "soft": "#59636e", "grid": "#d8dee4", "nfslib": "#0a5cad",
         "bare": "#6e7781", "ganesha": "#b34700"}
DARK = {"page": "#0d1117", "ink": "#f0f6fc", "soft": "#9da7b3", "grid": "#30363d", "nfslib": "#6cb6ff",
        "bare": "#9da7b3", "ganesha": "#ffa657"}


def _colours(scheme):
    rules = [f".page{{fill:{scheme['page']}}}", f".grid{{stroke:{scheme['grid']}}}", f"text{{fill:{scheme['ink']}}}",
             f".soft{{fill:{scheme['soft']}}}", f".axis{{stroke:{scheme['soft']}}}", f".target{{stroke:{scheme['ink']}}}"]
    for name in ("nfslib", "bare", "ganesha"):
        rules.append(f".{name}{{stroke:{scheme[name]};fill:{scheme[name]}}}")
        rules.append(f".{name}.line{{fill:none}}")
        rules.append(f".{name}.open{{fill:{scheme['page']}}}")
    return "".join(rules)


STYLE = ("text{font:13px system-ui,'DejaVu Sans',sans-serif;stroke:none}.title{font-size:17px;font-weight:600}"
         ".head{font-size:14px;font-weight:600}.small{font-size:12px}"
         + _colours(LIGHT) + "@media(prefers-color-scheme:dark){" + _colours(DARK) + "}")


class Picture:
    """Shapes and texts on a page."""

    def __init__(self, width, height, title):
        self.width, self.height = width, height
        self.title = title
        self.parts = []

    def text(self, x, y, text, anchor="start", style="", turn=None):
        turned = f' transform="rotate({turn} {x:.1f} {y:.1f})"' if turn is not None else ""
        self.parts.append(f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" class="{style}"{turned}>{escape(text)}</text>')

    def line(self, x1, y1, x2, y2, style, width=1.0):
        self.parts.append(f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" class="{style}" '
                          f'stroke-width="{width}"/>')

    def path(self, points, style):
        text = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
        self.parts.append(f'<polyline points="{text}" class="{style} line" stroke-width="1.8"/>')

    def mark(self, x, y, server, is_open=False):
        """A server's own mark, which tells it apart without colours: circle, bar or square."""
        style = f"{server} open" if is_open else server
        if server == "bare":
            self.line(x, y - 6, x, y + 6, style, 3)
        elif server == "ganesha":
            self.parts.append(f'<rect x="{x - 4.5:.1f}" y="{y - 4.5:.1f}" width="9" height="9" class="{style}" stroke-width="1.5"/>')
        else:
            self.parts.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="5" class="{style}" stroke-width="1.5"/>')

    def save(self, path):
        with open(path, "w", encoding="utf-8") as file:
            file.write(f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {self.width} {self.height}" '
                       f'width="{self.width}" height="{self.height}" role="img">\n<title>{escape(self.title)}</title>\n'
                       f'<style>{STYLE}</style>\n<rect class="page" width="{self.width}" height="{self.height}"/>\n')
            file.write("\n".join(self.parts))
            file.write("\n</svg>\n")


class Axis:
    """From figures to places; logarithmic if it is said so."""

    def __init__(self, low, high, start, end, logarithmic=False):
        self.logarithmic = logarithmic
        self.low, self.high, self.start, self.end = low, high, start, end

    def at(self, value):
        if self.logarithmic:
            part = math.log(value / self.low) / math.log(self.high / self.low)
        else:
            part = (value - self.low) / (self.high - self.low)
        return self.start + part * (self.end - self.start)

    def ticks(self):
        """Round figures between the ends; between decades 2 and 5 too where there are few."""
        if self.logarithmic:
            decades = math.log10(self.high / self.low)
            steps = (1, 2, 5) if decades <= 2.3 else (1,)
            powers = range(math.floor(math.log10(self.low)), math.ceil(math.log10(self.high)) + 1)
            found = [step * 10.0 ** power for power in powers for step in steps]
            return [tick for tick in found if self.low * 0.999 <= tick <= self.high * 1.001]
        raw = (self.high - self.low) / 5
        power = 10 ** math.floor(math.log10(raw))
        step = next(each * power for each in (1, 2, 2.5, 5, 10) if each * power >= raw * 0.999)
        return [step * i for i in range(math.ceil(self.low / step - 1e-9), math.floor(self.high / step + 1e-9) + 1)]


def short(value):
    """A figure for an axis: 1 k instead of 1000."""
    for limit, letter in ((1e6, "M"), (1e3, "k")):
        if abs(value) >= limit:
            return f"{value / limit:g}{letter}"
    return f"{value:g}"


def bounds(values, logarithmic):
    """Ends for an axis on which all the values have their place."""
    low, high = min(values), max(values)
    if logarithmic:
        return low / 1.25, high * 1.25
    return 0.0, high * 1.08 if high > 0 else 1.0
