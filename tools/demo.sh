#!/usr/bin/env bash
# The SIP programs end to end: installs what is missing, builds a Release
# tree, starts hv-sip-responder on 127.0.0.1, drives it with hv-sip-load over
# UDP, then over TCP with 1 and with 50 connections, prints one table
# (calls/s, latency percentiles, CPU microseconds per call of both processes,
# the responder's RSS at start and end), writes a report folder with the JSON
# results, the table and PNG plots, stops the responder with SIGTERM and fails
# loudly when a run failed, a transaction failed or the responder leaked.
#
# Usage: tools/demo.sh            (run as root on Debian 12, or with sudo)
# Environment:
#   BUILD_DIR    Release tree (default build/release-demo)
#   REPORT_DIR   report folder (default report/demo-<date>-<time>)
#   DURATION     seconds per run (default 10)
#   CONCURRENCY  transactions in flight per run (default 50)
#   JOBS         parallel build jobs (default: number of cores)
# Exit status: 0 when everything passed, 1 when anything failed.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root"
build="${BUILD_DIR:-build/release-demo}"
[[ "$build" = /* ]] || build="$root/$build"
report="${REPORT_DIR:-report/demo-$(date +%Y%m%d-%H%M%S)}"
[[ "$report" = /* ]] || report="$root/$report"
duration="${DURATION:-10}"
concurrency="${CONCURRENCY:-50}"
jobs="${JOBS:-$(nproc)}"

# shellcheck source=tools/sip-common.sh
. "$root/tools/sip-common.sh"
# shellcheck source=tools/install-packages.sh
. "$root/tools/install-packages.sh"

# ------------------------------------------------------------ packages
packages=(cmake g++ make pkg-config python3 libace-dev liblog4cplus-dev libc-ares-dev gnuplot-nox)
install_packages "${packages[@]}" || fail "could not install the packages"

# ------------------------------------------------------------ build
mkdir -p "$build" "$report"
launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
echo "Building the Release tree in ${build#"$root"/} ..."
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DHV_BUILD_TESTS=OFF "${launcher[@]}" \
    >"$build/demo-configure.log" 2>&1 \
    || { cat "$build/demo-configure.log" >&2; fail "cmake configure (log: $build/demo-configure.log)"; }
cmake --build "$build" -j"$jobs" --target hv-sip-responder hv-sip-load \
    >"$build/demo-build.log" 2>&1 \
    || { tail -40 "$build/demo-build.log" >&2; fail "build (log: $build/demo-build.log)"; }
responder_bin="$build/apps/hv-sip-responder"
load_bin="$build/apps/hv-sip-load"
[[ -x "$responder_bin" && -x "$load_bin" ]] || fail "programs not found under $build/apps"

# ------------------------------------------------------------ helpers
responder_pid=""
stop_responder_on_exit() {
    if [[ -n "$responder_pid" ]] && alive "$responder_pid"; then
        kill -TERM "$responder_pid" 2>/dev/null || true
        for _ in $(seq 50); do
            alive "$responder_pid" || return 0
            sleep 0.1
        done
        kill -KILL "$responder_pid" 2>/dev/null || true
    fi
}
trap stop_responder_on_exit EXIT

# ------------------------------------------------------------ responder
echo "Report folder: ${report#"$root"/}"
start_responder "$responder_bin" "$report" --verbose
udp_target="$responder_address:$responder_udp"
tcp_target="$responder_address:$responder_tcp"
rss_start=$(rss_kb "$responder_pid")

# ------------------------------------------------------------ runs
: >"$report/runs.tsv"
run() {
    local name=$1 transport=$2 connections=$3 target=$4 before after status=0
    echo "Run $name: $transport, $connections connection(s), $concurrency in flight, ${duration} s ..."
    before=$(cpu_us "$responder_pid") || fail "hv-sip-responder is gone before run $name"
    timeout $((duration + 60)) "$load_bin" --target "$target" --transport "$transport" \
        --connections "$connections" --concurrency "$concurrency" --duration "$duration" --json \
        >"$report/$name.json" 2>"$report/$name.err" || status=$?
    after=$(cpu_us "$responder_pid") || fail "hv-sip-responder died during run $name"
    [[ -s "$report/$name.err" ]] && sed "s/^/  $name: /" "$report/$name.err" >&2
    printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$name" "$transport" "$connections" "$concurrency" \
        "$status" "$name.json" "$((after - before))" >>"$report/runs.tsv"
}
run udp udp 1 "$udp_target"
run tcp-1 tcp 1 "$tcp_target"
run tcp-50 tcp 50 "$tcp_target"

# ------------------------------------------------------------ stop
rss_end=$(rss_kb "$responder_pid")
kill -TERM "$responder_pid"
responder_status=""
for _ in $(seq 200); do
    if ! alive "$responder_pid"; then
        responder_status=0
        wait "$responder_pid" || responder_status=$?
        break
    fi
    sleep 0.1
done
if [[ -z "$responder_status" ]]; then
    kill -KILL "$responder_pid" 2>/dev/null || true
    wait "$responder_pid" 2>/dev/null || true
    responder_status="did not stop within 20 s of SIGTERM"
fi
responder_pid=""
stopped=$(grep -m1 '^hv-sip-responder stopped: ' "$report/responder.out" || true)
leaks=$(grep 'leak:' "$report/responder.err" | paste -sd '|' || true)
{
    printf 'rss_start_kb\t%s\n' "$rss_start"
    printf 'rss_end_kb\t%s\n' "$rss_end"
    printf 'exit\t%s\n' "$responder_status"
    printf 'stopped\t%s\n' "$stopped"
    printf 'leaks\t%s\n' "$leaks"
} >"$report/responder.tsv"

# ------------------------------------------------------------ report
echo ""
report_status=0
python3 "$root/tools/sip_report.py" demo "$report" || report_status=$?
plot_status=0
(cd "$report" && gnuplot plots.gp >gnuplot.log 2>&1) || plot_status=$?
for png in calls-per-second.png latency.png; do
    [[ -s "$report/$png" ]] || plot_status=1
done
echo ""
echo "Responder allocator counts (--verbose): ${report#"$root"/}/responder.out"
echo "Plots: ${report#"$root"/}/calls-per-second.png ${report#"$root"/}/latency.png"
reasons=()
[[ $report_status -eq 0 ]] || reasons+=("a run, a transaction or the responder failed (problems above)")
[[ "$responder_status" == 0 ]] || reasons+=("hv-sip-responder exit status: $responder_status")
[[ $plot_status -eq 0 ]] || reasons+=("gnuplot (log: $report/gnuplot.log)")
if [[ ${#reasons[@]} -gt 0 ]]; then
    fail "$(printf '%s; ' "${reasons[@]}" | sed 's/; $//')"
fi
echo "PASSED: every run succeeded, no transaction failed, the responder stopped cleanly with no leak."
