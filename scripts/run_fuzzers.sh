#!/usr/bin/env bash
# Configures and builds the fuzz preset, then runs every fuzz target for a
# bounded time, starting from its checked-in seed corpus. Fails on the first
# crash, leak or sanitizer report.
#
#   scripts/run_fuzzers.sh [seconds per target, default 30] [libFuzzer options...]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-30}"
shift || true

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target fuzzers -j "$(nproc)"

fuzzers=build/fuzz/fuzzers
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

status=0
for target in "$fuzzers"/*_fuzz; do
  [ -x "$target" ] || continue
  name=$(basename "$target" _fuzz)
  # New inputs go to a scratch corpus; the checked-in seeds stay as they are.
  mkdir -p "$work/$name"
  seeds=()
  if [ -d "fuzz/corpus/$name" ]; then
    seeds=("fuzz/corpus/$name")
  fi
  echo "== $name: ${seconds}s"
  if ! "$target" -max_total_time="$seconds" -print_final_stats=1 \
      -artifact_prefix="$work/$name-" "$@" "$work/$name" "${seeds[@]}"; then
    mkdir -p build/fuzz/artifacts
    cp "$work/$name"-* build/fuzz/artifacts/ 2>/dev/null || true
    echo "!! $name failed; reproducers in build/fuzz/artifacts" >&2
    status=1
  fi
done
exit $status
