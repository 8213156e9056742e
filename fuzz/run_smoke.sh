#!/usr/bin/env bash
# Builds the reader fuzzers with clang in build-fuzz and runs them from the
# seed corpus for the given number of seconds in all (default 60), shared
# evenly. New inputs go to a scratch directory, so the committed corpus is
# never modified.
# Usage: fuzz/run_smoke.sh [SECONDS]
set -euo pipefail
targets=(obj_reader indexed_reader ply_reader stl_reader off_reader)
seconds=$(( ${1:-60} / ${#targets[@]} ))
[ "$seconds" -ge 1 ] || seconds=1
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build-fuzz"

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKXGEOM_BUILD_FUZZERS=ON -DKXGEOM_BUILD_TESTS=OFF -DKXGEOM_BUILD_TOOLS=OFF \
  -DKXGEOM_BUILD_BENCH=OFF -DKXGEOM_SANITIZE=address,undefined >/dev/null
cmake --build "$build" --target "${targets[@]/%/_fuzz}"

scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
for target in "${targets[@]}"; do
  seeds="$root/fuzz/corpus/${target%_reader}"
  mkdir -p "$scratch/$target"
  echo "== ${target}_fuzz for ${seconds}s"
  # Tested directly: under set -e a failing pipe would end the script before
  # the scratch directory with the reproducer could be kept.
  if ! "$build/fuzz/${target}_fuzz" -max_total_time="$seconds" -print_final_stats=1 \
    -artifact_prefix="$scratch/" "$scratch/$target" "$seeds" >"$scratch/$target.log" 2>&1; then
    tail -n 40 "$scratch/$target.log"
    echo "${target}_fuzz failed; reproducer in $scratch" >&2
    trap - EXIT
    exit 1
  fi
  tail -n 15 "$scratch/$target.log"
done
echo "fuzz smoke: all targets ran clean"
