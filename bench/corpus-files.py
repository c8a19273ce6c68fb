#!/usr/bin/env python3
"""Writes the files of a test library from a few base files that ffmpeg made;
called by bench/make-corpus.sh, which says what the library holds.

Every name, tag and date comes from a random generator seeded with N, so the
same N gives the same tree, bytes and modification times. Tags are written
here, not by ffmpeg, so that one file costs a copy and a few hundred bytes:
MP3 tracks get an ID3v2 tag (v2.3 and v2.4 in turn) in front of a tagless
frame stream, M4A tracks an iTunes-style ilst box in a udta box appended to
the moov box (which must follow the media data, so no offset moves), and
photos an EXIF block from tools/add-exif.py.

Usage: corpus-files.py N OUT_DIR BASE_DIR
"""

import calendar
import os
import random
import runpy
import struct
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
MARKER = ".velmora-corpus"
MARKER_TEXT = "velmora corpus v1 N=%d\n"


def load_add_exif():
    """The add_exif function of tools/add-exif.py."""
    path = os.path.join(HERE, "..", "tools", "add-exif.py")
    return runpy.run_path(path, run_name="add_exif")["add_exif"]


# Word lists for names. A few words carry accents so that tags and file
# names are not all ASCII.
ADJECTIVES = [
    "Amber", "Blue", "Broken", "Silent", "Golden", "Hollow", "Electric",
    "Velvet", "Northern", "Quiet", "Crimson", "Distant", "Paper", "Iron",
    "Wild", "Lonely", "Bright", "Frozen", "Secret", "Little", "Neon",
    "Summer", "Winter", "Midnight", "Glass", "Copper", "Salt", "Stone",
    "Café", "Über", "Señor", "Blå",
]
NOUNS = [
    "Harbour", "Lanterns", "Rivers", "Engines", "Orchard", "Satellites",
    "Wolves", "Mirrors", "Gardens", "Machines", "Sparrows", "Tides",
    "Echoes", "Highways", "Islands", "Clocks", "Foxes", "Signals",
    "Pilots", "Shadows", "Waves", "Lights", "Horses", "Storms", "Doors",
    "Fjorde", "Straße", "Étoiles",
]
TITLE_WORDS = [
    "Morning", "Falling", "Home", "Again", "Slow", "Light", "Dance",
    "Never", "Away", "Running", "Heart", "Rain", "Fire", "Ocean", "Gone",
    "Tonight", "Dream", "Road", "Waiting", "Down", "Sky", "Letters",
    "Stay", "Open", "Weather", "Return", "Song", "Circle", "Dust", "Gold",
]
GENRES = [
    "Rock", "Pop", "Jazz", "Classical", "Electronic", "Folk", "Hip-Hop",
    "Ambient", "Blues", "Country", "Metal", "Soul", "Reggae",
    "Singer-Songwriter",
]
CAMERAS = [
    ("Velmora", "Sample Camera"), ("Canon", "EOS 80D"),
    ("NIKON CORPORATION", "NIKON D750"), ("SONY", "ILCE-7M3"),
    ("Apple", "iPhone 12"), ("samsung", "SM-G991B"),
]
PLACES = [
    "Beach", "Mountains", "City", "Garden", "Lake", "Forest", "Harbour",
    "Old Town", "Market", "Station",
]
EVENTS = [
    "walk", "holiday", "birthday", "picnic", "trip", "visit", "evening",
    "weekend", "festival", "hike",
]
DOC_FOLDERS = ["Notes", "Reports", "Letters", "Manuals"]


def name_of(rng, taken, words_a, words_b):
    """A two-word name not yet in `taken`, numbered when the pairs run out."""
    for _ in range(20):
        name = "%s %s" % (rng.choice(words_a), rng.choice(words_b))
        if name not in taken:
            break
    base, number = name, 2
    while name in taken:
        name = "%s %d" % (base, number)
        number += 1
    taken.add(name)
    return name


def stamp(year, month, day, hour=12, minute=0, second=0):
    return calendar.timegm((year, month, day, hour, minute, second, 0, 0, 0))


def write(path, data, mtime):
    with open(path, "wb") as f:
        f.write(data)
    os.utime(path, (mtime, mtime))


