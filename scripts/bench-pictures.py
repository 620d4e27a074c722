#!/usr/bin/env python3
"""Draws the pictures of docs/benchmarks.md from docs/benchmarks/{results,routes}.json.

    bench-pictures.py           writes the .svg files beside the results
    bench-pictures.py --check   fails, with a word, if one is not what would be drawn
"""

import json
import math
import pathlib
import sys
from xml.sax.saxutils import escape

FOLDER = pathlib.Path(__file__).resolve().parents[1] / "docs" / "benchmarks"

# A card of its own behind each picture: readable whatever the page's colours are.
STYLE = """
  .card { fill: #ffffff; stroke: #d0d7de; }
  text { fill: #24292f; font: 13px system-ui, sans-serif; }
  .title { font-size: 15px; font-weight: 600; }
  .note, .tick { fill: #57606a; font-size: 12px; }
  .grid { stroke: #d8dee4; }
  .own { stroke: #24292f; stroke-dasharray: 4 3; }
  .line { fill: none; stroke-width: 2.5; }
  .c0 { stroke: #0969da; fill: #0969da; } .c1 { stroke: #bc4c00; fill: #bc4c00; }
  .c2 { stroke: #1a7f37; fill: #1a7f37; } .c3 { stroke: #8250df; fill: #8250df; }
  .c4 { stroke: #bf3989; fill: #bf3989; } .c5 { stroke: #6e7781; fill: #6e7781; }
  .c6 { stroke: #9a6700; fill: #9a6700; }
  text.c0, text.c1, text.c2, text.c3, text.c4, text.c5, text.c6 { stroke: none; }
  .line.c0, .line.c1, .line.c2, .line.c3, .line.c4, .line.c5, .line.c6 { fill: none; }
  @media (prefers-color-scheme: dark) {
    .card { fill: #161b22; stroke: #30363d; }
    text { fill: #e6edf3; }
    .note, .tick { fill: #9198a1; }
    .grid { stroke: #30363d; }
    .own { stroke: #e6edf3; }
    .c0 { stroke: #58a6ff; fill: #58a6ff; } .c1 { stroke: #f0883e; fill: #f0883e; }
    .c2 { stroke: #3fb950; fill: #3fb950; } .c3 { stroke: #bc8cff; fill: #bc8cff; }
    .c4 { stroke: #f778ba; fill: #f778ba; } .c5 { stroke: #9198a1; fill: #9198a1; }
    .c6 { stroke: #d29922; fill: #d29922; }
  }
"""

WIDTH = 860
UNITS = ((1e9, "s"), (1e6, "ms"), (1e3, "µs"), (1.0, "ns"))


def in_units(nanoseconds):
    factor, unit = next(each for each in UNITS if nanoseconds >= each[0] or each[0] == 1.0)
    return f"{nanoseconds / factor:.3g} {unit}"


class Picture:
    def __init__(self, height, title, note):
        self.height = height
        self.parts = []
        self.add("rect", None, x=0.5, y=0.5, width=WIDTH - 1, height=height - 1, rx=8, cls="card")
        self.text(20, 28, title, "title")
        self.text(20, 48, note, "note")

    def add(self, tag, content=None, cls=None, **attributes):
        if cls:
            attributes["class"] = cls
        written = "".join(
            f' {name.replace("_", "-")}="{value:.1f}"'
            if isinstance(value, float)
            else f' {name.replace("_", "-")}="{value}"'
            for name, value in attributes.items()
        )
        body = f">{escape(content)}</{tag}>" if content is not None else "/>"
        self.parts.append(f"  <{tag}{written}{body}")

    def text(self, x, y, content, cls="", anchor="start"):
        self.add("text", content, x=float(x), y=float(y), text_anchor=anchor, cls=cls)

    def line(self, x1, y1, x2, y2, cls):
        self.add("line", None, x1=float(x1), y1=float(y1), x2=float(x2), y2=float(y2), cls=cls)

    def svg(self):
        return (
            f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {self.height}" '
            f'width="{WIDTH}" height="{self.height}" role="img">\n<style>{STYLE}</style>\n'
            + "\n".join(self.parts)
            + "\n</svg>\n"
        )


def log_ticks(low, high):
    """Powers of ten between them."""
    first, last = math.floor(math.log10(low)), math.ceil(math.log10(high))
    return [10.0**power for power in range(first, last + 1)]


def spread(wanted, distance):
    """The places nearest to the wanted ones that are as far apart."""
    order = sorted(range(len(wanted)), key=lambda i: wanted[i])
    placed = list(wanted)
    for before, after in zip(order, order[1:]):
        placed[after] = max(placed[after], placed[before] + distance)
    return placed


