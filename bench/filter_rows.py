#!/usr/bin/env python3
"""Adds what filter_bench measured to the results of latency-bench, and prints it as that does.
Usage: filter_rows.py FILTER.json RESULTS.json"""

import json
import os
import sys
from statistics import mean, median

# What the filter and its peers are called there, and how long a block may take at best, in
# microseconds.
ROWS = {
    "AVX2/plain": ("filter, a block of 160 to 480 samples, AVX2", 0.4),
    "SSE2/plain": ("filter, the same, SSE2", 0.8),
    "NEON/plain": ("filter, the same, NEON", None),
    "portable/plain": ("filter, the same, portable C++", None),
    "soxr": ("soxr at its fastest setting, the same", None),
    "speexdsp": ("speexdsp at its fastest setting, the same", None),
}


def read_row(name, times):
    what, limit = ROWS[name]
    values = sorted(times)
    row = {"group": "filter", "what": what, "unit": "us", "values": times, "faults": 0, "note": "",
           "targets": {} if limit is None else {"min": limit}, "min": values[0],
           "median": median(values), "max": values[-1], "mean": mean(values),
           "p95": values[round(0.95 * (len(values) - 1))]}
    row["verdict"] = "-" if limit is None else "met" if row["min"] <= limit else "missed"
    return row


def read_rows(path):
    """The fastest setting of each row, in their order."""
    with open(path, encoding="utf-8") as file:
        runs = [run for run in json.load(file)["benchmarks"] if run["run_type"] == "iteration"]
    found = []
    for name in ROWS:
        settings = {}
        for run in runs:
            if run["run_name"].startswith(name):
                settings.setdefault(run["run_name"], []).append(run["cpu_time"] / 1000)
        if settings:
            found.append(read_row(name, min(settings.values(), key=min)))
    return found


def print_row(row):
    targets = ", ".join(f"{name} {limit:.4g}" for name, limit in row["targets"].items()) or "-"
    figures = " ".join(f"{row[name]:8.2f}" for name in ("median", "p95", "min", "max"))
    print(f'{row["what"]:<58} {row["unit"]:<5} {targets:<22} {figures}  {row["verdict"]}')


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    rows = read_rows(sys.argv[1])
    with open(sys.argv[2], encoding="utf-8") as file:
        results = json.load(file)
    results["rows"] = [row for row in results["rows"] if row["group"] != "filter"] + rows
    with open(sys.argv[2] + ".new", "w", encoding="utf-8") as file:
        json.dump(results, file)
    os.replace(sys.argv[2] + ".new", sys.argv[2])
    for row in rows:
        print_row(row)
    sys.exit(any(row["verdict"] == "missed" for row in rows))


main()