# ----------------------------------------------------------------- ID3v2

def synchsafe(number):
    return bytes([(number >> 21) & 0x7F, (number >> 14) & 0x7F,
                  (number >> 7) & 0x7F, number & 0x7F])


def id3_text(text, version):
    if version == 4:
        return b"\x03" + text.encode("utf-8")
    try:
        return b"\x00" + text.encode("latin-1")
    except UnicodeEncodeError:
        return b"\x01" + text.encode("utf-16")  # with byte-order mark


def id3_tag(fields, version):
    """An ID3v2.3 or v2.4 tag of text frames, with a little padding."""
    body = b""
    for frame_id, text in fields:
        if frame_id == "TYER" and version == 4:
            frame_id = "TDRC"
        data = id3_text(text, version)
        size = synchsafe(len(data)) if version == 4 else \
            struct.pack(">I", len(data))
        body += frame_id.encode("ascii") + size + b"\x00\x00" + data
    body += b"\x00" * 64
    return b"ID3" + bytes([version, 0, 0]) + synchsafe(len(body)) + body


def mp3_file(stream, tags, version):
    fields = [("TIT2", tags["title"]), ("TPE1", tags["artist"]),
              ("TALB", tags["album"]),
              ("TRCK", "%d/%d" % (tags["track"], tags["tracks"])),
              ("TYER", str(tags["year"])), ("TCON", tags["genre"])]
    return id3_tag(fields, version) + stream


# ------------------------------------------------------------ MP4 / M4A

def box(kind, payload):
    return struct.pack(">I", 8 + len(payload)) + kind + payload


def top_boxes(data):
    pos, boxes = 0, []
    while pos + 8 <= len(data):
        size, kind = struct.unpack(">I4s", data[pos:pos + 8])
        if size < 8 or pos + size > len(data):
            raise ValueError("unsupported MP4 box layout at byte %d" % pos)
        boxes.append((kind, pos, size))
        pos += size
    return boxes


def split_m4a(data):
    """The base file up to its moov box, and the moov children bar udta.

    The moov box must be the last box and come after mdat, so that growing
    it moves no sample and the chunk offsets stay right."""
    boxes = top_boxes(data)
    kinds = [kind for kind, _, _ in boxes]
    if kinds[-1] != b"moov" or b"mdat" not in kinds:
        raise ValueError("base M4A must end with its moov box")
    _, start, size = boxes[-1]
    children = [(kind, data[start + 8 + pos:start + 8 + pos + length])
                for kind, pos, length in top_boxes(data[start + 8:
                                                        start + size])]
    kept = b"".join(raw for kind, raw in children if kind != b"udta")
    return data[:start], kept


def ilst_item(kind, payload, data_type):
    return box(kind, box(b"data", struct.pack(">II", data_type, 0) + payload))


def m4a_file(head, moov_children, tags):
    text = 1
    items = [
        ilst_item(b"\xa9nam", tags["title"].encode("utf-8"), text),
        ilst_item(b"\xa9ART", tags["artist"].encode("utf-8"), text),
        ilst_item(b"\xa9alb", tags["album"].encode("utf-8"), text),
        ilst_item(b"trkn", struct.pack(">HHHH", 0, tags["track"],
                                       tags["tracks"], 0), 0),
        ilst_item(b"\xa9day", str(tags["year"]).encode("ascii"), text),
        ilst_item(b"\xa9gen", tags["genre"].encode("utf-8"), text),
    ]
    hdlr = box(b"hdlr", struct.pack(">II4sIII", 0, 0, b"mdir", 0x6170706C,
                                    0, 0) + b"\x00")
    meta = box(b"meta", b"\x00\x00\x00\x00" + hdlr +
               box(b"ilst", b"".join(items)))
    return head + box(b"moov", moov_children + box(b"udta", meta))


# ------------------------------------------------------------- documents

