#!/usr/bin/env python3
"""Tables, verdicts and plot input for the SIP programs' demo and benchmarks.

Subcommands (Python 3 standard library only):

  sip_report.py demo DIR
      DIR/runs.tsv (one line per run: name, transport, connections,
      concurrency, exit status of hv-sip-load, its JSON file, responder CPU
      microseconds over the run) and DIR/responder.tsv (key, value: rss_start_kb,
      rss_end_kb, exit, ...) in; DIR/table.txt, DIR/summary.json and the
      gnuplot input (calls.dat, latency.dat, plots.gp) out. Prints the table
      and one line per problem; exits 1 when there was one.

  sip_report.py compare DIR
      DIR/runs.tsv (server, generator, transport, repetition, exit status,
      result file, wall seconds, server CPU us, generator CPU us) and
      DIR/rss.tsv (second, VmRSS kB) in; the side-by-side table with the goal
      verdicts out (also DIR/compare.txt and DIR/compare.json).

  sip_report.py calls FILE
      Prints "<succeeded> <failed>" of one run: a SIPp -trace_stat CSV
      (FILE ends in .csv) or an hv-sip-load JSON result.

  sip_report.py rusage --out FILE -- COMMAND [ARGS...]
      Runs COMMAND, writes its own user+system CPU microseconds to FILE and
      exits with its status (a signal N gives 128+N).
"""

import csv
import json
import math
import os
import signal
import subprocess
import sys

PERCENTILES = ("p50", "p90", "p99", "p999", "max")


def read_tsv(path):
    with open(path, encoding="utf-8") as handle:
        return [line.rstrip("\n").split("\t") for line in handle
                if line.strip() and not line.startswith("#")]


def fmt(value, digits=0):
    if value is None:
        return "-"
    if isinstance(value, float) and math.isnan(value):
        return "-"
    if digits == 0:
        return f"{value:,.0f}"
    return f"{value:,.{digits}f}"


def render(header, rows):
    widths = [max(len(str(cell)) for cell in column) for column in zip(header, *rows)]
    lines = ["  ".join(str(cell).rjust(width) if i else str(cell).ljust(width)
                       for i, (cell, width) in enumerate(zip(line, widths)))
             for line in [header] + rows]
    lines.insert(1, "  ".join("-" * width for width in widths))
    return "\n".join(lines)


def load_json(path):
    try:
        with open(path, encoding="utf-8") as handle:
            return json.load(handle)
    except (OSError, ValueError) as error:
        return {"_error": str(error)}


# ---------------------------------------------------------------- demo

def demo(directory):
    runs = read_tsv(os.path.join(directory, "runs.tsv"))
    responder = dict(row[:2] for row in read_tsv(os.path.join(directory, "responder.tsv"))
                     if len(row) >= 2)
    problems = []
    rows = []
    summary_runs = []
    for name, transport, connections, concurrency, status, result, responder_cpu in runs:
        data = load_json(os.path.join(directory, result))
        status = int(status)
        responder_cpu = float(responder_cpu)
        if "_error" in data:
            problems.append(f"{name}: no JSON from hv-sip-load ({data['_error']})")
            data = {}
        completed = data.get("completed", 0)
        failed = data.get("failed")
        latency = data.get("latency_us", {})
        responder_per_call = responder_cpu / completed if completed else None
        if status != 0:
            problems.append(f"{name}: hv-sip-load exited with status {status}")
        if failed is None or failed != 0:
            problems.append(f"{name}: {failed if failed is not None else 'unknown'} failed "
                            f"transactions {json.dumps(data.get('failures', {}))}")
        if not completed:
            problems.append(f"{name}: no transaction completed")
        rows.append([name, transport, connections, concurrency,
                     fmt(data.get("completed")), fmt(data.get("calls_per_s")),
                     *(fmt(latency.get(key)) for key in PERCENTILES),
                     fmt(data.get("cpu_us_per_call"), 1), fmt(responder_per_call, 1),
                     fmt(data.get("retransmissions")), fmt(failed)])
        summary_runs.append({"name": name, "transport": transport,
                             "connections": int(connections), "concurrency": int(concurrency),
                             "exit": status, "responder_cpu_us": responder_cpu,
                             "responder_cpu_us_per_call": responder_per_call, "load": data})

    header = ["run", "transport", "conns", "in flight", "calls", "calls/s",
              "p50 us", "p90 us", "p99 us", "p99.9 us", "max us",
              "load CPU us/call", "responder CPU us/call", "retrans", "failed"]
    rss_start = int(responder.get("rss_start_kb", "0") or 0)
    rss_end = int(responder.get("rss_end_kb", "0") or 0)
    text = render(header, rows)
    text += (f"\nresponder RSS: {fmt(rss_start)} kB at start, {fmt(rss_end)} kB at end"
             f" ({rss_end - rss_start:+,} kB)")
    if responder.get("stopped"):
        text += f"\n{responder['stopped']}"
    exit_status = responder.get("exit", "")
    if exit_status != "0":
        problems.append(f"hv-sip-responder exited with status {exit_status or 'unknown'}"
                        + (" (an allocator tag leaked)" if exit_status == "1" else ""))
    for line in responder.get("leaks", "").split("|"):
        if line:
            problems.append(line)

    with open(os.path.join(directory, "table.txt"), "w", encoding="utf-8") as handle:
        handle.write(text + "\n")
    with open(os.path.join(directory, "summary.json"), "w", encoding="utf-8") as handle:
        json.dump({"runs": summary_runs, "responder": responder, "problems": problems},
                  handle, indent=2)
    write_demo_plots(directory, summary_runs)
    print(text)
    for problem in problems:
        print(f"problem: {problem}")
    return 1 if problems else 0


