# shellcheck shell=bash
# Shell functions shared by tools/demo.sh, bench/sip/compare.sh and the
# interoperability tests (tests/interop): process state and CPU time from
# /proc, free ports, and starting and stopping hv-sip-responder and Kamailio.
# Sourced, not run.

clock_ticks=$(getconf CLK_TCK)

fail() {
    echo "" >&2
    echo "FAILED: $*" >&2
    exit 1
}

# True while the process runs; an exited child stays a zombie until it is
# waited for, and kill -0 still succeeds on a zombie.
alive() {
    local stat
    stat=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
    [[ "${stat##*) }" != Z* ]]
}

# utime+stime in microseconds summed over the given processes (fields 14 and
# 15 of /proc/PID/stat; the command name in field 2 may hold spaces).
cpu_us() {
    local pid stat fields ticks=0
    for pid in "$@"; do
        stat=$(cat "/proc/$pid/stat" 2>/dev/null) || continue
        read -r -a fields <<<"${stat##*) }"
        ticks=$((ticks + fields[11] + fields[12]))
    done
    echo $((ticks * 1000000 / clock_ticks))
}

rss_kb() {
    awk '/^VmRSS:/ { print $2 }' "/proc/$1/status"
}

# start_responder BINARY OUTDIR [OPTION...]: starts the responder on
# 127.0.0.1 with ports chosen by the kernel, its output in OUTDIR, and waits
# for its listening line. Sets responder_pid, responder_address,
# responder_udp and responder_tcp; fails when it does not come up.
start_responder() {
    local binary=$1 outdir=$2 listening=""
    shift 2
    "$binary" --address 127.0.0.1 --port 0 "$@" >"$outdir/responder.out" 2>"$outdir/responder.err" &
    responder_pid=$!
    for _ in $(seq 150); do
        listening=$(grep -m1 '^hv-sip-responder listening on ' "$outdir/responder.out" || true)
        [[ -n "$listening" ]] && break
        alive "$responder_pid" || break
        sleep 0.1
    done
    if [[ ! "$listening" =~ udp\ ([0-9.]+):([0-9]+)\ tcp\ [0-9.]+:([0-9]+) ]]; then
        cat "$outdir/responder.err" >&2
        fail "hv-sip-responder did not print its listening line"
    fi
    # shellcheck disable=SC2034  # read by the scripts that source this file
    responder_address=${BASH_REMATCH[1]}
    # shellcheck disable=SC2034
    responder_udp=${BASH_REMATCH[2]}
    # shellcheck disable=SC2034
    responder_tcp=${BASH_REMATCH[3]}
    echo "$listening"
}

# A port that is free for both UDP and TCP on 127.0.0.1.
free_port() {
    python3 - <<'EOF'
import socket
for _ in range(200):
    tcp = socket.socket()
    tcp.bind(("127.0.0.1", 0))
    port = tcp.getsockname()[1]
    udp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    try:
        udp.bind(("127.0.0.1", port))
        print(port)
        break
    except OSError:
        pass
    finally:
        udp.close()
        tcp.close()
EOF
}

# SIGTERM, then up to 20 s for the process to end; its exit status (or
# "killed") goes to stopped_status. Runs in this shell, not in $(...): only
# the parent can wait for a child's status.
# shellcheck disable=SC2034  # read by the scripts that source this file
stopped_status=""
# shellcheck disable=SC2034
stop_process() {
    local pid=$1
    stopped_status=""
    [[ -n "$pid" ]] || return 0
    kill -TERM "$pid" 2>/dev/null || true
    for _ in $(seq 200); do
        if ! alive "$pid"; then
            stopped_status=0
            wait "$pid" 2>/dev/null || stopped_status=$?
            return 0
        fi
        sleep 0.1
    done
    kill -KILL "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
    stopped_status="killed"
}

# start_kamailio CONFIG OUTDIR PORT [ARG...]: Kamailio in the foreground
# (-DD -E) on 127.0.0.1:PORT for UDP and TCP, its log in OUTDIR/kamailio.log
# and its runtime files in OUTDIR/kamailio-run; ARGs go to kamailio (-A
# defines). Waits until it accepts TCP connections; sets kamailio_pid and
# fails when it does not come up.
start_kamailio() {
    local config=$1 outdir=$2 port=$3
    shift 3
    mkdir -p "$outdir/kamailio-run"
    kamailio -DD -E -f "$config" -m 64 -M 8 \
        -l "udp:127.0.0.1:$port" -l "tcp:127.0.0.1:$port" \
        -Y "$outdir/kamailio-run" -w "$outdir/kamailio-run" "$@" >"$outdir/kamailio.log" 2>&1 &
    kamailio_pid=$!
    for _ in $(seq 100); do
        if python3 -c "import socket; socket.create_connection(('127.0.0.1', $port), 1)" \
            2>/dev/null; then
            return 0
        fi
        alive "$kamailio_pid" || break
        sleep 0.1
    done
    cat "$outdir/kamailio.log" >&2
    fail "kamailio did not start"
}

# The main Kamailio process and the receivers and timers it forked.
kamailio_processes() {
    echo "$kamailio_pid" $(pgrep -P "$kamailio_pid")
}

kamailio_version() {
    kamailio -v | sed -n 's/^version: kamailio \([^ ]*\).*/\1/p'
}

# The packaged service would hold port 5060 and take CPU time of its own.
quiet_packaged_kamailio() {
    local sudo=""
    [[ "$(id -u)" -eq 0 ]] || sudo="sudo"
    if command -v systemctl >/dev/null && systemctl is-active --quiet kamailio 2>/dev/null; then
        echo "Stopping and disabling the packaged kamailio service"
        $sudo systemctl stop kamailio
        $sudo systemctl disable --quiet kamailio || true
    fi
    if pgrep -x kamailio >/dev/null; then
        echo "warning: another kamailio is running (pids $(pgrep -x kamailio | tr '\n' ' '));" \
             "it shares the cores with these runs" >&2
    fi
}
