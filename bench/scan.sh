#!/usr/bin/env bash
# Builds the Release tree build-bench and runs the scan benchmark: for each
# size (default 1000 10000 100000) a cached corpus made by make-corpus.sh,
# a cold and a warm first pass, and the figures of bench/scan.cpp.
# Run as root for the cold runs: they drop the page cache first.
#
# Usage: bench/scan.sh [--dir FOLDER] [--timeout SECONDS] [N ...]
#   VELMORA_BENCH_DIR (or --dir) sets where the corpora are kept, by
#   default /var/tmp/velmora-bench; the 100,000-file one takes some minutes
#   to make and about 1 GiB, so it is made once and reused.
set -euo pipefail
top="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="$top/build-bench"
cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVELMORA_BENCH=ON -DVELMORA_TESTS=OFF >/dev/null
nice ninja -C "$build" -j 2 scan >/dev/null
exec "$build/bench/scan" "$@"
