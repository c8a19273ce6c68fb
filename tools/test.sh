#!/usr/bin/env bash
# Builds and passes every test: the check that includes point down the
# floors of src/, the whole suite with g++, again with clang under
# AddressSanitizer and UndefinedBehaviorSanitizer, again under
# ThreadSanitizer, then each fuzz target for a bounded time
# (VELMORA_FUZZ_SECONDS, default 30).
set -euo pipefail
top="$(cd "$(dirname "$0")/.." && pwd)"
. "$top/tools/deps.sh"
velmora_install "${VELMORA_BUILD_PACKAGES[@]}" clang libclang-rt-14-dev libgtest-dev libgmock-dev \
    curl iproute2 libxml2-utils python3-gi gir1.2-gssdp-1.6 gir1.2-gupnp-1.6 gir1.2-gupnp-av-1.0 ffmpeg \
    gir1.2-gstreamer-1.0 gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-libav gupnp-dlna-tools
# Node.js may come from elsewhere than Debian, with its own npm: only what
# is missing is installed. Without the npm registry the npm test skips.
command -v node >/dev/null && command -v npm >/dev/null || velmora_install nodejs npm || true
(cd "$top/tests/npm" && timeout 300 npm ci --prefer-offline --no-audit --no-fund --loglevel=error) ||
    echo "npm ci failed: the npm test will be skipped"
jobs="$(nproc)"
fuzz_seconds="${VELMORA_FUZZ_SECONDS:-30}"

step() { printf '\n==== %s\n' "$*"; }

step "includes point down the floors of src/, and numbers go through the one parser"
python3 "$top/tools/check-floors.py"
if grep -rnE '\b(atoi|atol|atoll|strtol|strtoul|strtoll|strtoull)\s*\(' "$top/src"; then
    echo "raw number conversions above: use upnp_parse_u64 or upnp_parse_i64"
    exit 1
fi

step "g++ build and tests"
cmake -S "$top" -B "$top/build-test" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ >/dev/null
ninja -C "$top/build-test"
ctest --test-dir "$top/build-test" --output-on-failure -j "$jobs" --timeout 300

step "clang build with AddressSanitizer and UndefinedBehaviorSanitizer, and tests"
cmake -S "$top" -B "$top/build-asan" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DVELMORA_SANITIZE=ON >/dev/null
ninja -C "$top/build-asan"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir "$top/build-asan" --output-on-failure -j "$jobs" --timeout 600

step "clang build with ThreadSanitizer, and tests"
cmake -S "$top" -B "$top/build-tsan" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DVELMORA_TSAN=ON >/dev/null
ninja -C "$top/build-tsan"
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
    ctest --test-dir "$top/build-tsan" --output-on-failure -j "$jobs" --timeout 900

step "fuzz targets, ${fuzz_seconds} s each"
cmake -S "$top" -B "$top/build-fuzz" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DVELMORA_FUZZ=ON -DVELMORA_SANITIZE=ON \
    -DVELMORA_TESTS=OFF >/dev/null
ninja -C "$top/build-fuzz"
for fuzzer in "$top"/build-fuzz/fuzz/*_fuzz; do
    [ -x "$fuzzer" ] || continue
    name="$(basename "$fuzzer")"
    corpus="$top/build-fuzz/corpus/$name"
    mkdir -p "$corpus"
    seeds=()
    [ -d "$top/fuzz/corpus/$name" ] && seeds=("$top/fuzz/corpus/$name")
    echo "-- $name"
    log="$top/build-fuzz/$name.log"
    status=0
    "$fuzzer" -max_total_time="$fuzz_seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        "$corpus" "${seeds[@]}" >"$log" 2>&1 || status=$?
    grep -E '^stat::number_of_executed_units' "$log" || true
    if [ "$status" -ne 0 ]; then
        tail -n 40 "$log"
        echo "fuzz target $name found a problem"
        exit 1
    fi
done
echo
echo "all tests passed"