def pdf_file(lines):
    """A one-page PDF with the given lines of text, offsets computed."""
    text = "BT /F1 12 Tf 72 720 Td 16 TL"
    for line in lines:
        escaped = line.replace("\\", "\\\\").replace("(", "\\(") \
            .replace(")", "\\)")
        text += " (%s) '" % escaped
    text += " ET"
    content = text.encode("latin-1")
    objects = [
        b"<< /Type /Catalog /Pages 2 0 R >>",
        b"<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
        b"<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] "
        b"/Contents 4 0 R /Resources << /Font << /F1 5 0 R >> >> >>",
        b"<< /Length %d >>\nstream\n" % len(content) + content +
        b"\nendstream",
        b"<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>",
    ]
    out = b"%PDF-1.4\n"
    offsets = []
    for number, body in enumerate(objects, 1):
        offsets.append(len(out))
        out += b"%d 0 obj\n" % number + body + b"\nendobj\n"
    xref = len(out)
    out += b"xref\n0 %d\n0000000000 65535 f \n" % (len(objects) + 1)
    for offset in offsets:
        out += b"%010d 00000 n \n" % offset
    out += (b"trailer\n<< /Size %d /Root 1 0 R >>\nstartxref\n%d\n%%%%EOF\n"
            % (len(objects) + 1, xref))
    return out


# ---------------------------------------------------------------- library

