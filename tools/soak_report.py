#!/usr/bin/env python3
"""Rates, verdicts and plot input for bench/soak.sh.

Subcommands (Python 3 standard library only):

  soak_report.py rate FILE
      Prints the successful calls per second of one SIPp run from its
      -trace_stat CSV: successful calls between the first and the last line,
      over the time between them (the CurrentTime column carries epoch
      seconds with microseconds; ElapsedTime has whole seconds only).

  soak_report.py verdict DIR [--warmup SECONDS] [--rss-limit-kb KB]
                             [--flat-limit N]
      DIR/samples.csv (t_s, transport, rss_kb, fds, threads: one line every
      few seconds while the responder is under load), DIR/idle.csv (segment,
      transport, t_s, fds, threads: once after each segment, when the
      responder has settled) and DIR/segments.tsv (index, transport, rate,
      calls asked, succeeded, failed, SIPp exit status, achieved calls/s)
      in. Writes
      DIR/verdict.txt, DIR/summary.json and the gnuplot script DIR/soak.gp
      (which draws DIR/soak.png from samples.csv). Prints the table and one
      verdict line per goal; exits 1 when a goal is missed.

Goals, after the warm-up (default 60 s from the first segment's start):
  - failed calls: 0, and every SIPp run exited 0;
  - RSS growth: the largest sample minus the first sample taken after the
    warm-up, below --rss-limit-kb (default 1024 kB);
  - descriptors flat and threads flat: the counts the responder settles at
    between segments (idle.csv) differ by at most --flat-limit (default 0)
    over the segments that end after the warm-up. Under load the counts
    follow the traffic (a TCP call has a connection and a thread of its
    own while it lasts); their range is printed, not judged.
"""

import argparse
import csv
import json
import os
import sys


def sipp_rate(path):
    with open(path, encoding="utf-8", errors="replace") as handle:
        rows = list(csv.reader(handle, delimiter=";"))
    if len(rows) < 3:
        raise ValueError("fewer than two statistics lines")
    header = rows[0]
    time_column = header.index("CurrentTime")
    calls_column = header.index("SuccessfulCall(C)")

    def epoch(row):
        return float(row[time_column].split()[-1])

    first, last = rows[1], rows[-1]
    seconds = epoch(last) - epoch(first)
    if seconds <= 0:
        raise ValueError("no time between the first and the last line")
    return (int(last[calls_column]) - int(first[calls_column])) / seconds


def rate(path):
    try:
        print(f"{sipp_rate(path):.1f}")
    except (OSError, ValueError, IndexError) as error:
        print(f"{path}: {error}", file=sys.stderr)
        return 1
    return 0


def read_csv(path):
    with open(path, encoding="utf-8") as handle:
        return list(csv.DictReader(handle))


def spread(values):
    return (max(values) - min(values)) if values else None


