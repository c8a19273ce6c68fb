#!/bin/sh
# cmake --install of the build tree into a temporary DESTDIR puts every file
# where the build was configured to, and the installed program runs from
# there on its own library and finds its own resources.
set -eu
cmake="$1" build="$2" bindir="$3" libdir="$4" includedir="$5" resources="$6" unitdir="$7"
root="$(mktemp -d)"
trap 'rm -rf "$root"' EXIT
DESTDIR="$root" "$cmake" --install "$build" >/dev/null
for f in "$libdir/libvelmora-dms.so" "$includedir/velmora/dapi_dms.h" "$resources/strings-en.txt" \
         "$resources/clients.db" "$resources/sample-media/Music" "$unitdir/velmora-dms.service"; do
    [ -e "$root$f" ] || { echo "not installed: $f"; exit 1; }
done
program="$root$bindir/velmora-dms"
"$program" --version | grep -x 'velmora-dms [0-9.]*'
# An address no interface has stops the program after it has linked its
# resources into the working folder and before any socket is opened.
env -u VELMORA_RESOURCES "$program" --workdir "$root/work" --ip 192.0.2.1 2>/dev/null || true
[ "$(readlink -f "$root/work/resources")" = "$(readlink -f "$root$resources")" ]
grep -q "^ExecStart=$bindir/velmora-dms " "$root$unitdir/velmora-dms.service"
command -v systemd-analyze >/dev/null || { echo "no systemd-analyze: unit not verified"; exit 0; }
sed "s|^ExecStart=$bindir/|ExecStart=$root$bindir/|" "$root$unitdir/velmora-dms.service" >"$root/velmora-dms.service"
verdict="$(systemd-analyze verify "$root/velmora-dms.service" 2>&1)" && [ -z "$verdict" ] || { echo "$verdict"; exit 1; }
