#!/usr/bin/env bash
# Latency an interception adds: ping round-trip times from a generator
# namespace to a "dut" namespace whose echo requests pass
#   none    no rule
#   peer    an NFQUEUE rule and bench/nfq_peer (libnetfilter_queue, recv and
#           one immediate accept per packet)
#   nti     nti intercept --proto icmp --direction in --quiet (its own rule)
# interleaved in every round. Prints each run and, per path, the median over
# the rounds of the run's median RTT and the added latency against `none`.
#
# Usage: bench/intercept_latency.sh [build-dir]   (root; default build/release)
# Env: ROUNDS (5), PINGS (400 per run, 5 ms apart), FAMILY (4 or 6)
set -euo pipefail

BUILD=${1:-build/release}
ROUNDS=${ROUNDS:-5}
PINGS=${PINGS:-400}
FAMILY=${FAMILY:-4}
NTI=$BUILD/host/nti
MODULE=$BUILD/network_traffic_interceptor/libnetwork_traffic_interceptor.so
PEER=$BUILD/bench/nfq_peer
for f in "$NTI" "$MODULE" "$PEER"; do
  [ -e "$f" ] || { echo "missing $f: cmake --preset release && cmake --build $BUILD" >&2; exit 1; }
done

source "$(dirname "$0")/netns_pair.sh"
netns_pair_setup lat
ip -n "$GEN" addr add fd00:198:18::1/64 dev g0 nodad
ip -n "$DUT" addr add fd00:198:18::2/64 dev d0 nodad
if [ "$FAMILY" = 6 ]; then
  TARGET=fd00:198:18::2 IPT=ip6tables PROTO=ipv6-icmp
else
  TARGET=198.18.0.2 IPT=iptables PROTO=icmp
fi

wait_for() {
  for _ in $(seq 100); do grep -q "$2" "$1" 2>/dev/null && return 0; sleep 0.1; done
  echo "timed out waiting for '$2' in $1" >&2; cat "$1" >&2; return 1
}

# run PATH: prints "PATH median_rtt_us received".
run() {
  local path=$1 consumer="" out=$WORK/$1.out err=$WORK/$1.err
  case $path in
    peer)
      ip netns exec "$DUT" "$IPT" -A INPUT -p "$PROTO" -j NFQUEUE --queue-num 2000
      ip netns exec "$DUT" "$PEER" 2000 60 >"$out" 2>"$err" &
      consumer=$!; wait_for "$out" ready ;;
    nti)
      ip netns exec "$DUT" "$NTI" --module "$MODULE" intercept --proto "$([ "$FAMILY" = 6 ] && echo icmpv6 || echo icmp)" \
        --direction in --quiet --queue-range 2000-2099 >"$out" 2>"$err" &
      consumer=$!; wait_for "$err" "intercepting on queues" ;;
  esac
  # Per-reply times, so that the median is not moved by a few slow ones.
  ip netns exec "$GEN" ping -"$FAMILY" -n -c "$PINGS" -i 0.005 -W 1 "$TARGET" >"$WORK/ping" || true
  if [ -n "$consumer" ]; then
    kill -TERM "$consumer"; wait "$consumer" || true
  fi
  [ "$path" = peer ] && ip netns exec "$DUT" "$IPT" -D INPUT -p "$PROTO" -j NFQUEUE --queue-num 2000
  local median received
  median=$(sed -n 's/.*time=\([0-9.]*\) ms.*/\1/p' "$WORK/ping" | sort -n |
    awk '{v[NR]=$1} END {if (NR == 0) print "nan"; else printf "%d", 1000 * v[int((NR+1)/2)]}')
  received=$(grep -c 'time=' "$WORK/ping" || true)
  echo "$path $median $received"
}

echo "# IPv$FAMILY, $ROUNDS rounds x $PINGS pings 5 ms apart; path median_rtt_us replies"
for round in $(seq "$ROUNDS"); do
  for path in none peer nti; do
    run "$path" | tee -a "$WORK/results"
  done
done

median() { sort -n | awk '{v[NR]=$1} END {print v[int((NR+1)/2)]}'; }
declare -A rtt
for path in none peer nti; do
  rtt[$path]=$(awk -v p="$path" '$1 == p {print $2}' "$WORK/results" | median)
done
echo
echo "| path | median RTT (us) | added (us) |"
echo "|---|---|---|"
for path in none peer nti; do
  printf '| %s | %s | %s |\n' "$path" "${rtt[$path]}" "$((rtt[$path] - rtt[none]))"
done
