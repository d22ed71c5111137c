#!/usr/bin/env python3
"""Print Google Benchmark JSON results as one Markdown table.

Usage: bench_table.py RESULT.json [RESULT.json ...]

Benchmarks are named BM_<Case>_<Variant>[/<options>]. A variant starting with
"Hv" measures the library, one starting with "Std" the standard-library
anchor of the same case; rows with the same case and options are paired and
the Hv row gets the ratio of its time to the anchor's (below 1.00 is faster).

Time per iteration is the CPU time, or the wall time for benchmarks run with
UseRealTime() (their names end in /real_time), which is also what the
benchmark library bases items/s and bytes/s on.
"""

import json
import re
import sys

UNIT_TO_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
NAME_PATTERN = re.compile(r"^(?P<case>BM_[^/]+)_(?P<variant>[A-Za-z0-9]+)(?P<options>/.*)?$")


def load_rows(paths):
    rows = []
    for path in paths:
        with open(path, encoding="utf-8") as stream:
            text = stream.read()
        # A filter that matches nothing in a program leaves its file empty.
        if not text.strip():
            continue
        try:
            document = json.loads(text)
        except ValueError as error:
            sys.stderr.write(f"{path}: not benchmark JSON ({error}); skipped\n")
            continue
        benchmarks = document.get("benchmarks", [])
        # With --benchmark_repetitions keep only the median of each benchmark.
        has_aggregates = any(b.get("run_type") == "aggregate" for b in benchmarks)
        for bench in benchmarks:
            if has_aggregates:
                if bench.get("run_type") != "aggregate" or bench.get("aggregate_name") != "median":
                    continue
                name = bench.get("run_name", bench["name"])
            else:
                name = bench["name"]
            rows.append((name, bench))
    return rows


def time_ns(name, bench):
    scale = UNIT_TO_NS.get(bench.get("time_unit", "ns"), 1.0)
    key = "real_time" if "/real_time" in name else "cpu_time"
    return bench[key] * scale


def format_time(ns):
    if ns >= 100:
        return f"{ns:,.0f}"
    if ns >= 10:
        return f"{ns:.1f}"
    return f"{ns:.2f}"


# Fields of a benchmark entry that are not user counters.
STANDARD_FIELDS = {
    "name", "run_name", "run_type", "repetitions", "repetition_index", "threads", "iterations",
    "real_time", "cpu_time", "time_unit", "family_index", "per_family_instance_index",
    "aggregate_name", "aggregate_unit", "bytes_per_second", "items_per_second", "label",
    "error_occurred", "error_message",
}


def format_rate(bench):
    if "bytes_per_second" in bench:
        return f"{bench['bytes_per_second'] / 1e6:,.1f} MB/s"
    if "items_per_second" in bench:
        rate = bench["items_per_second"]
        if rate >= 1e6:
            return f"{rate / 1e6:,.2f} M items/s"
        return f"{rate / 1e3:,.1f} k items/s"
    # Programs that report their own figures (latency percentiles, round
    # trips per second) show them instead.
    counters = [f"{key} {value:,.2f}" for key, value in bench.items()
                if key not in STANDARD_FIELDS and isinstance(value, (int, float))]
    return ", ".join(counters)


def main(argv):
    if len(argv) < 2:
        sys.stderr.write(__doc__)
        return 2
    rows = load_rows(argv[1:])

    anchors = {}
    for name, bench in rows:
        match = NAME_PATTERN.match(name)
        if match and match.group("variant").startswith("Std") and not bench.get("error_occurred"):
            key = (match.group("case"), match.group("options") or "")
            anchors[key] = (match.group("variant"), time_ns(name, bench))

    print("| Benchmark | Time/iter (ns) | Rate | Hv / anchor |")
    print("|---|---:|---:|---|")
    for name, bench in rows:
        if bench.get("error_occurred"):
            message = bench.get("error_message", "error")
            print(f"| {name} | ERROR | {message} | |")
            continue
        ns = time_ns(name, bench)
        ratio = ""
        match = NAME_PATTERN.match(name)
        if match and match.group("variant").startswith("Hv"):
            key = (match.group("case"), match.group("options") or "")
            if key in anchors:
                anchor_variant, anchor_ns = anchors[key]
                if anchor_ns > 0:
                    ratio = f"{ns / anchor_ns:.2f}x vs {anchor_variant}"
        print(f"| {name} | {format_time(ns)} | {format_rate(bench)} | {ratio} |")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
