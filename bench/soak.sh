#!/usr/bin/env bash
# Soak of hv-sip-responder under SIPp: its maximum rate is measured first
# (PROBE_SECONDS of unlimited rate with CONCURRENCY calls in flight, per
# transport), then SIPp drives it at half that rate for MINUTES worth of
# calls, in segments of SEGMENT_SECONDS worth that alternate UDP and TCP (a
# segment lasts longer when SIPp falls behind the rate), while the
# responder's VmRSS, open descriptors and threads are sampled every
# SAMPLE_SECONDS. At the end
# the responder gets SIGTERM and must exit 0 (its own check that every
# allocation was given back); the samples go to a CSV and a PNG plot and
# each goal gets a verdict line (tools/soak_report.py verdict):
#   0 failed calls; RSS growth after the first minute < 1 MiB; descriptors
#   and threads flat (the counts the responder settles at between segments
#   after the first minute differ by at most FLAT_LIMIT, default 0).
#
# TCP runs in SIPp's socket-per-call mode (-t tn): each call opens its own
# connection, at most CONCURRENCY at once, so connections are made and torn
# down all the time. -max_socket must stay above the calls in flight plus
# SIPp's own main socket: with -max_socket 50 (or 51) and 50 calls in flight,
# SIPp 3.6.1 sends a request on its main TCP socket, which tn mode never
# connects; the send fails with EPIPE and SIPp stops with "Broken pipe on TCP
# connection, remote peer probably closed the socket" before the responder
# has received a single byte (seen with strace; the responder counts 0
# requests). With -max_socket 60 no call ever lacks a socket of its own.
#
# Usage: bench/soak.sh [MINUTES]     (default 10; run as root on Debian 12,
#                                     or with sudo for the packages)
# Environment:
#   BUILD_DIR       Release tree with the responder (default build/release-demo;
#                   configured and built when the program is missing, or
#                   always with REBUILD=1)
#   OUT             result folder (default report/soak-<date>-<time>)
#   CONCURRENCY     calls in flight at most (default 50)
#   MAX_SOCKET      SIPp -max_socket for TCP (default CONCURRENCY + 10)
#   PROBE_SECONDS   length of each maximum-rate run (default 10)
#   SEGMENT_SECONDS length of one segment (default 60)
#   SAMPLE_SECONDS  sampling period (default 5)
#   WARMUP_SECONDS  what "the first minute" is (default 60)
#   FLAT_LIMIT      allowed max-min of the settled counts (default 0)
# Exit status: 0 when every goal is met, the responder exited 0 and no
# call failed; 1 otherwise.
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$(cd "$here/.." && pwd)"
minutes="${1:-10}"
[[ "$minutes" =~ ^[0-9]+$ && "$minutes" -gt 0 ]] || { echo "usage: $0 [MINUTES]" >&2; exit 2; }
build="${BUILD_DIR:-build/release-demo}"
[[ "$build" = /* ]] || build="$root/$build"
out="${OUT:-report/soak-$(date +%Y%m%d-%H%M%S)}"
[[ "$out" = /* ]] || out="$root/$out"
concurrency="${CONCURRENCY:-50}"
max_socket="${MAX_SOCKET:-$((concurrency + 10))}"
probe_seconds="${PROBE_SECONDS:-10}"
segment_seconds="${SEGMENT_SECONDS:-60}"
sample_seconds="${SAMPLE_SECONDS:-5}"
warmup_seconds="${WARMUP_SECONDS:-60}"
flat_limit="${FLAT_LIMIT:-0}"
scenario="$root/bench/sip/options-uac.xml"

# shellcheck source=tools/sip-common.sh
. "$root/tools/sip-common.sh"
# shellcheck source=tools/install-packages.sh
. "$root/tools/install-packages.sh"

# ------------------------------------------------------------ packages
packages=(cmake g++ make pkg-config python3 libace-dev liblog4cplus-dev libc-ares-dev
          sip-tester gnuplot-nox)
install_packages "${packages[@]}" || fail "could not install the packages"

# ------------------------------------------------------------ build
responder_bin="$build/apps/hv-sip-responder"
if [[ ! -x "$responder_bin" || "${REBUILD:-0}" == 1 ]]; then
    echo "Building hv-sip-responder in ${build#"$root"/} ..."
    mkdir -p "$build"
    cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DHV_BUILD_TESTS=OFF \
        >"$build/soak-configure.log" 2>&1 || fail "cmake configure ($build/soak-configure.log)"
    cmake --build "$build" -j"${JOBS:-$(nproc)}" --target hv-sip-responder \
        >"$build/soak-build.log" 2>&1 || fail "build ($build/soak-build.log)"
fi
mkdir -p "$out"

# ------------------------------------------------------------ helpers
responder_pid=""
sampler_pid=""
# Called from the EXIT trap only.
# shellcheck disable=SC2317
cleanup() {
    if [[ -n "$sampler_pid" ]]; then
        kill "$sampler_pid" 2>/dev/null || true
        wait "$sampler_pid" 2>/dev/null || true
    fi
    [[ -z "$responder_pid" ]] || stop_process "$responder_pid"
}
trap cleanup EXIT

fd_count() {
    local entries=("/proc/$1/fd/"*)
    echo "${#entries[@]}"
}

thread_count() {
    awk '/^Threads:/ { print $2 }' "/proc/$1/status"
}

seconds_since() {
    awk -v s="$1" -v n="$(date +%s%N)" 'BEGIN { printf "%.1f", (n - s) / 1e9 }'
}

# sipp_run NAME TRANSPORT LIMIT ARG...: one SIPp run against the responder
# under a time limit of LIMIT seconds, its statistics in OUT/NAME.csv and its
# screen in OUT/NAME.screen; returns SIPp's exit status (124: time limit).
sipp_run() {
    local name=$1 transport=$2 limit=$3 mode port
    shift 3
    if [[ "$transport" == udp ]]; then
        mode=(-t u1)
        port=$responder_udp
    else
        mode=(-t tn -max_socket "$max_socket")
        port=$responder_tcp
    fi
    rm -f "$out/$name.csv"
    timeout "$limit" sipp "127.0.0.1:$port" -sf "$scenario" "${mode[@]}" -i 127.0.0.1 -p 0 \
        -l "$concurrency" -rp 1000 -nostdin -trace_stat -stf "$out/$name.csv" -fd 1 "$@" \
        </dev/null >"$out/$name.screen" 2>&1
}

# ------------------------------------------------------------ responder
echo "Cores: $(nproc), nothing pinned; load average at the start: $(cut -d' ' -f1-3 /proc/loadavg)" \
    | tee "$out/machine.txt"
start_responder "$responder_bin" "$out"
echo "sipp $(sipp -v 2>&1 | sed -n 's/.*SIPp \(v[^ ]*\).*/\1/p' | head -1), up to $concurrency calls in" \
     "flight; TCP: -t tn -max_socket $max_socket (a connection per call)" | tee -a "$out/machine.txt"

# ------------------------------------------------------------ maximum rate
declare -A soak_rate
for transport in udp tcp; do
    status=0
    sipp_run "probe-$transport" "$transport" $((probe_seconds + 60)) -r 1000000 \
        -timeout "${probe_seconds}s" || status=$?
    maximum=$(python3 "$root/tools/soak_report.py" rate "$out/probe-$transport.csv") \
        || fail "no rate from the $transport probe (SIPp exit $status, $out/probe-$transport.screen)"
    soak_rate[$transport]=$(awk -v m="$maximum" 'BEGIN { r = int(m / 2); print (r < 1 ? 1 : r) }')
    echo "maximum $transport rate ${maximum} calls/s (SIPp exit $status); soak at ${soak_rate[$transport]} calls/s" \
        | tee -a "$out/machine.txt"
done

# ------------------------------------------------------------ soak
echo "t_s,transport,rss_kb,fds,threads" >"$out/samples.csv"
echo "segment,transport,t_s,fds,threads" >"$out/idle.csv"
: >"$out/segments.tsv"
: >"$out/transport.now"
start_ns=$(date +%s%N)
(
    # The sampler: one line every SAMPLE_SECONDS while the responder lives.
    while alive "$responder_pid"; do
        printf '%s,%s,%s,%s,%s\n' "$(seconds_since "$start_ns")" "$(cat "$out/transport.now")" \
            "$(rss_kb "$responder_pid")" "$(fd_count "$responder_pid")" \
            "$(thread_count "$responder_pid")" >>"$out/samples.csv"
        sleep "$sample_seconds"
    done
) &
sampler_pid=$!

total_seconds=$((minutes * 60))
segment=0
elapsed=0
calls_failed=0
while [[ $elapsed -lt $total_seconds ]]; do
    segment=$((segment + 1))
    [[ $((segment % 2)) -eq 1 ]] && transport=udp || transport=tcp
    length=$segment_seconds
    [[ $((total_seconds - elapsed)) -lt $length ]] && length=$((total_seconds - elapsed))
    rate=${soak_rate[$transport]}
    count=$((rate * length))
    echo "$transport" >"$out/transport.now"
    status=0
    name=$(printf 'segment-%02d-%s' "$segment" "$transport")
    sipp_run "$name" "$transport" $((length + 120)) -r "$rate" -m "$count" || status=$?
    read -r succeeded failed < <(python3 "$root/tools/sip_report.py" calls "$out/$name.csv" || echo "0 0")
    # SIPp falls behind the asked rate when it cannot keep up (its own
    # "Overload warning: the minor watchdog timer" lines in the screen file).
    achieved=$(python3 "$root/tools/soak_report.py" rate "$out/$name.csv" || echo 0)
    printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$segment" "$transport" "$rate" "$count" "$succeeded" \
        "$failed" "$status" "$achieved" >>"$out/segments.tsv"
    calls_failed=$((calls_failed + failed))
    # Settled: the same descriptor and thread counts twice, half a second
    # apart (at most 10 s), once the last call's connection has gone.
    echo "idle" >"$out/transport.now"
    previous=""
    for _ in $(seq 20); do
        current="$(fd_count "$responder_pid"),$(thread_count "$responder_pid")"
        [[ "$current" == "$previous" ]] && break
        previous=$current
        sleep 0.5
    done
    echo "$segment,$transport,$(seconds_since "$start_ns"),$current" >>"$out/idle.csv"
    printf '  segment %2d %s %5s calls/s x %3s s (achieved %s calls/s): %s ok, %s failed, SIPp exit %s;' \
        "$segment" "$transport" "$rate" "$length" "$achieved" "$succeeded" "$failed" "$status"
    printf ' settled fds,threads %s; RSS %s kB\n' "$current" "$(rss_kb "$responder_pid")"
    elapsed=$((elapsed + length))
done

kill "$sampler_pid" 2>/dev/null || true
wait "$sampler_pid" 2>/dev/null || true
sampler_pid=""
rm -f "$out/transport.now"

# ------------------------------------------------------------ stop
stop_process "$responder_pid"
responder_status=$stopped_status
responder_pid=""
grep -m1 '^hv-sip-responder stopped: ' "$out/responder.out" || true
[[ -s "$out/responder.err" ]] && sed 's/^/  responder stderr: /' "$out/responder.err"
echo "hv-sip-responder exit status after SIGTERM: $responder_status"
echo "Load average at the end: $(cut -d' ' -f1-3 /proc/loadavg)" | tee -a "$out/machine.txt"
echo ""

status=0
python3 "$root/tools/soak_report.py" verdict "$out" --warmup "$warmup_seconds" --flat-limit "$flat_limit" \
    || status=1
if command -v gnuplot >/dev/null; then
    (cd "$out" && gnuplot soak.gp) || echo "warning: gnuplot failed; no soak.png" >&2
fi
if [[ "$responder_status" == 0 ]]; then
    echo "goal responder exits 0 after SIGTERM (no leak): met" | tee -a "$out/verdict.txt"
else
    echo "goal responder exits 0 after SIGTERM (no leak): MISSED (status $responder_status)" \
        | tee -a "$out/verdict.txt"
    status=1
fi
[[ $calls_failed -eq 0 ]] || status=1
echo "Results: ${out#"$root"/} (samples.csv, idle.csv, segments.tsv, soak.png, verdict.txt)"
exit "$status"
