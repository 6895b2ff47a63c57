#!/usr/bin/env bash
# End-to-end connection statistics: the highest packet rate at which the
# counts stay exact. A generator namespace sends UDP over a veth pair into a
# "dut" namespace where `nti stats` counts through its NFLOG rules. For every
# rate of a ladder, one fresh `nti stats` run counts SENDERS paced flows (new
# source ports) and the script compares:
#   arrived  packets the NFLOG input rule matched (its iptables counter)
#   counted  packets the flows' intervals hold (nti stats --json)
#   lost     NFLOG messages the listener missed (sequence gaps, receive
#            buffer overruns: its level-500 traces)
# A rate is exact when counted == arrived and nothing was lost.
# Prints one line per rate and the highest exact rate.
#
# Usage: bench/stats_e2e.sh [build-dir]   (root, python3, bc; default build/release)
# Env: RATES ("5000 10000 20000 40000 80000 160000 0", 0 = flat out),
#      STEP_SECONDS (3), PAYLOAD (18), NTI_CPU (1), TRAFFIC_CPU (0),
#      SENDERS (1; more senders take the CPUs after TRAFFIC_CPU in turn)
set -euo pipefail

BUILD=${1:-build/release}
RATES=${RATES:-"5000 10000 20000 40000 80000 160000 0"}
STEP_SECONDS=${STEP_SECONDS:-3}
PAYLOAD=${PAYLOAD:-18}
NTI_CPU=${NTI_CPU:-1}
TRAFFIC_CPU=${TRAFFIC_CPU:-0}
SENDERS=${SENDERS:-1}
NTI=$BUILD/host/nti
MODULE=$BUILD/network_traffic_interceptor/libnetwork_traffic_interceptor.so
BLAST=$BUILD/bench/udp_blast
for f in "$NTI" "$MODULE" "$BLAST"; do
  [ -e "$f" ] || { echo "missing $f: cmake --preset release && cmake --build $BUILD" >&2; exit 1; }
done
for tool in python3 bc; do
  command -v "$tool" >/dev/null || { echo "needs $tool" >&2; exit 1; }
done

source "$(dirname "$0")/netns_pair.sh"
netns_pair_setup sbench

in_dut() { ip netns exec "$DUT" "$@"; }

# input_rule_packets: the packet counter of nti's NFLOG input rule, or
# nothing while the rule is not there.
input_rule_packets() {
  in_dut iptables-save -c | sed -n 's/^\[\([0-9]*\):[0-9]*\] .*zolt_stats_in.*NFLOG.*/\1/p'
}

# step RATE: one nti stats run counting SENDERS flows that send RATE packets
# per second together.
step() {
  local rate=$1 out=$WORK/stats.$1 trace=$WORK/trace.$1 sink=$WORK/sink.$1
  ip netns exec "$DUT" taskset -c "$NTI_CPU" "$NTI" --module "$MODULE" --state-dir "$WORK/state" \
    --trace-level 500 --trace-file "$trace" stats --period 1 --json --ip6tables no --unregister \
    --alignment registration >"$out" &
  local nti=$!
  for _ in $(seq 100); do [ -n "$(input_rule_packets)" ] && break; sleep 0.1; done
  [ -n "$(input_rule_packets)" ] || { echo "nti stats did not install its rules" >&2; cat "$trace" >&2; exit 1; }
  ip netns exec "$DUT" taskset -c "$TRAFFIC_CPU" "$BLAST" sink 198.18.0.2 5000 $((STEP_SECONDS + 1)) >"$sink" &
  local sinkPid=$!
  for _ in $(seq 100); do grep -q ready "$sink" && break; sleep 0.1; done
  local before sent arrived
  before=$(input_rule_packets)
  # SENDERS flows share the rate; the second one runs on the other CPU.
  local senders=() i
  for i in $(seq "$SENDERS"); do
    ip netns exec "$GEN" taskset -c $(((TRAFFIC_CPU + i - 1) % $(nproc))) "$BLAST" send 198.18.0.2 \
      5000 "$STEP_SECONDS" "$PAYLOAD" "$(echo "$rate / $SENDERS" | bc -l)" >"$WORK/sent.$rate.$i" &
    senders+=($!)
  done
  wait "${senders[@]}"
  sent=$(cat "$WORK"/sent."$rate".* | awk '{s += $2} END {print s}')
  wait "$sinkPid" || true
  arrived=$(($(input_rule_packets) - before))
  # Two periods for the last interval to close and be printed.
  sleep 2.5
  kill -TERM "$nti"
  wait "$nti" || true
  local counted lost overruns
  counted=$(python3 - "$out" <<'EOF'
import json, sys
total = 0
for line in open(sys.argv[1]):
    line = line.strip()
    if line.startswith("{"):
        for c in json.loads(line)["connections"]:
            if c.get("localPort") == 5000 and c.get("ipProtocol") == 17:
                total += c["packetsReceived"]
print(total)
EOF
)
  lost=$(sed -n 's/.*lost \([0-9]*\) log messages.*/\1/p' "$trace" | awk '{s += $1} END {print s + 0}')
  overruns=$(grep -c 'receive buffer overrun' "$trace" || true)
  local exact=no
  [ "$counted" -eq "$arrived" ] && [ "$lost" -eq 0 ] && [ "$overruns" -eq 0 ] && exact=yes
  printf '%s %s %s %s %s %s %s %s\n' "${rate/#0/max}" "$((arrived / STEP_SECONDS))" "$sent" \
    "$arrived" "$counted" "$lost" "$overruns" "$exact"
}

echo "# ${STEP_SECONDS}s per rate, ${PAYLOAD}-byte UDP payloads, $SENDERS sender(s), nti on CPU $NTI_CPU, traffic from CPU $TRAFFIC_CPU"
echo "# rate arrived_pps sent arrived counted lost overruns exact"
best=0
for rate in $RATES; do
  line=$(step "$rate")
  echo "$line"
  set -- $line
  [ "$8" = yes ] && [ "$2" -gt "$best" ] && best=$2
done
echo "highest exact rate: $best packets/s"
