#!/usr/bin/env python3
"""One table of what the benchmarks measured, and plots of it: report.py [--write FOLDER] RESULTS

RESULTS is a folder of the files that --benchmark_out has written, and of "budgets": what the tests of memory and size
have printed. With --write the table goes to FOLDER/table.md and the plots beside it. Exit status 1 when a goal is missed or a figure is.
"""

import argparse
import json
import pathlib
import re
import sys

# Benchmark -> what it measures, and the most that the ratio to the floor may be.
RATIOS = {
    "RefusedMethod": ("refused method", 1.2),
    "RefusedByTheLimit": ("creation refused by the limit", 1.2),
    "Creation": ("typical creation", 1.25),
    "Deletion": ("deletion", 1.25),
    "PatchOfOneProperty": ("PATCH of one property", 1.25),
    "Change/1": ("change of the file, 1 member", 1.05),
    "Change/20": ("change of the file, 20 members", 1.05),
    "Change/100": ("change of the file, 100 members", 1.05),
    "Change/200": ("change of the file, 200 members", 1.05),
    "WriteDocument/100": ("store: write, per object of 100", 1.5),
    "WriteDocument/1000": ("store: write, per object of 1,000", 1.5),
    "WriteDocument/10000": ("store: write, per object of 10,000", 1.5),
    "ReadDocument/100": ("store: read, per object of 100", 1.9),
    "ReadDocument/1000": ("store: read, per object of 1,000", 1.9),
    "ReadDocument/10000": ("store: read, per object of 10,000", 1.9),
    "Discovery": ("discovery", 1.15),
    "WholeStart": ("whole start", 1.1),
    "EventTo100": ("event to 100 subscribers", 3),
    "FindTenAmong200": ("event to 10 among 200 subscribers", 1.15),
    "GetOfMember": ("gateway: GET of a subscription", 1.3),
}
# The same, and the most microseconds that ours may be above the floor.
ADDITIONS = {"PostOfTestEvent": ("gateway: POST of a test event", 300)}
# What a benchmark counts besides: the most of each.
MOST = {
    "RefusedMethod": {"trips": 2, "commands": 16},
    "RefusedByTheLimit": {"trips": 2, "commands": 16},
    "Creation": {"trips": 9, "commands": 80},
    "Deletion": {"trips": 7},
    "PatchOfOneProperty": {"trips": 5},
    "Discovery": {"to_keys_alone": 1.9, "us_per_message": 0.35},
}
BESIDES = ("trips", "commands", "echo_us", "to_keys_alone", "us_per_message", "read_us", "http_us")
MISSED = " **missed**"
# What a test prints of the daemon as it ships -> what it is, and the most that it may be.
BUDGETS = {
    r"VmRSS (\d+) KiB": ("resident memory, idle (KiB)", 5376),
    r"RssAnon (\d+) KiB": ("of it anonymous (KiB)", 1280),
    r"VmSize (\d+) KiB": ("address space (KiB)", 10240),
    r"RssAnon (\d+) -> (\d+) KiB": ("growth of the anonymous memory by many requests (KiB)", 64),
    r"(\d+) bytes stripped": ("size, stripped (bytes)", 524288),
}
LOADS = {"Echoes": "echo", "Refusals": "refused method", "Patches": "PATCH of the headers"}
FRONT_ENDS = (1, 8, 64)


def read(folder):
    """Benchmark name, without how it was timed -> its counters."""
    found = {}
    for path in sorted(folder.glob("*.json")):
        try:
            runs = json.loads(path.read_text(encoding="utf-8"))["benchmarks"]
        except ValueError:
            continue  # its program broke off while it wrote
        for run in runs:
            name = run["name"].removesuffix("/manual_time").split("/iterations")[0]
            found[name] = run
    return found


def ratio_rows(found):
    for name, (title, goal) in RATIOS.items():
        if name not in found:
            continue
        run = found[name]
        most = MOST.get(name, {})
        besides = [f"{key} {run[key]:.4g}" + (MISSED if run[key] > most.get(key, run[key]) else "")
                   for key in BESIDES if key in run]
        yield title, run["floor_us"], run["ours_us"], run["ratio"], goal, ", ".join(besides)


def budget_rows(printed):
    """A row for each budget, and what is missed or missing."""
    rows, missed = [], []
    for pattern, (title, most) in BUDGETS.items():
        match = re.search(pattern, printed)
        if match is None:
            missed.append(title)
            continue
        first, *last = map(int, match.groups())
        figure = last[0] - first if last else first
        if figure > most:
            missed.append(title)
        rows.append(f"| {title} | {figure:,}{MISSED if figure > most else ''} | {most:,} |")
    return rows, missed