def growth(title, note, unit, series):
    """Lines over sizes, both scales logarithmic. series: [(label, [(size, nanoseconds)])]."""
    picture = Picture(380, title, note)
    left, right, top, bottom = 70, WIDTH - 250, 66, 330
    sizes = sorted({size for _, points in series for size, _ in points})
    times = [time for _, points in series for _, time in points]
    ticks = log_ticks(min(times), max(times))
    low, high = math.log10(ticks[0]), math.log10(ticks[-1])
    span = math.log10(sizes[-1]) - math.log10(sizes[0])

    def x(size):
        return left + (right - left) * (math.log10(size) - math.log10(sizes[0])) / span

    def y(time):
        return bottom - (bottom - top) * (math.log10(time) - low) / (high - low)

    for tick in ticks:
        picture.line(left, y(tick), right, y(tick), "grid")
        picture.text(left - 8, y(tick) + 4, in_units(tick), "tick", "end")
    for size in sizes:
        picture.line(x(size), bottom, x(size), bottom + 5, "grid")
        picture.text(x(size), bottom + 20, f"{size:,}", "tick", "middle")
    picture.text((left + right) / 2, bottom + 40, unit, "note", "middle")

    labels = spread([y(points[-1][1]) for _, points in series], 17)
    for i, (label, points) in enumerate(series):
        path = " ".join(f"{x(size):.1f},{y(time):.1f}" for size, time in points)
        picture.add("polyline", None, points=path, cls=f"line c{i}")
        for size, time in points:
            picture.add("circle", None, cx=x(size), cy=y(time), r=3, cls=f"c{i}")
        last = f"{label}, {in_units(points[-1][1])}"
        picture.text(right + 12, labels[i] + 4, last, f"c{i}")
    return picture.svg()


PEERS = {
    "korvo_writer": ("through a writer", 0),
    "korvo_key": ("sortRows", 0),
    "korvo_at_run_time": ("layout known at run time", 0),
    "flatbuffers": ("FlatBuffers", 1),
    "capnp": ("Cap'n Proto", 2),
    "protobuf": ("Protocol Buffers", 3),
    "struct": ("struct", 4),
    "limit": ("limit", 5),
    "multi_index": ("Boost.MultiIndex", 1),
    "sqlite": ("SQLite", 2),
    "patricia": ("radix tree", 3),
}
OTHER = ("another peer", 6)


def comparison(title, rows):
    """Each contestant's time by the library's. rows: [(label, {contestant: nanoseconds})]."""
    step, top, left, right = 30, 96, 250, WIDTH - 40
    picture = Picture(
        top + step * len(rows) + 50,
        title,
        "Time by the library's, on a logarithmic scale: what is left of the line is faster than it.",
    )
    ratios = [time / times["korvo"] for _, times in rows for time in times.values()]
    low, high = math.log10(min(ratios)) - 0.08, math.log10(max(ratios)) + 0.08

    def x(ratio):
        return left + (right - left) * (math.log10(ratio) - low) / (high - low)

    bottom = top + step * len(rows)
    for ratio in (0.01, 0.02, 0.05, 0.1, 0.2, 0.5, 1, 2, 5, 10, 20, 50):
        if low <= math.log10(ratio) <= high:
            picture.line(x(ratio), top, x(ratio), bottom, "own" if ratio == 1 else "grid")
            picture.text(x(ratio), bottom + 18, f"{ratio:g}", "tick", "middle")
    shown = {}
    for i, (label, times) in enumerate(rows):
        y = top + step * (i + 0.5)
        picture.text(left - 76, y + 4, label, "", "end")
        picture.text(left - 10, y + 4, in_units(times["korvo"]), "note", "end")
        for name, time in times.items():
            if name == "korvo":
                continue
            peer, colour = PEERS.get(name, OTHER)
            own_way = name.startswith("korvo_")
            shown.setdefault("the library in another way" if own_way else peer, colour)
            radius = 4.0 if own_way else 6.0
            at = x(time / times["korvo"])
            picture.add("circle", None, cx=at, cy=y, r=radius, cls=f"c{colour}")
    at = 20
    for name, colour in sorted(shown.items(), key=lambda each: each[1]):
        radius = 6.0 if colour else 4.0
        picture.add("circle", None, cx=float(at + 6), cy=72.0, r=radius, cls=f"c{colour}")
        picture.text(at + 18, 76, name)
        at += 34 + 6.6 * len(name)
    return picture.svg()