def write_demo_plots(directory, runs):
    names = [run["name"] for run in runs]
    # Whole seconds only: the last bucket holds the few milliseconds in which
    # the calls in flight finished after sending stopped, not a second's rate.
    series = [run["load"].get("per_second", [])[:int(run["load"].get("duration_s", 0))] for run in runs]
    seconds = max((len(values) for values in series), default=0)
    with open(os.path.join(directory, "calls.dat"), "w", encoding="utf-8") as handle:
        handle.write("# second " + " ".join(names) + "\n")
        for second in range(seconds):
            cells = [str(values[second]) if second < len(values) else "NaN" for values in series]
            handle.write(f"{second + 1} " + " ".join(cells) + "\n")
    with open(os.path.join(directory, "latency.dat"), "w", encoding="utf-8") as handle:
        handle.write("# run " + " ".join(PERCENTILES) + "\n")
        for run in runs:
            latency = run["load"].get("latency_us", {})
            cells = [str(latency.get(key, "NaN")) for key in PERCENTILES]
            handle.write(f"\"{run['name']}\" " + " ".join(cells) + "\n")

    lines = [
        "set terminal pngcairo size 1000,600 noenhanced",
        "set grid",
        "set key outside right top",
        "set output 'calls-per-second.png'",
        "set title 'hv-sip-responder: completed calls per second'",
        "set xlabel 'second of the run'",
        "set ylabel 'calls/s'",
        "set yrange [0:*]",
    ]
    if names:
        plots = [f"'calls.dat' using 1:{index + 2} with linespoints title '{name}'"
                 for index, name in enumerate(names)]
        lines.append("plot " + ", \\\n     ".join(plots))
    lines += [
        "set output 'latency.png'",
        "set title 'hv-sip-load: transaction latency percentiles per run'",
        "set xlabel ''",
        "set ylabel 'microseconds (log scale)'",
        "set logscale y",
        "set yrange [*:*]",
        "set style data histograms",
        "set style histogram clustered gap 1",
        "set style fill solid 0.8 border -1",
        "set boxwidth 0.9",
        "set xtics nomirror",
    ]
    if names:
        titles = {"p999": "p99.9"}
        plots = [f"'latency.dat' using {index + 2}:xtic(1) title '{titles.get(key, key)}'"
                 for index, key in enumerate(PERCENTILES)]
        lines.append("plot " + ", \\\n     ".join(plots))
    with open(os.path.join(directory, "plots.gp"), "w", encoding="utf-8") as handle:
        handle.write("\n".join(lines) + "\n")


# ---------------------------------------------------------------- compare

def read_sipp_stat(path):
    """Last line of a SIPp -trace_stat CSV: successful and failed calls.

    Its elapsed time has whole seconds only, so the caller's wall clock
    around the run gives the rate; its CSV has no retransmission counter."""
    with open(path, encoding="utf-8", errors="replace") as handle:
        rows = list(csv.reader(handle, delimiter=";"))
    if len(rows) < 2:
        raise ValueError("no statistics line")
    values = dict(zip(rows[0], rows[-1]))
    return {"succeeded": int(values["SuccessfulCall(C)"]),
            "failed": int(values["FailedCall(C)"]),
            "elapsed_s": None, "retransmissions": None}


