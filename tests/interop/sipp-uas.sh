#!/usr/bin/env bash
# hv-sip-load against SIPp as UAS (options-uas.xml answers each OPTIONS with
# 200): 5,000 calls over UDP, then 5,000 over TCP. Both sides must count
# 5,000 successful calls and no failed one.
# shellcheck source=tests/interop/common.sh
. "$(dirname "$0")/common.sh"
require sipp sip-tester

calls=5000
for transport in udp tcp; do
    label="sipp-uas-$transport"
    port=$(free_port)
    sipp -sf "$interop_dir/sipp/options-uas.xml" -t "${transport:0:1}1" -i 127.0.0.1 -p "$port" \
        -m "$calls" -nostdin -trace_stat -stf "$out/$label.csv" \
        -trace_err -error_file "$out/$label.errors" </dev/null >"$out/$label.screen" 2>&1 &
    sipp_pid=$!
    started+=("$sipp_pid")
    wait_until_bound "$transport" "$port" "$sipp_pid" || fail "$label: sipp did not bind port $port"
    load "hv-sip-load-to-$label" "$transport" "$port" "$calls"
    # SIPp ends by itself after its last call.
    for _ in $(seq 100); do
        alive "$sipp_pid" || break
        sleep 0.1
    done
    stop "$sipp_pid"
    [[ "$stopped_status" == 0 ]] || fail "$label: sipp exited with status $stopped_status"
    expect_calls "$label" "$out/$label.csv" "$calls"
done
