#!/usr/bin/env bash
# Installs the build tree into a scratch prefix, then builds and runs a consumer against it,
# once through the CMake package and once through pkg-config.
# Usage: run.sh <build-dir> <scratch-dir> <cmake>
set -euo pipefail
build=$1 scratch=$2 cmake=$3
here=$(cd "$(dirname "$0")" && pwd)
rm -rf "$scratch"
prefix=$scratch/prefix
"$cmake" --install "$build" --prefix "$prefix" >/dev/null

"$cmake" -S "$here/consumer" -B "$scratch/cmake-consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_BUILD_TYPE=Release >/dev/null
"$cmake" --build "$scratch/cmake-consumer" >/dev/null
LD_LIBRARY_PATH=$prefix/lib:${LD_LIBRARY_PATH:-} "$scratch/cmake-consumer/consumer"

libdir=$(find "$prefix" -name zarvel_aux.pc -printf '%h\n' | head -n1)
flags=$(PKG_CONFIG_PATH=$libdir pkg-config --cflags --libs zarvel_aux)
# shellcheck disable=SC2086
c++ -std=c++20 "$here/consumer/main.cpp" -o "$scratch/pc-consumer" $flags
LD_LIBRARY_PATH=$(dirname "$libdir"):${LD_LIBRARY_PATH:-} "$scratch/pc-consumer"
echo "install consumer: ok"
