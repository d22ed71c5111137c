#!/usr/bin/env bash
# sofia-sip's sip-options queries hv-sip-responder over UDP and over TCP;
# each must print a 200 with the Allow list.
# shellcheck source=tests/interop/common.sh
. "$(dirname "$0")/common.sh"
require sip-options sofia-sip-bin

responder responder
for transport in udp tcp; do
    label="sofia-sip-$transport"
    if [[ $transport == udp ]]; then
        uri="sip:hv@127.0.0.1:$responder_udp"
    else
        uri="sip:hv@127.0.0.1:$responder_tcp;transport=tcp"
    fi
    status=0
    timeout "$run_timeout" sip-options "$uri" </dev/null >"$out/$label.out" 2>&1 || status=$?
    cat "$out/$label.out"
    [[ $status == 0 ]] || fail "$label: sip-options exited with status $status"
    status_line=$(head -n1 "$out/$label.out")
    [[ "${status_line%$'\r'}" == "SIP/2.0 200 OK" ]] || fail "$label: no 200"
    grep -qx 'Allow: OPTIONS' "$out/$label.out" || fail "$label: no Allow list"
    echo "$label: 200 OK with Allow: OPTIONS"
done
stop_responder responder "$responder_pid"
