#!/usr/bin/env bash
# Installs what is missing, checks the sources' format, builds the release,
# asan and tsan presets and runs every test of each with ctest, checks the
# product sources with clang-tidy, then fuzzes every libFuzzer target for a
# while.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
nti_install_deps
jobs=$(nproc)
echo "== format"
bash scripts/lint.sh format
for preset in release asan tsan; do
  echo "== $preset"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  # The install/package test builds its own release tree; once is enough.
  # Fresh-machine tests (label fresh) need the network and are run apart.
  if [ "$preset" != release ]; then
    ctest --preset "$preset" -j "$jobs" -LE '^(package|fresh)$'
  else
    ctest --preset "$preset" -j "$jobs" -LE '^fresh$'
  fi
  if [ "$preset" = release ]; then
    echo "== tidy"
    bash scripts/lint.sh tidy build/release
  fi
done
echo "== fuzz"
bash scripts/run_fuzzers.sh "${NTI_FUZZ_SECONDS:-30}"
