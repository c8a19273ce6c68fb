#!/usr/bin/env bash
# Makes a media library of N files in DIR, for benchmarks and integration
# tests of the file scanner. Of the N files about half are tagged tracks
# (MP3 and M4A, one second of sound, title/artist/album/track/year/genre) in
# Music/Artist/Album folders, some with a Folder.jpg cover; 30% are JPEG
# photos with EXIF dates (some turned, some captioned) in Pictures/YEAR/
# YEAR-MM; 10% are one-second MP4 clips in Videos/YEAR; the rest are .txt
# and .pdf files in Documents/ and M3U playlists in Playlists/ that name
# tracks by relative paths.
#
# ffmpeg makes five small base files once; bench/corpus-files.py copies
# them and writes the tags and dates itself, so a file costs a copy. Names,
# tags, dates and modification times come from a generator seeded with N:
# the same N gives the same tree. DIR must be new or empty; if it already
# holds the corpus of the same N (its .velmora-corpus file says so), the
# script leaves it as it is.
#
# Usage: bench/make-corpus.sh N DIR
#   e.g. nice -n 19 bench/make-corpus.sh 1000 /tmp/corpus-1000
set -euo pipefail

top="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

usage() {
    echo "usage: $0 N DIR   (N files, N >= 1; DIR new or empty)" >&2
    exit 2
}

[ $# -eq 2 ] || usage
n="$1"
out="$2"
[[ "$n" =~ ^[1-9][0-9]*$ ]] || usage

marker="$out/.velmora-corpus"
if [ -d "$out" ] && [ -n "$(ls -A "$out")" ]; then
    if [ -f "$marker" ] && [ "$(cat "$marker")" = "velmora corpus v1 N=$n" ]; then
        echo "$out already holds the corpus of $n files; left as it is"
        exit 0
    fi
    echo "$0: $out is not empty (and not a corpus of $n files); give a new or empty folder" >&2
    exit 1
fi

# shellcheck source=tools/deps.sh
. "$top/tools/deps.sh"
command -v ffmpeg >/dev/null 2>&1 || velmora_install ffmpeg

started="$(date +%s.%N)"
mkdir -p "$out"
base="$(mktemp -d)"
trap 'rm -rf "$base"' EXIT

# Quiet, no wall-clock or encoder version in the files.
FF=(ffmpeg -hide_banner -loglevel error -nostdin -y -fflags +bitexact)
EXACT=(-map_metadata -1 -fflags +bitexact -flags +bitexact)
TONE="sine=frequency=440:sample_rate=44100:duration=1"

# A tagless MP3 frame stream; the helper puts the ID3v2 tag in front.
"${FF[@]}" -f lavfi -i "$TONE" "${EXACT[@]}" -ac 1 -c:a libmp3lame -b:a 32k \
    -id3v2_version 0 -write_id3v1 0 "$base/base.mp3"
# An M4A with its moov box last, where the helper adds the tags.
"${FF[@]}" -f lavfi -i "$TONE" "${EXACT[@]}" -ac 1 -c:a aac -b:a 32k \
    "$base/base.m4a"
picture() {
    "${FF[@]}" -f lavfi -i "$1" "${EXACT[@]}" -frames:v 1 \
        -pix_fmt yuvj420p -c:v mjpeg -q:v 5 -f image2 -update 1 "$2"
}
picture "testsrc2=size=160x120:rate=1" "$base/landscape.jpg"
picture "testsrc2=size=120x160:rate=1" "$base/portrait.jpg"
picture "smptebars=size=200x200:rate=1" "$base/cover.jpg"
# Baseline H.264 and AAC-LC at 160x120, one encoder thread for the same
# bytes on any machine.
"${FF[@]}" -f lavfi -i "testsrc2=size=160x120:rate=15:duration=1" \
    -f lavfi -i "$TONE" "${EXACT[@]}" -map 0:v -map 1:a \
    -c:v libx264 -profile:v baseline -pix_fmt yuv420p -b:v 100k -g 15 \
    -threads 1 -c:a aac -b:a 32k -ac 1 -brand mp42 -movflags +faststart \
    "$base/clip.mp4"

counts="$(python3 "$top/bench/corpus-files.py" "$n" "$out" "$base")"
seconds="$(echo "$started $(date +%s.%N)" | awk '{printf "%.1f", $2 - $1}')"
echo "corpus in $out: $counts; $seconds s in all"
