#!/usr/bin/env bash
# Installs the Debian packages needed to build and test kxgeom, skipping any
# that are already present (so a prepared machine needs no network).
set -euo pipefail
packages=(cmake ninja-build g++ clang libgtest-dev libbenchmark-dev libpng-dev libclang-rt-14-dev
  libcli11-dev nlohmann-json3-dev python3)
[ "${KXGEOM_WITH_PEERS:-0}" = 1 ] && packages+=(libopenmesh-dev libcgal-dev libembree-dev libeigen3-dev libtinyobjloader-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
sudo_cmd=""
[ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
echo "installing: ${missing[*]}"
$sudo_cmd apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${missing[@]}"