def points(results, workload, contestant):
    """[(size, time)] of a workload that is measured with several sizes."""
    found = []
    for name, times in results.items():
        base, _, size = name.partition(" ")
        if base == workload and contestant in times:
            found.append((int(size.rpartition(":")[2]), times[contestant]))
    return sorted(found)


def draw(results):
    def lines(*wanted):
        return [(label, points(results, *key)) for label, key in wanted]

    one_row = {
        "row_build_reused": "build, memory reused",
        "row_build_sized": "build, size known",
        "row_build_grown": "build, grown",
        "row_read": "read every field",
        "row_overwrite_same": "overwrite, same length",
        "row_overwrite_longer_256": "overwrite, longer",
        "row_share": "share",
        "row_copy_on_write": "copy on write",
        "row_hash_string": "hash a string",
        "row_check": "check received bytes",
        "row_header_text": "header as text",
        "row_json": "as JSON",
    }
    million = {
        "table_sort_by_text": "sort by text",
        "table_sort_by_prefix": "sort by prefix",
        "table_random_text": "read at random",
    }
    shown = ("korvo", "multi_index", "sqlite", "patricia")
    routes = {
        "routes_most_specific_v4": "most specific, IPv4",
        "routes_most_specific_v6": "most specific, IPv6",
        "routes_exact": "exact prefix",
        "routes_by_name": "by unique name",
        "routes_ordered_thousand": "a thousand in order",
        "routes_insert": "put all in",
        "routes_remove": "take all out",
    }
    return {
        "one-row": comparison("One row", [(each, results[name]) for name, each in one_row.items()]),
        "million-rows": comparison(
            "A million rows", [(each, results[name]) for name, each in million.items()]
        ),
        "routes": comparison(
            "A table of a million routes",
            [
                (each, {who: time for who, time in results[name].items() if who in shown})
                for name, each in routes.items()
            ],
        ),
        "columns": growth(
            "Setting all columns of a row, and changing one",
            "Processor time of one row or one change; texts of 12 bytes",
            "columns",
            lines(
                ("set all", ("scale_build_reused", "korvo")),
                ("FlatBuffers", ("scale_build_reused", "flatbuffers")),
                ("by writer", ("scale_build_reused", "korvo_writer")),
                ("set all, grown", ("scale_build_grown", "korvo")),
                ("by writer, grown", ("scale_build_grown", "korvo_writer")),
                ("overwrite one", ("scale_overwrite_in_wide", "korvo")),
                ("lengthen one", ("scale_pack", "korvo")),
            ),
        ),
        "row-length": growth(
            "Changing a value of a long row",
            "Processor time of one change",
            "bytes of the row",
            lines(
                ("overwrite in place", ("scale_overwrite_in_long", "korvo")),
                ("allocate and memcpy", ("scale_copy_on_write", "memcpy")),
                ("copy on write", ("scale_copy_on_write", "korvo")),
            ),
        ),
        "array-length": growth(
            "Arrays",
            "Processor time of one array; elements of 2 bytes",
            "elements",
            lines(
                ("write the array", ("scale_write_array", "korvo")),
                ("read every element", ("scale_read_array", "korvo")),
            ),
        ),
        "tables": growth(
            "Tables as they grow",
            "Processor time for each row; reads are of random rows",
            "rows",
            lines(
                ("build", ("scale_row_build", "korvo")),
                ("sort", ("scale_row_sort", "korvo")),
                ("read a string", ("scale_row_read_random", "korvo")),
            ),
        ),
        "queues": growth(
            "Run queues as they grow",
            "Processor time of one turn; the library's reads the clock twice, the others' do not",
            "units",
            lines(
                ("library", ("scale_dispatch", "korvo")),
                ("Asio", ("scale_dispatch", "asio_without_clock_reads")),
                ("libevent", ("scale_dispatch", "libevent_without_clock_reads")),
                ("libuv", ("scale_dispatch", "libuv_without_clock_reads")),
            ),
        ),
    }


def main():
    results = {}
    for name in ("results.json", "routes.json"):
        results |= json.loads((FOLDER / name).read_text(encoding="utf-8"))["nanoseconds"]
    faults = 0
    for name, picture in draw(results).items():
        path = FOLDER / f"{name}.svg"
        if sys.argv[1:] != ["--check"]:
            path.write_text(picture, encoding="utf-8")
        elif not path.is_file() or path.read_text(encoding="utf-8") != picture:
            print(f"{path.name} is not what is drawn from the results")
            faults += 1
    sys.exit(1 if faults else 0)


if __name__ == "__main__":
    main()
