#!/usr/bin/env bash
# Installs the peer libraries the benchmarks compare against (Debian packages).
# Only the benchmarks need them; the library, its tests and CI never do.
set -euo pipefail
sudo_cmd=""
[ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
$sudo_cmd apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq libbenchmark-dev \
  libopenmesh-dev libcgal-dev libcgal-demo libembree-dev libeigen3-dev libtinyobjloader-dev \
  libmeshoptimizer-dev libassimp-dev
