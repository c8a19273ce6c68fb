#!/bin/sh
# cmake --install into a temporary DESTDIR puts each file where the build was
# configured to; the installed program runs on its own library and resources.
set -eu
cmake="$1" build="$2" bindir="$3" libdir="$4" includedir="$5" resources="$6" unitdir="$7"
root="$(mktemp -d)" && trap 'rm -rf "$root"' EXIT
DESTDIR="$root" "$cmake" --install "$build" >/dev/null
ls -d "$root$libdir/libvelmora-dms.so" "$root$includedir/velmora/dapi_dms.h" "$root$resources/clients.db" \
    "$root$resources/strings-en.txt" "$root$resources/sample-media/Music" "$root$unitdir/velmora-dms.service" >/dev/null
"$root$bindir/velmora-dms" --version | grep -x 'velmora-dms [0-9.]*'
# At start the program links its resources into the working folder. It
# serves HTTP alone on loopback meanwhile, and is stopped once the link is there.
env -u VELMORA_RESOURCES "$root$bindir/velmora-dms" --workdir "$root/work" --ip 127.0.0.1 --mode 1 >/dev/null 2>&1 &
server=$!
for _ in $(seq 50); do [ -e "$root/work/resources" ] && break; sleep 0.1; done
kill "$server" 2>/dev/null; wait "$server" 2>/dev/null || true
[ "$(readlink -f "$root/work/resources")" = "$(readlink -f "$root$resources")" ]
grep -q "^ExecStart=$bindir/velmora-dms " "$root$unitdir/velmora-dms.service"
command -v systemd-analyze >/dev/null || exit 0
sed "s|^ExecStart=$bindir/|ExecStart=$root$bindir/|" "$root$unitdir/velmora-dms.service" >"$root/velmora-dms.service"
verdict="$(systemd-analyze verify "$root/velmora-dms.service" 2>&1)" && [ -z "$verdict" ] || { echo "$verdict"; exit 1; }
