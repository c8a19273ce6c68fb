#!/usr/bin/env bash
# Builds the server and runs it on the given folders (default: the bundled
# sample media). Any velmora-dms option may be given, see --help.
set -euo pipefail
top="$(cd "$(dirname "$0")/.." && pwd)"
. "$top/tools/deps.sh"
velmora_install "${VELMORA_BUILD_PACKAGES[@]}"
cmake -S "$top" -B "$top/build-release" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELMORA_TESTS=OFF >/dev/null
ninja -C "$top/build-release" velmora-dms >/dev/null
exec "$top/build-release/velmora-dms" "$@"
