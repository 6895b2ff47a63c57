# Sourced by the end-to-end benches: makes a generator namespace GEN
# (198.18.0.1) and a "dut" namespace DUT (198.18.0.2) joined by a veth pair,
# a scratch directory WORK, and an EXIT trap that kills this shell's
# remaining jobs and removes all three.
#   netns_pair_setup NAME   (namespaces nti-NAME-<pid>-gen / -dut)
# Env: KEEP_WORK=1 keeps WORK for a look afterwards.

netns_pair_cleanup() {
  # Only this shell's jobs that still run.
  for pid in $(jobs -p); do kill -KILL "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  ip netns del "$GEN" 2>/dev/null || true
  ip netns del "$DUT" 2>/dev/null || true
  [ -n "${KEEP_WORK:-}" ] && echo "kept $WORK" >&2 || rm -rf "$WORK"
}

netns_pair_setup() {
  GEN=nti-$1-$$-gen
  DUT=nti-$1-$$-dut
  WORK=$(mktemp -d "/tmp/nti-$1-XXXXXX")
  trap netns_pair_cleanup EXIT
  trap 'exit 130' INT TERM
  ip netns add "$GEN"
  ip netns add "$DUT"
  ip link add g0 netns "$GEN" type veth peer name d0 netns "$DUT"
  ip -n "$GEN" addr add 198.18.0.1/30 dev g0
  ip -n "$DUT" addr add 198.18.0.2/30 dev d0
  for ns in "$GEN" "$DUT"; do ip -n "$ns" link set lo up; done
  ip -n "$GEN" link set g0 up
  ip -n "$DUT" link set d0 up
  # A fixed neighbour entry keeps ARP out of the measurement.
  local mac
  mac=$(ip -n "$DUT" -br link show d0 | awk '{print $3}')
  ip -n "$GEN" neigh replace 198.18.0.2 lladdr "$mac" dev g0 nud permanent
}
