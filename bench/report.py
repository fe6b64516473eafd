#!/usr/bin/env python3
"""Runs the bench programs, prints the table of goals, and writes the report with its pictures.

Usage: report.py PROGRAMS_DIR [--runs N] [--only NAME] [--keep FILE] [--write DIRECTORY]

Every program is run N times (default 3), one run of all before the next, and a goal's value is the
median of its runs. With --keep the runs are added to those in the file, so that they can be made at
different times; `--runs 0` shows what it holds. Exits with 1 when a goal's "must" does not hold.
"""

import argparse
import datetime
import json
import pathlib
import platform
import statistics
import subprocess
import sys

from pictures import bars, curve

PROGRAMS = ["live_path", "latency", "cache", "snapshot", "checksum", "hand_over", "csv_row",
            "log_line", "hot_path", "growth", "start_up", "bus", "pages"]
ON_DEMAND = ["fanout"]  # only with --only: it needs a server
FLAVOURS = ["", "_native"]


def processor():
    for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            return line.split(":", 1)[1].strip()
    return platform.processor()


def commit():
    run = subprocess.run(["git", "describe", "--always", "--dirty"], capture_output=True, text=True)
    return run.stdout.strip() or "unknown"


def run_program(path):
    print(f"  {path.name}", file=sys.stderr, flush=True)
    run = subprocess.run([path], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    if run.returncode != 0:
        sys.exit(f"report.py: {path.name} failed: {run.stderr.strip().splitlines()[-1:]}")
    if path.name.removeprefix("bench_") in ON_DEMAND:  # its figures are the answer
        print(run.stderr, end="", file=sys.stderr)
    return [json.loads(line) for line in run.stdout.splitlines() if line.startswith("{")]


def collect(directory, runs, only):
    """All lines of all runs, each with its program's flavour."""
    lines = []
    for number in range(1, runs + 1):
        print(f"run {number} of {runs}", file=sys.stderr)
        for name in [only] if only else PROGRAMS:
            for flavour in FLAVOURS:
                path = directory / f"bench_{name}{flavour}"
                if path.exists():
                    for line in run_program(path):
                        line["flavour"] = "native" if flavour else "x86-64"
                        lines.append(line)
    return lines


def kept_lines(path):
    if path is None or not path.exists():
        return []
    return [json.loads(line) for line in path.read_text().splitlines()]


def medians(lines, kind, key_names):
    """One entry for each key, with the median of its values; first appearance decides the order."""
    found = {}
    for line in lines:
        if line["kind"] == kind:
            key = tuple(line[name] for name in key_names)
            found.setdefault(key, []).append(line)
    result = []
    for group in found.values():
        entry = dict(group[0])
        entry["values"] = [line["value"] for line in group]
        entry["value"] = statistics.median(entry["values"])
        result.append(entry)
    return result


def holds(goal, bound):
    if bound is None:
        return True
    return goal["value"] <= bound if goal["better"] == "smaller" else goal["value"] >= bound


def sorted_goals(goals):
    return sorted(goals, key=lambda goal: int(goal["id"][1:]))


def goal_rows(goals):
    rows = [("goal", "question", "flags", "measured", "must", "", "aim", "")]
    for goal in sorted_goals(goals):
        sign = "<=" if goal["better"] == "smaller" else ">="
        rows.append((goal["id"], goal["case"], goal["flavour"],
                     f"{goal['value']:.2f}{goal['unit']}",
                     "-" if goal["must"] is None else f"{sign} {goal['must']:g}",
                     "PASS" if holds(goal, goal["must"]) else "SHORT", f"{sign} {goal['aim']:g}",
                     "PASS" if holds(goal, goal["aim"]) else "short"))
    return rows


def print_table(rows):
    widths = [max(len(row[i]) for row in rows) for i in range(len(rows[0]))]
    for row in rows:
        print("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())


def write_report(directory, lines, goals, figures, runs):
    directory.mkdir(parents=True, exist_ok=True)
    run = next(line for line in lines if line["kind"] == "run")
    facts = {"date": datetime.date.today().isoformat(), "commit": commit(),
             "processor": processor(), "compiler": "GCC " + run["compiler"],
             "flags": "-O3 -ffp-contract=off, with and without -march=native", "runs": runs}
    (directory / "report.json").write_text(
        json.dumps({"facts": facts, "goals": goals, "figures": figures}, indent=1) + "\n")
    text = ["# Measured", "", "| | |", "| --- | --- |"]
    text += [f"| {name} | {value} |" for name, value in facts.items()]
    text += ["", "A ratio is the median over rounds in which both sides ran in turn, and of "
             f"{runs} runs of the program.", "`./dev bench` prints this table; `./dev bench "
             "--write docs/performance` wrote this page.", ""]
    rows = goal_rows(goals)
    text += ["| " + " | ".join(cell or " " for cell in rows[0]) + " |",
             "|" + " --- |" * len(rows[0])]
    text += ["| " + " | ".join(row) + " |" for row in rows[1:]]
    text += [""]
    for question in ("G1", "G4", "G5", "G6", "G7", "G8", "G9", "G11", "G13", "G14"):
        points = [f for f in figures if f["id"] == question and f["flavour"] == "x86-64"]
        if points:
            (directory / f"{question}.svg").write_text(bars(question, points))
            text += [f"![Times of {question}]({question}.svg)", ""]
    for series in ("instruments", "fields", "backlog"):
        points = [f for f in figures if f["id"] == "G12" and f["series"] == series]
        if points:
            (directory / f"G12-{series}.svg").write_text(curve(series, points))
            text += [f"![Cost by {series}](G12-{series}.svg)", ""]
    (directory / "report.md").write_text("\n".join(text))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("programs", type=pathlib.Path)
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--write", type=pathlib.Path)
    parser.add_argument("--only", choices=PROGRAMS + ON_DEMAND)
    parser.add_argument("--keep", type=pathlib.Path)
    options = parser.parse_args()
    lines = kept_lines(options.keep) + collect(options.programs, options.runs, options.only)
    if not lines:
        sys.exit("report.py: nothing was run, and --keep FILE holds no run")
    if options.keep and options.runs > 0:
        options.keep.write_text("".join(json.dumps(line) + "\n" for line in lines))
    goals = medians(lines, "goal", ("id", "case", "flavour"))
    figures = medians(lines, "figure", ("id", "series", "at", "flavour"))
    runs = max(len(goal["values"]) for goal in goals)
    print(f"{processor()}, {commit()}, {runs} runs")
    print_table(goal_rows(goals))
    if options.write:
        write_report(options.write, lines, goals, figures, runs)
    sys.exit(0 if all(holds(goal, goal["must"]) for goal in goals) else 1)


if __name__ == "__main__":
    main()
