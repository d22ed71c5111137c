#!/usr/bin/env bash
# Builds the benchmark programs in a Release tree, runs each of them with JSON
# output into files, and prints one Markdown table of all results.
#
# Usage: tools/run-benchmarks.sh [BUILD_DIR] [-- BENCHMARK_ARGS...]
#   BUILD_DIR       build tree, relative to the repository root unless
#                   absolute (default: build-bench)
#   BENCHMARK_ARGS  passed to every program, e.g. --benchmark_filter=KeyTable
#                   or --benchmark_repetitions=5 (the table then shows medians)
# Environment: JOBS (parallel build jobs, default 2).
# Results: BUILD_DIR/bench-results/<Program>.json; build logs beside them in
# BUILD_DIR. Progress goes to stderr, the table to stdout. Exits non-zero when
# a program failed to build or run; the table still shows the others.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="build-bench"
if [[ $# -gt 0 && "$1" != "--" ]]; then
    build="$1"
    shift
fi
if [[ $# -gt 0 && "$1" == "--" ]]; then
    shift
fi
[[ "$build" = /* ]] || build="$root/$build"
jobs="${JOBS:-2}"

# The only things this script installs: Google Benchmark's headers and
# library, OpenSSL's (the anchor of the encoding benchmarks) and Boost's
# headers (Asio, the anchor of the timer benchmarks).
# shellcheck source=tools/install-packages.sh
. "$root/tools/install-packages.sh"
install_packages libbenchmark-dev libssl-dev libboost-dev

echo "load average at the start: $(cut -d" " -f1-3 /proc/loadavg)" >&2
mkdir -p "$build"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release \
    -DHV_BUILD_BENCHMARKS=ON -DHV_BUILD_TESTS=OFF >"$build/configure.log" 2>&1 || {
    cat "$build/configure.log" >&2
    exit 1
}

programs=()
for source in "$root"/bench/*Bench.cpp; do
    [[ -e "$source" ]] || continue
    programs+=("$(basename "$source" .cpp)")
done
if [[ ${#programs[@]} -eq 0 ]]; then
    echo "no bench/*Bench.cpp found" >&2
    exit 1
fi

results="$build/bench-results"
mkdir -p "$results"
rm -f "$results"/*.json

# Built one by one: a program that does not compile is reported and skipped,
# the others still run.
failed=0
built=()
for program in "${programs[@]}"; do
    echo "building $program" >&2
    log="$build/build-$program.log"
    if cmake --build "$build" -j"$jobs" --target "$program" >"$log" 2>&1; then
        built+=("$program")
    else
        cat "$log" >&2
        echo "$program did not build; skipped" >&2
        failed=1
    fi
done

files=()
for program in "${built[@]}"; do
    echo "running $program" >&2
    out="$results/$program.json"
    if "$build/bench/$program" --benchmark_format=json "$@" >"$out"; then
        files+=("$out")
    else
        echo "$program failed (exit $?)" >&2
        failed=1
        # Keep what it wrote if it is complete JSON.
        python3 -c 'import json,sys; json.load(open(sys.argv[1]))' "$out" 2>/dev/null && files+=("$out")
    fi
done

echo
echo "Machine: $(nproc) cores; load average at the end: $(cut -d' ' -f1-3 /proc/loadavg)"
echo
if [[ ${#files[@]} -gt 0 ]]; then
    python3 "$root/tools/bench_table.py" "${files[@]}"
fi
exit "$failed"
