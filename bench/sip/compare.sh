#!/usr/bin/env bash
# hv-sip-responder and hv-sip-load measured against Debian's Kamailio and SIPp
# on loopback (see README.md in this directory):
#   1. hv-sip-responder against Kamailio (stateless sl replies, kamailio.cfg),
#      each driven by SIPp with options-uac.xml at CONCURRENCY calls in
#      flight, UDP and TCP (one connection), runs alternating between the two
#      servers: CPU microseconds per call of the server's processes (/proc)
#      and calls/s.
#   2. hv-sip-load against SIPp, both driving Kamailio: calls per second of
#      the generator's own CPU (calls per core-second).
#   3. hv-sip-responder's VmRSS sampled every second over RSS_SECONDS at full
#      load (hv-sip-load, UDP): start, after warm-up, end, slope.
# Prints one side-by-side table and the goal verdicts. Nothing is pinned: the
# servers and the generators share the machine's cores.
#
# Usage: bench/sip/compare.sh        (run as root on Debian 12, or with sudo)
# Environment:
#   BUILD_DIR    Release tree with the programs (default build/release-demo;
#                configured and built when the programs are missing)
#   OUT          result folder (default report/compare-<date>-<time>)
#   COUNT        calls per run (default 50000)
#   REPS         repetitions of each run, alternating (default 2)
#   CONCURRENCY  calls in flight (default 50)
#   RSS_SECONDS  length of the RSS run (default 60; 0 skips it)
#   PERF=1       also record perf profiles (linux-perf) of the responder and
#                of hv-sip-load, each over one UDP run against Kamailio/the
#                responder; the top of each report goes to OUT/perf-*.txt
# Exit status: 0 when every run completed without failed calls (goals met or
# not), 1 otherwise.
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$(cd "$here/../.." && pwd)"
build="${BUILD_DIR:-build/release-demo}"
[[ "$build" = /* ]] || build="$root/$build"
out="${OUT:-report/compare-$(date +%Y%m%d-%H%M%S)}"
[[ "$out" = /* ]] || out="$root/$out"
count="${COUNT:-50000}"
reps="${REPS:-2}"
concurrency="${CONCURRENCY:-50}"
rss_seconds="${RSS_SECONDS:-60}"
run_timeout=180

# shellcheck source=tools/sip-common.sh
. "$root/tools/sip-common.sh"
# shellcheck source=tools/install-packages.sh
. "$root/tools/install-packages.sh"

# ------------------------------------------------------------ packages
packages=(cmake g++ make pkg-config python3 libace-dev liblog4cplus-dev libc-ares-dev
          kamailio sip-tester gnuplot-nox)
[[ "${PERF:-0}" == 1 ]] && packages+=(linux-perf)
install_packages "${packages[@]}" || fail "could not install the packages"
quiet_packaged_kamailio

# ------------------------------------------------------------ build
responder_bin="$build/apps/hv-sip-responder"
load_bin="$build/apps/hv-sip-load"
if [[ ! -x "$responder_bin" || ! -x "$load_bin" ]]; then
    echo "Building the programs in ${build#"$root"/} ..."
    mkdir -p "$build"
    cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DHV_BUILD_TESTS=OFF \
        >"$build/compare-configure.log" 2>&1 || fail "cmake configure ($build/compare-configure.log)"
    cmake --build "$build" -j"${JOBS:-$(nproc)}" --target hv-sip-responder hv-sip-load \
        >"$build/compare-build.log" 2>&1 || fail "build ($build/compare-build.log)"
fi
mkdir -p "$out"

# ------------------------------------------------------------ helpers
now_ns() {
    date +%s%N
}

kamailio_pid=""
responder_pid=""
# Called from the EXIT trap only.
# shellcheck disable=SC2317
cleanup() {
    [[ -z "$responder_pid" ]] || stop_process "$responder_pid"
    [[ -z "$kamailio_pid" ]] || stop_process "$kamailio_pid"
}
trap cleanup EXIT

# ------------------------------------------------------------ servers
echo "Cores: $(nproc) ($(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'))," \
     "nothing pinned; load average at the start: $(cut -d' ' -f1-3 /proc/loadavg)" \
    | tee "$out/machine.txt"

kamailio_port=$(free_port)
start_kamailio "$here/kamailio.cfg" "$out" "$kamailio_port"
read -r -a kamailio_pids <<<"$(kamailio_processes)"
echo "kamailio $(kamailio_version) on 127.0.0.1:$kamailio_port" \
     "(${#kamailio_pids[@]} processes)"

start_responder "$responder_bin" "$out"
echo "sipp $(sipp -v 2>&1 | sed -n 's/.*SIPp \(v[^ ]*\).*/\1/p' | head -1)," \
     "$concurrency calls in flight, $count calls per run, $reps runs each"

# ------------------------------------------------------------ runs
: >"$out/runs.tsv"

# One run: SERVER (hv-sip-responder|kamailio) GENERATOR (sipp|hv-sip-load)
# TRANSPORT (udp|tcp) REPETITION.
run() {
    local server=$1 generator=$2 transport=$3 rep=$4 port pids name result
    local before after start end status=0 gen_cpu
    if [[ "$server" == kamailio ]]; then
        port=$kamailio_port
        read -r -a pids <<<"$(kamailio_processes)"
    else
        [[ "$transport" == udp ]] && port=$responder_udp || port=$responder_tcp
        pids=("$responder_pid")
    fi
    name="$server-$generator-$transport-$rep"
    printf '  %-44s' "$name"
    before=$(cpu_us "${pids[@]}")
    start=$(now_ns)
    if [[ "$generator" == sipp ]]; then
        result="$name.csv"
        rm -f "$out/$result"
        timeout "$run_timeout" python3 "$root/tools/sip_report.py" rusage --out "$out/$name.cpu" -- \
            sipp "127.0.0.1:$port" -sf "$here/options-uac.xml" -t "${transport:0:1}1" \
            -i 127.0.0.1 -p 0 -l "$concurrency" -r 1000000 -rp 1000 -m "$count" \
            -nostdin -trace_stat -stf "$out/$result" -fd 1 \
            </dev/null >"$out/$name.screen" 2>&1 || status=$?
    else
        result="$name.json"
        timeout "$run_timeout" python3 "$root/tools/sip_report.py" rusage --out "$out/$name.cpu" -- \
            "$load_bin" --target "127.0.0.1:$port" --transport "$transport" --connections 1 \
            --concurrency "$concurrency" --count "$count" --json \
            </dev/null >"$out/$result" 2>"$out/$name.err" || status=$?
    fi
    end=$(now_ns)
    after=$(cpu_us "${pids[@]}")
    gen_cpu=$(cat "$out/$name.cpu" 2>/dev/null || echo 0)
    local wall
    wall=$(awk -v s="$start" -v e="$end" 'BEGIN { printf "%.6f", (e - s) / 1e9 }')
    printf 'exit %-3s %6.2f s  server CPU %6.2f s  generator CPU %6.2f s\n' "$status" "$wall" \
        "$(awk -v v=$((after - before)) 'BEGIN { print v / 1e6 }')" \
        "$(awk -v v="$gen_cpu" 'BEGIN { print v / 1e6 }')"
    printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$server" "$generator" "$transport" "$rep" \
        "$status" "$result" "$wall" "$((after - before))" "$gen_cpu" >>"$out/runs.tsv"
}

for rep in $(seq "$reps"); do
    echo "Repetition $rep of $reps"
    for transport in udp tcp; do
        run hv-sip-responder sipp "$transport" "$rep"
        run kamailio sipp "$transport" "$rep"
        run kamailio hv-sip-load "$transport" "$rep"
    done
done

# SIPp's socket-per-call TCP mode, capped at 50 sockets, is tried once per
# server; it is not part of the table.
for server in hv-sip-responder kamailio; do
    [[ "$server" == kamailio ]] && port=$kamailio_port || port=$responder_tcp
    status=0
    timeout 60 sipp "127.0.0.1:$port" -sf "$here/options-uac.xml" -t tn -max_socket 50 \
        -i 127.0.0.1 -p 0 -l "$concurrency" -r 1000000 -rp 1000 -m 2000 -nostdin \
        </dev/null >"$out/$server-sipp-tn.screen" 2>&1 || status=$?
    echo "  sipp -t tn -max_socket 50 against $server: exit $status" \
         "$(grep -m1 -o 'Broken pipe[^,]*' "$out/$server-sipp-tn.screen" || true)" \
        | tee -a "$out/sipp-tn.txt"
done

# ------------------------------------------------------------ profiles
# A Release build keeps no frame pointers, so the call graphs are unwound
# from DWARF; a few seconds are plenty and keep the data files small enough.
profile_report() {
    local data=$1 name=$2
    perf report -i "$data" --no-children --stdio -g none --sort dso,sym --percent-limit 0.5 \
        2>/dev/null | grep -v '^#' | grep -v '^$' | head -40 >"$out/perf-$name.txt" || true
    perf report -i "$data" --no-children --stdio -G --percent-limit 2 2>/dev/null \
        | grep -v '^#' | grep -vE '^[ |]*$' | head -200 >"$out/perf-$name-calls.txt" || true
    rm -f "$data"
}
if [[ "${PERF:-0}" == 1 ]]; then
    echo "Profiling (perf record --call-graph dwarf) ..."
    timeout "$run_timeout" "$load_bin" --target "127.0.0.1:$responder_udp" --transport udp \
        --concurrency "$concurrency" --duration 6 --json >"$out/perf-responder-load.json" 2>/dev/null &
    load_pid=$!
    sleep 1
    perf record -q --call-graph dwarf,16384 -o "$out/perf-responder.data" -p "$responder_pid" \
        -- sleep 3 >/dev/null 2>&1 || true
    wait "$load_pid" || true
    profile_report "$out/perf-responder.data" responder
    timeout "$run_timeout" perf record -q --call-graph dwarf,16384 -o "$out/perf-load.data" -- \
        "$load_bin" --target "127.0.0.1:$kamailio_port" --transport udp \
        --concurrency "$concurrency" --duration 3 --json >"$out/perf-load-kamailio.json" \
        2>/dev/null || true
    profile_report "$out/perf-load.data" load
    echo "  $out/perf-responder.txt, $out/perf-load.txt (and *-calls.txt)"
fi

# ------------------------------------------------------------ RSS
: >"$out/rss.tsv"
rss_status=0
if [[ "$rss_seconds" -gt 0 ]]; then
    echo "Responder RSS over ${rss_seconds} s at full load (hv-sip-load, UDP, $concurrency in flight) ..."
    "$load_bin" --target "127.0.0.1:$responder_udp" --transport udp --concurrency "$concurrency" \
        --duration "$rss_seconds" --json >"$out/rss-load.json" 2>"$out/rss-load.err" &
    load_pid=$!
    start=$(now_ns)
    while alive "$load_pid"; do
        awk -v s="$start" -v n="$(now_ns)" -v kb="$(awk '/^VmRSS:/ { print $2 }' \
            "/proc/$responder_pid/status")" 'BEGIN { printf "%.3f\t%d\n", (n - s) / 1e9, kb }' \
            >>"$out/rss.tsv"
        sleep 1
    done
    wait "$load_pid" || rss_status=$?
    [[ $rss_status -eq 0 ]] || echo "  hv-sip-load exited with status $rss_status during the RSS run" >&2
fi

# ------------------------------------------------------------ stop
stop_process "$responder_pid"
responder_status=$stopped_status
responder_pid=""
stop_process "$kamailio_pid"
kamailio_status=$stopped_status
kamailio_pid=""
grep -m1 '^hv-sip-responder stopped: ' "$out/responder.out" || true
echo "hv-sip-responder exit status: $responder_status; kamailio exit status: $kamailio_status"
echo "Load average at the end: $(cut -d' ' -f1-3 /proc/loadavg)" | tee -a "$out/machine.txt"
echo ""
status=0
python3 "$root/tools/sip_report.py" compare "$out" || status=$?
echo "Results: ${out#"$root"/}"
[[ "$responder_status" == 0 ]] || { echo "FAILED: hv-sip-responder exit status $responder_status" >&2; status=1; }
[[ $rss_status -eq 0 ]] || { echo "FAILED: hv-sip-load exit status $rss_status in the RSS run" >&2; status=1; }
exit "$status"
