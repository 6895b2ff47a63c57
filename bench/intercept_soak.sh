#!/usr/bin/env bash
# Soak of the exactly-one-verdict kernel test: COUNT numbered datagrams (10^7
# by default) through an allow-all and a mixed (allow, drop, later)
# interception in throwaway namespaces; the sink must get exactly the allowed
# ones, each once, nti's summary must agree, and nothing may stay queued.
#
# Usage: bench/intercept_soak.sh [build-dir]   (root; default build/release)
# Env: COUNT (10000000)
set -euo pipefail
BUILD=${1:-build/release}
export NTI_EXACTLY_ONCE_DATAGRAMS=${COUNT:-10000000}
export NTI_BIN=$BUILD/host/nti
export NTI_MODULE=$BUILD/network_traffic_interceptor/libnetwork_traffic_interceptor.so
TEST=$BUILD/tests/integration/intercept_integration_test
for f in "$NTI_BIN" "$NTI_MODULE" "$TEST"; do
  [ -e "$f" ] || { echo "missing $f: cmake --preset release && cmake --build $BUILD" >&2; exit 1; }
done
time "$TEST" --gtest_filter=InterceptTest.ExactlyOneVerdictPerDatagramUnderLoad
