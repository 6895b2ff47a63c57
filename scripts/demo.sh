#!/usr/bin/env bash
# Installs what is missing, builds the release preset and runs the live demo.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
nti_install_deps
cmake --preset release >/dev/null
# The demo needs nti and the module only, not the tests and benchmarks.
cmake --build --preset release --target nti network_traffic_interceptor
sudo_cmd=""
if [ "$(id -u)" -ne 0 ]; then
  sudo_cmd="sudo"
fi
exec $sudo_cmd ./build/release/host/nti demo "$@"
