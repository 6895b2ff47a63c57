#!/usr/bin/env bash
# End-to-end interception throughput: 64-byte frames (18-byte UDP payload)
# from a generator namespace over a veth pair into a "dut" namespace holding
# the rule, the consumer and a UDP sink. Three paths, interleaved per round:
#   kernel  no rule: the plain kernel path
#   peer    NFQUEUE rule + bench/nfq_peer (libnetfilter_queue, immediate accept)
#   nti     nti intercept --verdict allow --quiet (its own rule)
# The consumer is pinned to CONSUMER_CPU, generator and sink to TRAFFIC_CPU.
# Prints one line per run and the medians (all columns of the table are
# medians over the rounds). Background jobs are started with
# `ip netns exec` directly so that $! is the program itself (ip and taskset
# exec into it) and SIGTERM reaches it.
#
# Usage: bench/intercept_e2e.sh [build-dir]   (root; default build/release)
# Env: ROUNDS (3), RUN_SECONDS (5), CONSUMER_CPU (1), TRAFFIC_CPU (0)
set -euo pipefail

BUILD=${1:-build/release}
ROUNDS=${ROUNDS:-3}
RUN_SECONDS=${RUN_SECONDS:-5}
CONSUMER_CPU=${CONSUMER_CPU:-1}
TRAFFIC_CPU=${TRAFFIC_CPU:-0}
NTI=$BUILD/host/nti
MODULE=$BUILD/network_traffic_interceptor/libnetwork_traffic_interceptor.so
BLAST=$BUILD/bench/udp_blast
PEER=$BUILD/bench/nfq_peer
for f in "$NTI" "$MODULE" "$BLAST" "$PEER"; do
  [ -e "$f" ] || { echo "missing $f: cmake --preset release && cmake --build $BUILD" >&2; exit 1; }
done

source "$(dirname "$0")/netns_pair.sh"
netns_pair_setup bench

in_dut() { ip netns exec "$DUT" "$@"; }
in_gen() { ip netns exec "$GEN" "$@"; }

# wait_for FILE TEXT: up to 10 s for TEXT to show in FILE.
wait_for() {
  for _ in $(seq 100); do grep -q "$2" "$1" 2>/dev/null && return 0; sleep 0.1; done
  echo "timed out waiting for '$2' in $1" >&2; cat "$1" >&2; return 1
}

# rcvbuf_errors: UDP datagrams the dut dropped for a full socket buffer.
rcvbuf_errors() {
  in_dut awk '/^Udp:/ { if (seen++) print $6 }' /proc/net/snmp
}

# queue_drops QUEUE: "queue_dropped user_dropped" of a bound queue.
queue_drops() {
  in_dut awk -v q="$1" '$1 == q { print $6, $7 }' /proc/net/netfilter/nfnetlink_queue
}

# run PATH: one measured run; prints "PATH sent received queue_dropped
# user_dropped sink_rcvbuf_errors".
run() {
  local path=$1 consumer=""
  local out=$WORK/$path.out err=$WORK/$path.err sink=$WORK/sink.out
  : >"$out"; : >"$err"
  case $path in
    peer)
      in_dut iptables -A INPUT -p udp --dport 5000 -j NFQUEUE --queue-num 2000
      ip netns exec "$DUT" taskset -c "$CONSUMER_CPU" "$PEER" 2000 $((RUN_SECONDS + 20)) >"$out" 2>"$err" &
      consumer=$!; wait_for "$out" ready ;;
    nti)
      ip netns exec "$DUT" taskset -c "$CONSUMER_CPU" "$NTI" --module "$MODULE" intercept --verdict allow \
        --quiet --proto udp --local-port 5000 --queue-range 2000-2099 --json >"$out" 2>"$err" &
      consumer=$!; wait_for "$err" "intercepting on queues" ;;
  esac
  ip netns exec "$DUT" taskset -c "$TRAFFIC_CPU" "$BLAST" sink 198.18.0.2 5000 $((RUN_SECONDS + 1)) >"$sink" &
  local sinkPid=$!
  wait_for "$sink" ready
  local rcvbuf0 sent
  rcvbuf0=$(rcvbuf_errors)
  sent=$(in_gen taskset -c "$TRAFFIC_CPU" "$BLAST" send 198.18.0.2 5000 "$RUN_SECONDS" 18 | awk '{print $2}')
  local drops="0 0"
  [ "$path" = peer ] && drops=$(queue_drops 2000)
  wait "$sinkPid"
  local received
  received=$(awk '/received/ {print $2}' "$sink")
  local rcvbuf=$(($(rcvbuf_errors) - rcvbuf0))
  if [ -n "$consumer" ]; then
    kill -TERM "$consumer"; wait "$consumer" || true
  fi
  case $path in
    peer) in_dut iptables -D INPUT -p udp --dport 5000 -j NFQUEUE --queue-num 2000 ;;
    # The input queue is the first of the summary's kernel entries.
    nti) drops=$(sed -n 's/^[^[]*\[{"queue":[0-9]*,"queueDropped":\([0-9]*\),"userDropped":\([0-9]*\).*/\1 \2/p' "$out") ;;
  esac
  echo "$path $sent $received ${drops:-? ?} $rcvbuf"
}

echo "# $ROUNDS rounds x ${RUN_SECONDS}s, consumer on CPU $CONSUMER_CPU, traffic on CPU $TRAFFIC_CPU"
echo "# path sent received queue_dropped user_dropped sink_rcvbuf_errors"
for round in $(seq "$ROUNDS"); do
  for path in kernel peer nti; do
    run "$path" | tee -a "$WORK/results"
  done
done

median() { sort -n | awk '{v[NR]=$1} END {print (NR%2) ? v[(NR+1)/2] : int((v[NR/2]+v[NR/2+1])/2)}'; }
echo
echo "| path | offered pps | delivered pps | vs kernel | vs peer | queue/user/sink drops per run |"
echo "|---|---|---|---|---|---|"
declare -A pps
for path in kernel peer nti; do
  pps[$path]=$(awk -v p="$path" -v s="$RUN_SECONDS" '$1 == p {print int($3 / s)}' "$WORK/results" | median)
done
for path in kernel peer nti; do
  qd=$(awk -v p="$path" '$1 == p {print $4}' "$WORK/results" | median)
  ud=$(awk -v p="$path" '$1 == p {print $5}' "$WORK/results" | median)
  sd=$(awk -v p="$path" '$1 == p {print $6}' "$WORK/results" | median)
  offered=$(awk -v p="$path" -v s="$RUN_SECONDS" '$1 == p {print int($2 / s)}' "$WORK/results" | median)
  printf '| %s | %s | %s | %.2f | %.2f | %s/%s/%s |\n' "$path" "$offered" "${pps[$path]}" \
    "$(echo "${pps[$path]} / ${pps[kernel]}" | bc -l)" "$(echo "${pps[$path]} / ${pps[peer]}" | bc -l)" "$qd" "$ud" "$sd"
done
