#!/usr/bin/env bash
# SIPp as UAC against hv-sip-responder: 5,000 OPTIONS over UDP and 5,000
# over TCP (one connection), then 200 per transport written in compact forms
# with three Vias, whose replies the scenario checks header by header.
# shellcheck source=tests/interop/common.sh
. "$(dirname "$0")/common.sh"
require sipp sip-tester

responder responder
for transport in udp tcp; do
    port=responder_$transport
    sipp_uac "sipp-uac-$transport" "$root/bench/sip/options-uac.xml" "$transport" "${!port}" 5000
    sipp_uac "sipp-uac-compact-$transport" "$interop_dir/sipp/options-compact-uac.xml" \
        "$transport" "${!port}" 200
done
stop_responder responder "$responder_pid"
