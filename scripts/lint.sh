#!/usr/bin/env bash
# Style checks of the C and C++ sources; fails on the first finding.
#
#   scripts/lint.sh format        every tracked source against .clang-format (seconds)
#   scripts/lint.sh tidy [BUILD]  .clang-tidy on the product sources, with the
#                                 compile commands of BUILD (default build/release)
#   scripts/lint.sh               both
set -euo pipefail
cd "$(dirname "$0")/.."

check_format() {
  git ls-files -z '*.c' '*.cpp' '*.h' | xargs -0 clang-format --dry-run -Werror
  echo "format: clean"
}

check_tidy() {
  local build="${1:-build/release}"
  if [ ! -f "$build/compile_commands.json" ]; then
    echo "tidy: no $build/compile_commands.json; configure that build first" >&2
    return 1
  fi
  # Product sources only: tests and benchmarks expand third-party macros the
  # checks were not chosen for. Headers come in through HeaderFilterRegex.
  local root
  root=$(pwd)
  local log
  log=$(mktemp)
  local status=0
  # The compile commands are GCC's: its -Wno-restrict is unknown to clang.
  run-clang-tidy -quiet -j "$(nproc)" -p "$build" -extra-arg=-Wno-unknown-warning-option \
    "^$root/(framework|dwi_common|dwi_tracing|network_traffic_interceptor|host|examples)/" \
    >"$log" 2>&1 || status=$?
  # run-clang-tidy fails only when clang-tidy does; a warning is a failure too.
  if [ "$status" -ne 0 ] || grep -qE '(warning|error): ' "$log"; then
    grep -E -A3 '(warning|error): ' "$log" >&2 || cat "$log" >&2
    rm -f "$log"
    echo "tidy: findings above" >&2
    return 1
  fi
  rm -f "$log"
  echo "tidy: clean"
}

case "${1:-all}" in
  format) check_format ;;
  tidy) check_tidy "${2:-}" ;;
  all) check_format && check_tidy "${2:-}" ;;
  *) echo "usage: $0 [format|tidy [BUILD]|all [BUILD]]" >&2; exit 2 ;;
esac
