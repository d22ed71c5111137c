#!/usr/bin/env bash
# Kamailio as a stateless proxy (apps/kamailio/proxy.cfg) between hv-sip-load
# and hv-sip-responder: 5,000 calls over UDP, then 5,000 over TCP, none
# failed; every reply passes back through the proxy with two Vias (the
# proxy's on top of the generator's), as the proxy's reply log shows.
# shellcheck source=tests/interop/common.sh
. "$(dirname "$0")/common.sh"
require kamailio kamailio

calls=5000
responder responder
proxy_port=$(free_port)
kamailio_front "$root/apps/kamailio/proxy.cfg" "$proxy_port" -A WITH_REPLY_LOG \
    -A "RESPONDER_UDP=\"sip:127.0.0.1:$responder_udp\"" \
    -A "RESPONDER_TCP=\"sip:127.0.0.1:$responder_tcp;transport=tcp\""
echo "kamailio $(kamailio_version) on 127.0.0.1:$proxy_port in front of" \
     "udp $responder_udp and tcp $responder_tcp"

for transport in udp tcp; do
    load "kamailio-proxy-$transport" "$transport" "$proxy_port" "$calls"
done
stop "$kamailio_pid"
stop_responder responder "$responder_pid"

log="$out/kamailio.log"
for transport in udp tcp; do
    replies=$(grep -c "hv-proxy reply 200 vias=2 proto=$transport\$" "$log" || true)
    echo "kamailio-proxy-$transport: $replies replies with two Vias passed back through the proxy"
    [[ $replies -ge $calls ]] || fail "kamailio-proxy-$transport: expected $calls replies with two Vias"
done
others=$(grep 'hv-proxy reply' "$log" | grep -vc 'hv-proxy reply 200 vias=2 ' || true)
[[ $others == 0 ]] || fail "kamailio-proxy: $others replies were not 200 with two Vias"