def read_result(generator, path):
    if generator == "sipp":
        return read_sipp_stat(path)
    data = load_json(path)
    if "_error" in data:
        raise ValueError(data["_error"])
    return {"succeeded": data["succeeded"], "failed": data["failed"],
            "elapsed_s": data["duration_s"], "retransmissions": data["retransmissions"],
            "own_cpu_us": data["cpu_us"]}


def calls(path):
    try:
        result = read_result("sipp" if path.endswith(".csv") else "hv-sip-load", path)
    except (OSError, ValueError, KeyError) as error:
        print(f"{path}: {error}", file=sys.stderr)
        return 1
    print(result["succeeded"], result["failed"])
    return 0


def median(values):
    values = sorted(values)
    if not values:
        return None
    middle = len(values) // 2
    return values[middle] if len(values) % 2 else (values[middle - 1] + values[middle]) / 2


def compare(directory):
    problems = []
    groups = {}
    for row in read_tsv(os.path.join(directory, "runs.tsv")):
        server, generator, transport, repetition, status, result, wall, server_cpu, gen_cpu = row
        key = (server, generator, transport)
        try:
            data = read_result(generator, os.path.join(directory, result))
        except (OSError, ValueError, KeyError) as error:
            problems.append(f"{server}/{generator}/{transport} #{repetition}: "
                            f"no result ({error})")
            continue
        if int(status) != 0 or data["failed"]:
            problems.append(f"{server}/{generator}/{transport} #{repetition}: exit {status}, "
                            f"{data['failed']} failed calls")
        calls = data["succeeded"] + data["failed"]
        wall = float(wall)
        elapsed = data["elapsed_s"] or wall
        groups.setdefault(key, []).append({
            "calls": calls,
            "calls_per_s": data["succeeded"] / elapsed if elapsed else 0.0,
            "server_cpu_us_per_call": float(server_cpu) / calls if calls else None,
            "gen_cpu_us_per_call": float(gen_cpu) / calls if calls else None,
            "gen_calls_per_core_s": calls / (float(gen_cpu) / 1e6) if float(gen_cpu) else None,
            "retransmissions": data["retransmissions"],
        })

    summary = {}
    rows = []
    for (server, generator, transport), runs in sorted(groups.items()):
        entry = {name: median([run[name] for run in runs if run[name] is not None])
                 for name in ("calls_per_s", "server_cpu_us_per_call",
                              "gen_cpu_us_per_call", "gen_calls_per_core_s")}
        entry["runs"] = len(runs)
        entry["calls"] = sum(run["calls"] for run in runs)
        retransmissions = [run["retransmissions"] for run in runs
                           if run["retransmissions"] is not None]
        entry["retransmissions"] = sum(retransmissions) if retransmissions else None
        summary[f"{server}/{generator}/{transport}"] = entry
        rows.append([server, generator, transport, str(len(runs)), fmt(entry["calls"]),
                     fmt(entry["calls_per_s"]), fmt(entry["server_cpu_us_per_call"], 1),
                     fmt(entry["gen_cpu_us_per_call"], 1), fmt(entry["gen_calls_per_core_s"]),
                     fmt(entry["retransmissions"])])
    header = ["server", "generator", "transport", "runs", "calls", "calls/s (median)",
              "server CPU us/call", "generator CPU us/call", "generator calls per core-s",
              "retrans"]
    text = render(header, rows)

    verdicts = []

    def verdict(label, ours, theirs, goal, higher_is_better):
        if ours is None or theirs is None or theirs == 0:
            verdicts.append(f"{label}: not measured")
            return
        ratio = ours / theirs
        met = ratio >= goal if higher_is_better else ratio <= goal
        relation = ">=" if higher_is_better else "<="
        verdicts.append(f"{label}: {'met' if met else 'MISSED'} "
                        f"(ratio {ratio:.2f}, goal {relation} {goal:g})")

    for transport in sorted({key[2] for key in groups}):
        ours = summary.get(f"hv-sip-responder/sipp/{transport}")
        theirs = summary.get(f"kamailio/sipp/{transport}")
        if ours and theirs:
            verdict(f"{transport}: responder CPU per call vs Kamailio",
                    ours["server_cpu_us_per_call"], theirs["server_cpu_us_per_call"], 0.5, False)
            verdict(f"{transport}: responder calls/s vs Kamailio",
                    ours["calls_per_s"], theirs["calls_per_s"], 1.0, True)
        load = summary.get(f"kamailio/hv-sip-load/{transport}")
        sipp = summary.get(f"kamailio/sipp/{transport}")
        if load and sipp:
            verdict(f"{transport}: hv-sip-load calls per core-second vs SIPp",
                    load["gen_calls_per_core_s"], sipp["gen_calls_per_core_s"], 2.0, True)

    rss_path = os.path.join(directory, "rss.tsv")
    rss = None
    if os.path.exists(rss_path):
        samples = [(float(second), int(kb)) for second, kb in read_tsv(rss_path)]
        rss = rss_summary(samples)
        if rss:
            summary["responder_rss"] = rss
            flat = abs(rss["slope_kb_per_min"]) <= max(64.0, 0.01 * rss["after_warmup_kb"])
            verdicts.append(
                f"responder RSS over {rss['seconds']:.0f} s at full load: "
                f"{'flat' if flat else 'GROWING'} (start {rss['start_kb']:,} kB, after "
                f"{rss['warmup_s']:.0f} s warm-up {rss['after_warmup_kb']:,} kB, end "
                f"{rss['end_kb']:,} kB, slope after warm-up {rss['slope_kb_per_min']:+.1f} kB/min)")

    text += "\n\n" + "\n".join(verdicts)
    summary["verdicts"] = verdicts
    summary["problems"] = problems
    with open(os.path.join(directory, "compare.txt"), "w", encoding="utf-8") as handle:
        handle.write(text + "\n")
    with open(os.path.join(directory, "compare.json"), "w", encoding="utf-8") as handle:
        json.dump(summary, handle, indent=2)
    print(text)
    for problem in problems:
        print(f"problem: {problem}")
    return 1 if problems else 0


