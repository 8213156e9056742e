#!/usr/bin/env bash
# The main job: builds kxgeom and its command-line tool, then runs the demo,
# which makes a sample model, runs every operation on it and writes meshes,
# a rendered image and a report into kxgeom-demo/ (or the folder given).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release
cmake --build build -j"${JOBS:-2}" --target kxgeom-tool
build/tools/kxgeom/kxgeom demo --output "${1:-kxgeom-demo}"
