#!/usr/bin/env bash
# Memory of `nti stats-service` over a long run with churning connections.
# A generator namespace opens CONNECTIONS fresh UDP sockets a second, each
# sending one datagram to the "dut" namespace, where the service counts them
# with all three sinks on: JSON lines (to /dev/null), the SQLite history
# (retention RETENTION, so rows are deleted as fast as they come) and IPFIX
# to a UDP receiver in the generator namespace. Every SAMPLE seconds it prints
# the service's resident and peak memory and the history's row count.
#
# Usage: bench/service_memory.sh [build-dir]   (root, python3; default build/release)
# Env: DURATION (1800 s), SAMPLE (60 s), CONNECTIONS (500 per second),
#      PERIOD (60s), RETENTION (5m)
set -euo pipefail

BUILD=${1:-build/release}
DURATION=${DURATION:-1800}
SAMPLE=${SAMPLE:-60}
CONNECTIONS=${CONNECTIONS:-500}
PERIOD=${PERIOD:-60s}
RETENTION=${RETENTION:-5m}
for f in "$BUILD/host/nti" "$BUILD/network_traffic_interceptor/libnetwork_traffic_interceptor.so"; do
  [ -e "$f" ] || { echo "missing $f: cmake --preset release && cmake --build $BUILD" >&2; exit 1; }
done

source "$(dirname "$0")/netns_pair.sh"
netns_pair_setup smem

# Copies, so that a rebuild during the run does not change what runs.
cp "$BUILD/host/nti" "$BUILD/network_traffic_interceptor/libnetwork_traffic_interceptor.so" "$WORK/"
cat >"$WORK/stats.conf" <<CONF
[collector]
period = $PERIOD
ip6tables = no
[json]
path = /dev/null
[sqlite]
path = $WORK/history.sqlite
retention = $RETENTION
[ipfix]
host = 198.18.0.1
port = 4739
CONF

# The IPFIX collector's stand-in: takes the datagrams and drops them.
ip netns exec "$GEN" python3 -c '
import socket
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind(("198.18.0.1", 4739))
while True:
    s.recv(65536)
' &
ip netns exec "$DUT" "$WORK/nti" --module "$WORK/libnetwork_traffic_interceptor.so" \
  --state-dir "$WORK/state" --trace-level 500 --trace-file "$WORK/trace" \
  stats-service --config "$WORK/stats.conf" &
nti=$!
ip netns exec "$GEN" python3 - "$CONNECTIONS" "$DURATION" <<'PY' &
import socket, sys, time
per_second, duration = int(sys.argv[1]), float(sys.argv[2])
end = time.monotonic() + duration
while time.monotonic() < end:
    start = time.monotonic()
    for _ in range(per_second):
        s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        s.sendto(b"x" * 32, ("198.18.0.2", 7000))
        s.close()
    time.sleep(max(0.0, 1.0 - (time.monotonic() - start)))
PY

echo "# ${DURATION}s, $CONNECTIONS new connections/s, period $PERIOD, history retention $RETENTION"
echo "# seconds rss_kb peak_kb history_rows"
elapsed=0
while [ "$elapsed" -le "$DURATION" ]; do
  rss=$(awk '/^VmRSS/ {print $2}' "/proc/$nti/status")
  peak=$(awk '/^VmHWM/ {print $2}' "/proc/$nti/status")
  rows=$(sqlite3 "$WORK/history.sqlite" "SELECT count(*) FROM history" 2>/dev/null || echo -)
  echo "$elapsed $rss $peak $rows"
  sleep "$SAMPLE"
  elapsed=$((elapsed + SAMPLE))
done
kill -TERM "$nti"
wait "$nti" && echo "service stopped cleanly" || echo "service exit status $?"
grep -c " 300 " "$WORK/trace" | sed 's/^/error traces: /' || true
