#!/usr/bin/env bash
# Scaling out: Kamailio's dispatcher (apps/kamailio/dispatcher.cfg, round
# robin) in front of two hv-sip-responder processes. hv-sip-load sends 10,000
# calls over UDP, then 10,000 over TCP, to the balancer: none may fail, and
# each responder must have answered about half of each run, as its --stats
# lines count them.
# shellcheck source=tests/interop/common.sh
. "$(dirname "$0")/common.sh"
require kamailio kamailio

calls=10000
responder r1 --stats
r1_pid=$responder_pid
r1_udp=$responder_udp
r1_tcp=$responder_tcp
responder r2 --stats
r2_pid=$responder_pid
cat >"$out/dispatcher.list" <<LIST
1 sip:127.0.0.1:$r1_udp
1 sip:127.0.0.1:$responder_udp
2 sip:127.0.0.1:$r1_tcp;transport=tcp
2 sip:127.0.0.1:$responder_tcp;transport=tcp
LIST
balancer_port=$(free_port)
kamailio_front "$root/apps/kamailio/dispatcher.cfg" "$balancer_port" \
    -A "DISPATCHER_LIST=\"$out/dispatcher.list\""
echo "kamailio $(kamailio_version) dispatcher on 127.0.0.1:$balancer_port in front of" \
     "r1 (udp $r1_udp, tcp $r1_tcp) and r2 (udp $responder_udp, tcp $responder_tcp)"

# 200s a responder has answered so far: the sum of its --stats lines.
answered() {
    awk '/^stats / { for (i = 2; i <= NF; i++) if ($i ~ /^200=/) n += substr($i, 5) }
         END { print n + 0 }' "$out/$1/responder.out"
}
# Up to 5 s until a responder has printed a stats line for an idle second,
# so every call of the run is in its counts.
wait_idle() {
    local lines
    lines=$(wc -l <"$out/$1/responder.out")
    for _ in $(seq 50); do
        tail -n +"$((lines + 1))" "$out/$1/responder.out" | grep -q '^stats requests/s=0 ' && return 0
        sleep 0.1
    done
    fail "$1 printed no idle stats line"
}

for transport in udp tcp; do
    label="kamailio-dispatcher-$transport"
    r1_before=$(answered r1)
    r2_before=$(answered r2)
    load "$label" "$transport" "$balancer_port" "$calls"
    wait_idle r1
    wait_idle r2
    r1_share=$(($(answered r1) - r1_before))
    r2_share=$(($(answered r2) - r2_before))
    echo "$label: r1 answered $r1_share, r2 answered $r2_share"
    for share in "$r1_share" "$r2_share"; do
        [[ $share -ge $((calls * 2 / 5)) && $share -le $((calls * 3 / 5)) ]] \
            || fail "$label: a responder answered $share of $calls calls, not about half"
    done
    [[ $((r1_share + r2_share)) -ge $calls ]] \
        || fail "$label: the responders answered $((r1_share + r2_share)) of $calls calls"
done
stop "$kamailio_pid"
stop_responder r1 "$r1_pid"
stop_responder r2 "$r2_pid"
