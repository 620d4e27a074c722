#!/usr/bin/env python3
"""Prints the medians of benchmark results (JSON of Google Benchmark) as a Markdown table or JSON.

    bench-table.py [--json] FILE...

Benchmarks are named WORKLOAD/CONTESTANT[/ARGUMENTS]. The contestant "korvo" is this library,
"korvo_..." are other ways that it offers, "limit" is straight-line code for the one purpose, all
others are peers. The ratio is the library's time by the best peer's: below 1 the library is faster.
"""

import json
import sys

NANOSECONDS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def medians(paths):
    """{workload: {contestant: nanoseconds}}, in the order of the files."""
    table = {}
    for path in paths:
        with open(path, encoding="utf-8") as file:
            for run in json.load(file)["benchmarks"]:
                if run.get("aggregate_name") != "median":
                    continue
                parts = run["run_name"].split("/")
                clock = "cpu_time"  # a busy machine takes turns, but counts them apart
                if parts[-1] in ("manual_time", "real_time"):
                    clock = "real_time"
                    parts.pop()
                if len(parts) < 2:
                    sys.exit(f"{path}: {run['run_name']} is not named WORKLOAD/CONTESTANT")
                workload = " ".join([parts[0], *parts[2:]])
                time = run[clock] * NANOSECONDS[run["time_unit"]]
                table.setdefault(workload, {})[parts[1]] = time
    return table


def in_units(nanoseconds):
    for unit, factor in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if nanoseconds >= factor:
            return f"{nanoseconds / factor:.3g} {unit}"
    return f"{nanoseconds:.3g} ns"


def print_json(paths):
    """One workload a line, so that a change of one is a change of a line."""
    with open(paths[0], encoding="utf-8") as file:
        date = json.load(file)["context"]["date"][:10]
    rounded = {
        workload: {contestant: float(f"{time:.4g}") for contestant, time in times.items()}
        for workload, times in medians(paths).items()
    }
    lines = ",\n".join(
        f"  {json.dumps(workload)}: {json.dumps(times)}" for workload, times in rounded.items()
    )
    print(f'{{"date": "{date}", "nanoseconds": {{\n{lines}\n}}}}')


def main():
    if sys.argv[1:2] == ["--json"]:
        print_json(sys.argv[2:])
        return
    print("| workload | korvo | best peer | ratio | limit | others |")
    print("|---|---|---|---|---|---|")
    for workload, times in medians(sys.argv[1:]).items():
        own = times.pop("korvo", None)
        limit = times.pop("limit", None)
        variants = {name: times.pop(name) for name in list(times) if name.startswith("korvo_")}
        peers = sorted(times.items(), key=lambda item: item[1])
        best = f"{in_units(peers[0][1])} {peers[0][0]}" if peers else ""
        ratio = f"{own / peers[0][1]:.2f}" if own and peers else ""
        others = ", ".join(
            f"{in_units(time)} {name}" for name, time in [*peers[1:], *variants.items()]
        )
        print(
            f"| {workload} | {in_units(own) if own else ''} | {best} | {ratio} "
            f"| {in_units(limit) if limit else ''} | {others} |"
        )


if __name__ == "__main__":
    main()