def table(found, printed):
    lines = ["| what | floor (us) | ours (us) | ratio | goal | besides |", "|---|---|---|---|---|---|"]
    missed = [title for name, (title, _) in (RATIOS | ADDITIONS).items() if name not in found]
    for title, floor, ours, ratio, goal, besides in ratio_rows(found):
        mark = ""
        if ratio > goal:
            missed.append(title)
            mark = MISSED
        elif MISSED in besides:
            missed.append(title)
        lines.append(f"| {title} | {floor:,.1f} | {ours:,.1f} | {ratio:.2f}{mark} | {goal} | {besides} |")
    for name, (title, most) in ADDITIONS.items():
        if name not in found:
            continue
        floor, ours = found[name]["floor_us"], found[name]["ours_us"]
        if ours - floor > most:
            missed.append(title)
        lines.append(f"| {title} | {floor:,.1f} | {ours:,.1f} | +{ours - floor:.0f} us | +{most} us | |")
    lines += ["", "| under load | front ends | a second | median (us) | 99th percentile (us) | 99th / median |",
              "|---|---|---|---|---|---|"]
    for name, title in LOADS.items():
        for front_ends in FRONT_ENDS:
            if f"{name}/{front_ends}" not in found:
                continue
            run = found[f"{name}/{front_ends}"]
            mark = ""
            if name != "Echoes" and run["p99_to_median"] > 3:
                missed.append(f"{title}, {front_ends} front ends at once")
                mark = MISSED
            lines.append(f"| {title} | {front_ends} | {run['per_second']:,.0f} | {run['median_us']:,.0f} |"
                         f" {run['p99_us']:,.0f} | {run['p99_to_median']:.1f}{mark} |")
    rows, missed_budgets = budget_rows(printed)
    lines += ["", "| of the daemon as it ships | figure | at most |", "|---|---|---|"] + rows
    missed += missed_budgets
    return "\n".join(lines) + "\n", missed


def bars(title, rows, unit):
    """An SVG of pairs of bars: (label, floor, ours)."""
    width, left, height = 720, 230, 40
    largest = max((max(floor, ours) for _, floor, ours in rows), default=1)
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{60 + height * len(rows)}" '
             'font-family="sans-serif" font-size="12">',
             '<rect width="100%" height="100%" fill="white"/>',
             f'<text x="10" y="20" font-size="15">{title}</text>',
             f'<text x="10" y="38" fill="#666">grey: floor, blue: ours ({unit})</text>']
    for i, (label, floor, ours) in enumerate(rows):
        y = 50 + i * height
        parts.append(f'<text x="{left - 8}" y="{y + 18}" text-anchor="end">{label}</text>')
        for offset, value, colour in ((0, floor, "#9aa5b1"), (14, ours, "#2563eb")):
            length = max(1.0, value / largest * (width - left - 80))
            parts.append(f'<rect x="{left}" y="{y + offset}" width="{length:.1f}" height="12" fill="{colour}"/>')
            parts.append(f'<text x="{left + length + 6:.1f}" y="{y + offset + 10}">{value:,.1f}</text>')
    return "\n".join(parts + ["</svg>"]) + "\n"


def plots(found):
    def pairs(names):
        return [(RATIOS[name][0], found[name]["floor_us"], found[name]["ours_us"])
                for name in names if name in found]

    yield "requests.svg", bars("Requests beside their replay", pairs(list(RATIOS)[:5]), "microseconds")
    file_rows = [(title, floor / 1000, ours / 1000) for title, floor, ours in pairs(list(RATIOS)[5:9])]
    yield "file.svg", bars("A change of the database file", file_rows, "milliseconds")
    load = [(f"{title}, {n} at once", found[f"Echoes/{n}"]["per_second"], found[f"{name}/{n}"]["per_second"])
            for name, title in list(LOADS.items())[1:] for n in FRONT_ENDS
            if f"{name}/{n}" in found]
    yield "load.svg", bars("Requests a second beside the echo", load, "a second")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--write", type=pathlib.Path)
    parser.add_argument("results", type=pathlib.Path)
    arguments = parser.parse_args()
    found = read(arguments.results)
    budgets = arguments.results / "budgets"
    text, missed = table(found, budgets.read_text(encoding="utf-8") if budgets.exists() else "")
    print(text)
    if arguments.write:
        arguments.write.mkdir(parents=True, exist_ok=True)
        (arguments.write / "table.md").write_text(text, encoding="utf-8")
        for name, picture in plots(found):
            (arguments.write / name).write_text(picture, encoding="utf-8")
    for title in missed:
        print(f"A goal is missed, or was not measured: {title}")
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