def verdict(arguments):
    directory = arguments.directory
    samples = read_csv(os.path.join(directory, "samples.csv"))
    idle = read_csv(os.path.join(directory, "idle.csv"))
    with open(os.path.join(directory, "segments.tsv"), encoding="utf-8") as handle:
        segments = [line.rstrip("\n").split("\t") for line in handle if line.strip()]

    warmup = arguments.warmup
    for sample in samples:
        sample["t_s"] = float(sample["t_s"])
        for key in ("rss_kb", "fds", "threads"):
            sample[key] = int(sample[key])
    for entry in idle:
        entry["t_s"] = float(entry["t_s"])
        for key in ("fds", "threads"):
            entry[key] = int(entry[key])

    problems = []
    lines = []

    # Calls.
    asked = sum(int(s[3]) for s in segments)
    succeeded = sum(int(s[4]) for s in segments)
    failed = sum(int(s[5]) for s in segments)
    bad_exits = [s[0] + "/" + s[1] + ":" + s[6] for s in segments if s[6] != "0"]
    lines.append("segments: %d (%s), calls asked %d, succeeded %d, failed %d" % (
        len(segments), " ".join(sorted({s[1] for s in segments})), asked, succeeded, failed))
    for transport in ("udp", "tcp"):
        chosen = [s for s in segments if s[1] == transport]
        if chosen:
            lines.append("  %s asked %s calls/s, achieved %s" % (
                transport, ", ".join(sorted({s[2] for s in chosen})),
                " ".join(s[7] if len(s) > 7 else "-" for s in chosen)))
    calls_ok = failed == 0 and not bad_exits and succeeded == asked and segments
    lines.append("goal 0 failed calls: %s (failed %d, lost %d%s)" % (
        "met" if calls_ok else "MISSED", failed, asked - succeeded - failed,
        ", SIPp exits " + " ".join(bad_exits) if bad_exits else ""))
    if not calls_ok:
        problems.append("calls")

    # RSS.
    after = [s for s in samples if s["t_s"] >= warmup]
    summary = {"warmup_s": warmup, "samples": len(samples), "samples_after_warmup": len(after),
               "calls_asked": asked, "calls_succeeded": succeeded, "calls_failed": failed}
    if after:
        base = after[0]["rss_kb"]
        growth = max(s["rss_kb"] for s in after) - base
        end_growth = after[-1]["rss_kb"] - base
        rss_ok = growth < arguments.rss_limit_kb
        lines.append("goal RSS growth after %.0f s < %d kB: %s (first %d kB at %.0f s, max %d kB, "
                     "last %d kB: growth %d kB, last-first %d kB)" % (
                         warmup, arguments.rss_limit_kb, "met" if rss_ok else "MISSED", base,
                         after[0]["t_s"], base + growth, after[-1]["rss_kb"], growth, end_growth))
        summary.update({"rss_first_kb": base, "rss_max_kb": base + growth,
                        "rss_last_kb": after[-1]["rss_kb"], "rss_growth_kb": growth})
    else:
        rss_ok = False
        lines.append("goal RSS growth: MISSED (no sample after the warm-up)")
    if not rss_ok:
        problems.append("rss")

    # Descriptors and threads.
    idle_after = [e for e in idle if e["t_s"] >= warmup]
    for key, label in (("fds", "descriptors"), ("threads", "threads")):
        values = [e[key] for e in idle_after]
        idle_spread = spread(values)
        load_values = {t: [s[key] for s in after if s["transport"] == t] for t in ("udp", "tcp")}
        load_text = ", ".join("%s %d..%d" % (t, min(v), max(v)) for t, v in load_values.items() if v)
        ok = idle_spread is not None and idle_spread <= arguments.flat_limit
        lines.append("goal %s flat (idle max-min <= %d): %s (idle between segments %s: max-min %s; "
                     "under load %s)" % (
                         label, arguments.flat_limit, "met" if ok else "MISSED",
                         "/".join(str(v) for v in values) if values else "none",
                         "-" if idle_spread is None else idle_spread, load_text or "-"))
        summary[key + "_idle"] = values
        summary[key + "_idle_spread"] = idle_spread
        summary[key + "_under_load"] = {t: [min(v), max(v)] for t, v in load_values.items() if v}
        if not ok:
            problems.append(key)

    summary["problems"] = problems
    text = "\n".join(lines) + "\n"
    sys.stdout.write(text)
    with open(os.path.join(directory, "verdict.txt"), "w", encoding="utf-8") as handle:
        handle.write(text)
    with open(os.path.join(directory, "summary.json"), "w", encoding="utf-8") as handle:
        json.dump(summary, handle, indent=2)
        handle.write("\n")
    write_plot(directory, warmup)
    return 1 if problems else 0


def write_plot(directory, warmup):
    script = """set terminal pngcairo size 1000,900 noenhanced
set output 'soak.png'
set datafile separator ','
set key autotitle columnhead
set multiplot layout 3,1 title 'hv-sip-responder under SIPp (grey line: end of warm-up)'
set xlabel 'seconds'
set grid
set arrow from {w},graph 0 to {w},graph 1 nohead lc rgb 'grey'
set ylabel 'VmRSS (MiB)'
plot 'samples.csv' using 1:($3/1024.0) with linespoints pt 7 ps 0.4 title 'RSS'
set ylabel 'open descriptors'
plot 'samples.csv' using 1:4 with linespoints pt 7 ps 0.4 title 'fds', \\
     'idle.csv' using 3:4 with points pt 5 ps 0.8 title 'fds between segments'
set ylabel 'threads'
plot 'samples.csv' using 1:5 with linespoints pt 7 ps 0.4 title 'threads', \\
     'idle.csv' using 3:5 with points pt 5 ps 0.8 title 'threads between segments'
unset multiplot
""".format(w=warmup)
    with open(os.path.join(directory, "soak.gp"), "w", encoding="utf-8") as handle:
        handle.write(script)


def main(argv):
    parser = argparse.ArgumentParser(prog="soak_report.py")
    commands = parser.add_subparsers(dest="command", required=True)
    rate_parser = commands.add_parser("rate")
    rate_parser.add_argument("file")
    verdict_parser = commands.add_parser("verdict")
    verdict_parser.add_argument("directory")
    verdict_parser.add_argument("--warmup", type=float, default=60.0)
    verdict_parser.add_argument("--rss-limit-kb", type=int, default=1024)
    verdict_parser.add_argument("--flat-limit", type=int, default=0)
    arguments = parser.parse_args(argv)
    if arguments.command == "rate":
        return rate(arguments.file)
    return verdict(arguments)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