def shares(n):
    audio, photos, videos = n // 2, n * 3 // 10, n // 10
    rest = n - audio - photos - videos
    playlists = min(rest, max(1, rest // 3)) if audio else 0
    return audio, photos, videos, rest - playlists, playlists


def make_music(rng, out, count, base):
    """Artist/Album folders of tracks; returns the albums made."""
    albums, artists = [], set()
    made = 0
    while made < count:
        artist = name_of(rng, artists, ADJECTIVES, NOUNS)
        album_names = set()
        for _ in range(rng.randint(1, 5)):
            if made >= count:
                break
            tracks = min(rng.randint(6, 14), count - made)
            album = name_of(rng, album_names, ADJECTIVES, TITLE_WORDS)
            year = rng.randint(1965, 2025)
            genre = rng.choice(GENRES)
            kind = "m4a" if rng.random() < 0.3 else "mp3"
            folder = os.path.join(out, "Music", artist, album)
            os.makedirs(folder, exist_ok=True)
            files, titles = [], set()
            for track in range(1, tracks + 1):
                title = name_of(rng, titles, TITLE_WORDS, TITLE_WORDS)
                tags = {"title": title, "artist": artist, "album": album,
                        "track": track, "tracks": tracks, "year": year,
                        "genre": genre}
                name = "%02d - %s.%s" % (track, title, kind)
                if kind == "mp3":
                    data = mp3_file(base["mp3"], tags, 3 + (track & 1))
                else:
                    data = m4a_file(base["m4a_head"], base["m4a_moov"], tags)
                # Old records were ripped long after they came out: a file
                # time before 1970 would mark the file as damaged.
                mtime = stamp(max(year, 1995), rng.randint(1, 12), rng.randint(1, 28))
                write(os.path.join(folder, name), data, mtime)
                files.append((os.path.join(artist, album, name), tags))
            albums.append((folder, files))
            made += tracks
    return albums


def make_covers(rng, albums, count, cover):
    for folder, _ in rng.sample(albums, count):
        write(os.path.join(folder, "Folder.jpg"), cover,
              stamp(2020, 1, 1))


def make_photos(rng, out, count, base, add_exif):
    for index in range(1, count + 1):
        year = rng.randint(2004, 2025)
        month, day = rng.randint(1, 12), rng.randint(1, 28)
        hour, minute, second = (rng.randint(6, 22), rng.randint(0, 59),
                                rng.randint(0, 59))
        make, model = rng.choice(CAMERAS)
        # Orientation 6 and 8 turn a landscape sensor image upright; 3 is
        # upside down. Most photos need no turn.
        orientation = rng.choice([1] * 12 + [3, 6, 6, 8])
        description = None
        if rng.random() < 0.2:
            description = "%s %s" % (rng.choice(PLACES), rng.choice(EVENTS))
        # A phone that turns the pixels itself stores a portrait frame.
        portrait = orientation == 1 and rng.random() < 0.25
        picture = base["portrait"] if portrait else base["landscape"]
        data = add_exif(
            picture, make, model,
            "%04d:%02d:%02d %02d:%02d:%02d" % (year, month, day, hour,
                                               minute, second),
            orientation, description)
        folder = os.path.join(out, "Pictures", str(year),
                              "%04d-%02d" % (year, month))
        os.makedirs(folder, exist_ok=True)
        write(os.path.join(folder, "IMG_%06d.jpg" % index), data,
              stamp(year, month, day, hour, minute, second))


def make_videos(rng, out, count, clip):
    for index in range(1, count + 1):
        year = rng.randint(2008, 2025)
        folder = os.path.join(out, "Videos", str(year))
        os.makedirs(folder, exist_ok=True)
        name = "%s %s %06d.mp4" % (rng.choice(PLACES), rng.choice(EVENTS),
                                   index)
        write(os.path.join(folder, name), clip,
              stamp(year, rng.randint(1, 12), rng.randint(1, 28)))


def make_documents(rng, out, count):
    for index in range(1, count + 1):
        folder = os.path.join(out, "Documents", rng.choice(DOC_FOLDERS))
        os.makedirs(folder, exist_ok=True)
        words = " ".join(rng.choice(TITLE_WORDS).lower() for _ in range(8))
        lines = ["Document %d" % index, "", words.capitalize() + "."]
        mtime = stamp(rng.randint(2010, 2025), rng.randint(1, 12),
                      rng.randint(1, 28))
        if index % 3 == 0:
            write(os.path.join(folder, "document-%06d.pdf" % index),
                  pdf_file(lines), mtime)
        else:
            write(os.path.join(folder, "note-%06d.txt" % index),
                  ("\n".join(lines) + "\n").encode("utf-8"), mtime)


def make_playlists(rng, out, count, albums):
    """M3U files in Playlists/ naming tracks by paths relative to it; every
    second one (the first among them) is extended with #EXTINF lines."""
    tracks = [entry for _, files in albums for entry in files]
    folder = os.path.join(out, "Playlists")
    os.makedirs(folder, exist_ok=True)
    names = set()
    for index in range(count):
        picked = rng.sample(tracks, min(len(tracks), rng.randint(5, 20)))
        extended = index % 2 == 0
        lines = ["#EXTM3U"] if extended else []
        for path, tags in picked:
            if extended:
                lines.append("#EXTINF:1,%s - %s" % (tags["artist"],
                                                    tags["title"]))
            lines.append("../Music/" + path)
        name = name_of(rng, names, ADJECTIVES, TITLE_WORDS)
        write(os.path.join(folder, name + ".m3u"),
              ("\n".join(lines) + "\n").encode("utf-8"), stamp(2024, 6, 1))


def main():
    if len(sys.argv) != 4:
        print(__doc__.strip().splitlines()[-1], file=sys.stderr)
        return 2
    n, out, base_dir = int(sys.argv[1]), sys.argv[2], sys.argv[3]
    started = time.monotonic()
    add_exif = load_add_exif()

    def read(name):
        with open(os.path.join(base_dir, name), "rb") as f:
            return f.read()

    base = {"mp3": read("base.mp3"), "landscape": read("landscape.jpg"),
            "portrait": read("portrait.jpg")}
    base["m4a_head"], base["m4a_moov"] = split_m4a(read("base.m4a"))

    rng = random.Random(n)
    audio, photos, videos, documents, playlists = shares(n)
    albums = make_music(rng, out, audio, base) if audio else []
    covers = min(len(albums) // 4 + (1 if albums else 0), photos // 10)
    make_covers(rng, albums, covers, read("cover.jpg"))
    make_photos(rng, out, photos - covers, base, add_exif)
    make_videos(rng, out, videos, read("clip.mp4"))
    make_documents(rng, out, documents)
    make_playlists(rng, out, playlists, albums)
    write(os.path.join(out, MARKER), (MARKER_TEXT % n).encode("ascii"),
          stamp(2024, 6, 1))
    print("%d files: %d audio (%d albums), %d photos (%d Folder.jpg), "
          "%d videos, %d documents, %d playlists; %.1f s writing"
          % (n, audio, len(albums), photos, covers, videos, documents,
             playlists, time.monotonic() - started))
    return 0


if __name__ == "__main__":
    sys.exit(main())
