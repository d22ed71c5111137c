# shellcheck shell=bash
# Shared by the interoperability tests: the programs under test (from the
# environment ctest gives: HV_SIP_RESPONDER, HV_SIP_LOAD, HV_INTEROP_OUT),
# a fresh output folder, running the peers and checking what they report,
# and a clean-up that stops every process the test started. Sourced, not run.
set -euo pipefail

interop_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$interop_dir/../.." && pwd)
# shellcheck source=tools/sip-common.sh
. "$root/tools/sip-common.sh"

: "${HV_SIP_RESPONDER:?HV_SIP_RESPONDER must name the hv-sip-responder program}"
: "${HV_SIP_LOAD:?HV_SIP_LOAD must name the hv-sip-load program}"
out=${HV_INTEROP_OUT:-$(mktemp -d /tmp/hv-interop.XXXXXX)}
rm -rf "$out"
mkdir -p "$out"
echo "logs in $out"

# Every run of a peer or of the generator is bounded by this many seconds.
run_timeout=60

# require PROGRAM PACKAGE: the peer must be installed (tools/test.sh does it).
require() {
    command -v "$1" >/dev/null || fail "$1 is not installed (apt-get install -y $2)"
}

# Processes to stop at exit, in the order they were started.
started=()
# Called from the EXIT trap only.
# shellcheck disable=SC2317
stop_started() {
    local i
    for ((i = ${#started[@]} - 1; i >= 0; i--)); do
        stop_process "${started[i]}"
    done
}
trap stop_started EXIT

# stop PID: stops one of them now; its exit status goes to stopped_status.
stop() {
    local pid=$1 i
    stop_process "$pid"
    for i in "${!started[@]}"; do
        [[ "${started[i]}" != "$pid" ]] || unset 'started[i]'
    done
    started=("${started[@]}")
}

# responder NAME [OPTION...]: hv-sip-responder on 127.0.0.1, free ports, its
# output in $out/NAME; sets responder_udp and responder_tcp (sip-common.sh).
responder() {
    local name=$1
    shift
    mkdir -p "$out/$name"
    start_responder "$HV_SIP_RESPONDER" "$out/$name" "$@" >/dev/null
    started+=("$responder_pid")
}

# stop_responder NAME PID: SIGTERM; it must exit 0, which it does only when
# every allocator tag is back to its count at start (nothing leaked).
stop_responder() {
    local name=$1 pid=$2
    stop "$pid"
    [[ "$stopped_status" == 0 ]] \
        || fail "$name exited with status $stopped_status: $(cat "$out/$name/responder.err")"
    grep -m1 '^hv-sip-responder stopped: ' "$out/$name/responder.out"
}

# kamailio_front CONFIG PORT [ARG...]: Kamailio on 127.0.0.1:PORT (UDP and
# TCP), its log in $out/kamailio.log.
kamailio_front() {
    local config=$1 port=$2
    shift 2
    start_kamailio "$config" "$out" "$port" "$@"
    started+=("$kamailio_pid")
}

# wait_until_bound udp|tcp PORT PID: up to 10 s for PID (still running) to
# bind PORT on 127.0.0.1; true once binding it here fails.
wait_until_bound() {
    local transport=$1 port=$2 pid=$3
    for _ in $(seq 100); do
        python3 - "$transport" "$port" <<'PROBE' && return 0
import socket, sys
kind = socket.SOCK_DGRAM if sys.argv[1] == "udp" else socket.SOCK_STREAM
probe = socket.socket(socket.AF_INET, kind)
try:
    probe.bind(("127.0.0.1", int(sys.argv[2])))
except OSError:
    sys.exit(0)
sys.exit(1)
PROBE
        alive "$pid" || return 1
        sleep 0.1
    done
    return 1
}

# expect_calls LABEL RESULT EXPECTED: a SIPp statistics CSV or an hv-sip-load
# JSON result must report EXPECTED successful calls and no failed one.
expect_calls() {
    local label=$1 result=$2 expected=$3 counts succeeded failed
    counts=$(python3 "$root/tools/sip_report.py" calls "$result") \
        || fail "$label: no result in $result"
    read -r succeeded failed <<<"$counts"
    echo "$label: $succeeded calls succeeded, $failed failed"
    [[ "$failed" == 0 && "$succeeded" == "$expected" ]] \
        || fail "$label: expected $expected successful calls and none failed"
}

# sipp_uac LABEL SCENARIO TRANSPORT PORT CALLS: SIPp as UAC against
# 127.0.0.1:PORT, 50 calls in flight; it must exit 0 (no failed call) and
# report CALLS successful calls.
sipp_uac() {
    local label=$1 scenario=$2 transport=$3 port=$4 calls=$5 status=0
    timeout "$run_timeout" sipp "127.0.0.1:$port" -sf "$scenario" -t "${transport:0:1}1" \
        -i 127.0.0.1 -p "$(free_port)" -l 50 -r 20000 -rp 1000 -m "$calls" \
        -nostdin -trace_stat -stf "$out/$label.csv" -trace_err -error_file "$out/$label.errors" \
        </dev/null >"$out/$label.screen" 2>&1 || status=$?
    [[ $status == 0 ]] || { tail -n 20 "$out/$label.errors" "$out/$label.screen" >&2 || true
                            fail "$label: sipp exited with status $status"; }
    expect_calls "$label" "$out/$label.csv" "$calls"
}

# load LABEL TRANSPORT PORT CALLS [OPTION...]: hv-sip-load against
# 127.0.0.1:PORT; it must exit 0 with CALLS successful calls.
load() {
    local label=$1 transport=$2 port=$3 calls=$4 status=0
    shift 4
    timeout "$run_timeout" "$HV_SIP_LOAD" --target "127.0.0.1:$port" --transport "$transport" \
        --concurrency 50 --count "$calls" --json "$@" \
        </dev/null >"$out/$label.json" 2>"$out/$label.err" || status=$?
    [[ $status == 0 ]] || { cat "$out/$label.json" "$out/$label.err" >&2
                            fail "$label: hv-sip-load exited with status $status"; }
    expect_calls "$label" "$out/$label.json" "$calls"
}
