#!/usr/bin/env bash
# Builds the reader fuzzers with clang in build-fuzz and runs each for the
# given number of seconds (default 30) from the seed corpus. New inputs go to
# a scratch directory, so the committed corpus is never modified.
# Usage: fuzz/run_smoke.sh [SECONDS]
set -euo pipefail
seconds="${1:-30}"
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build-fuzz"

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKXGEOM_BUILD_FUZZERS=ON -DKXGEOM_BUILD_TESTS=OFF -DKXGEOM_BUILD_TOOLS=OFF \
  -DKXGEOM_BUILD_BENCH=OFF -DKXGEOM_SANITIZE=address,undefined >/dev/null
cmake --build "$build" --target obj_reader_fuzz indexed_reader_fuzz

scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
for target in obj_reader indexed_reader; do
  seeds="$root/fuzz/corpus/${target%_reader}"
  mkdir -p "$scratch/$target"
  echo "== ${target}_fuzz for ${seconds}s"
  "$build/fuzz/${target}_fuzz" -max_total_time="$seconds" -print_final_stats=1 \
    -artifact_prefix="$scratch/" "$scratch/$target" "$seeds" 2>&1 | tail -n 15
  status="${PIPESTATUS[0]}"
  if [ "$status" -ne 0 ]; then
    echo "${target}_fuzz failed (status $status); reproducer in $scratch" >&2
    trap - EXIT
    exit "$status"
  fi
done
echo "fuzz smoke: all targets ran clean"
