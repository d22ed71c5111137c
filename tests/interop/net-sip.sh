#!/usr/bin/env bash
# Perl's Net::SIP sends OPTIONS to hv-sip-responder over UDP and over TCP;
# net-sip-options.pl checks status, Call-ID, CSeq, From tag and To tag.
# shellcheck source=tests/interop/common.sh
. "$(dirname "$0")/common.sh"
perl -MNet::SIP -e 1 2>/dev/null || fail "Net::SIP is not installed (apt-get install -y libnet-sip-perl)"

responder responder
for transport in udp tcp; do
    label="net-sip-$transport"
    port=responder_$transport
    status=0
    timeout "$run_timeout" perl "$interop_dir/net-sip-options.pl" "$transport" "${!port}" \
        </dev/null >"$out/$label.out" 2>&1 || status=$?
    cat "$out/$label.out"
    [[ $status == 0 ]] || fail "$label: net-sip-options.pl exited with status $status"
done
stop_responder responder "$responder_pid"
