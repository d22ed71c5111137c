# shellcheck shell=bash
# Shell functions shared by tools/demo.sh and bench/sip/compare.sh: process
# state and CPU time from /proc, and starting hv-sip-responder on free ports.
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
