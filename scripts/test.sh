#!/usr/bin/env bash
# Builds kxgeom (Release) with its tests and runs them.
#   scripts/test.sh            # build dir: build/
# Environment: BUILD_DIR, KXGEOM_SANITIZE (address,undefined | thread), JOBS.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
build_dir=${BUILD_DIR:-build}
jobs=${JOBS:-2}
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=${BUILD_TYPE:-Release} \
  -DKXGEOM_SANITIZE="${KXGEOM_SANITIZE:-}" ${CMAKE_ARGS:-}
cmake --build "$build_dir" -j"$jobs"
ctest --test-dir "$build_dir" --output-on-failure -j"$jobs" ${CTEST_ARGS:-}