def rss_summary(samples, warmup_s=10.0):
    if len(samples) < 3:
        return None
    start = samples[0]
    # A run shorter than three warm-ups keeps its last two thirds.
    warmup_s = min(warmup_s, (samples[-1][0] - start[0]) / 3)
    after = [sample for sample in samples if sample[0] - start[0] >= warmup_s]
    # Least squares over the samples after warm-up.
    n = len(after)
    mean_t = sum(t for t, _ in after) / n
    mean_kb = sum(kb for _, kb in after) / n
    var = sum((t - mean_t) ** 2 for t, _ in after)
    slope = sum((t - mean_t) * (kb - mean_kb) for t, kb in after) / var if var else 0.0
    return {"seconds": samples[-1][0] - start[0], "warmup_s": warmup_s,
            "start_kb": start[1], "after_warmup_kb": after[0][1], "end_kb": samples[-1][1],
            "max_kb": max(kb for _, kb in samples), "slope_kb_per_min": slope * 60.0}


# ---------------------------------------------------------------- rusage

def rusage(arguments):
    if len(arguments) < 4 or arguments[0] != "--out" or arguments[2] != "--":
        print("usage: sip_report.py rusage --out FILE -- COMMAND [ARGS...]", file=sys.stderr)
        return 2
    out, command = arguments[1], arguments[3:]
    try:
        child = subprocess.Popen(command)
    except OSError as error:
        print(f"sip_report.py: cannot run {command[0]}: {error}", file=sys.stderr)
        return 127
    # Forwarded so that a run can be cut short by signalling this wrapper.
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda received, _frame: child.send_signal(received))
    while True:
        try:
            _, status, usage = os.wait4(child.pid, 0)
            break
        except InterruptedError:
            continue
    with open(out, "w", encoding="utf-8") as handle:
        handle.write(f"{round((usage.ru_utime + usage.ru_stime) * 1e6)}\n")
    if os.WIFSIGNALED(status):
        return 128 + os.WTERMSIG(status)
    return os.WEXITSTATUS(status)


def main(argv):
    if len(argv) >= 2 and argv[1] in ("-h", "--help"):
        print(__doc__.strip())
        return 0
    if len(argv) == 3 and argv[1] == "demo":
        return demo(argv[2])
    if len(argv) == 3 and argv[1] == "compare":
        return compare(argv[2])
    if len(argv) == 3 and argv[1] == "calls":
        return calls(argv[2])
    if len(argv) >= 2 and argv[1] == "rusage":
        return rusage(argv[2:])
    print("usage: sip_report.py demo DIR | compare DIR | calls FILE | rusage --out FILE -- COMMAND...",
          file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv))
