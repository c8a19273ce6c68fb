#!/usr/bin/env bash
# Builds the Release tree build-bench and runs the Browse benchmark of
# bench/browse.cpp, which needs wrk: installed here when missing.
#
# Usage: bench/browse.sh [--wrk-seconds N] [tracks ...]   (default 6500 100000 1000000)
set -euo pipefail
top="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
. "$top/tools/deps.sh"
velmora_install "${VELMORA_BUILD_PACKAGES[@]}" wrk
build="$top/build-bench"
cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVELMORA_BENCH=ON -DVELMORA_TESTS=OFF >/dev/null
nice ninja -C "$build" -j 2 browse >/dev/null
exec "$build/bench/browse" "$@"
