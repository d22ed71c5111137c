#!/usr/bin/env bash
# sipsak's OPTIONS ping to hv-sip-responder over UDP and over TCP; sipsak
# exits 0 only for a 200, and the reply it prints must be one.
# shellcheck source=tests/interop/common.sh
. "$(dirname "$0")/common.sh"
require sipsak sipsak

responder responder
for transport in udp tcp; do
    label="sipsak-$transport"
    port=responder_$transport
    status=0
    timeout "$run_timeout" sipsak -vv -E "$transport" -s "sip:hv@127.0.0.1:${!port}" \
        </dev/null >"$out/$label.out" 2>&1 || status=$?
    [[ $status == 0 ]] || { cat "$out/$label.out" >&2; fail "$label: sipsak exited with status $status"; }
    grep -qx $'SIP/2.0 200 OK\r\\?' "$out/$label.out" || fail "$label: no 200 in sipsak's output"
    echo "$label: 200 OK"
done
stop_responder responder "$responder_pid"
