#!/usr/bin/env bash
# Installs everything the build, the tests and the benchmarks need from Debian's packages.
# Idempotent and quiet: packages already present are not touched.
set -euo pipefail
packages=(cmake ninja-build g++ gcc make pkg-config git binutils libeigen3-dev libstb-dev
          googletest libgtest-dev libbenchmark-dev libcli11-dev clang libclang-rt-14-dev)
if [[ ${ZARVEL_WITH_PEERS:-0} == 1 ]]; then
  packages+=(libopencv-dev libyuv-dev)  # peers for the benchmark comparisons
fi
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]} == 0)); then
  exit 0
fi
sudo=""
if [[ $(id -u) != 0 ]]; then sudo="sudo"; fi
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
