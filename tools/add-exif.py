#!/usr/bin/env python3
"""Give a JPEG an EXIF block, so the sample pictures carry the camera fields
(maker, model, capture date, orientation, pixel size, and a caption when
given) that a real photo has.

ffmpeg writes no EXIF, so this builds the TIFF structure by hand and places
it as an APP1 segment directly after SOI, where picture readers look first.
The TIFF part is big-endian ("MM"): several readers take a SHORT value from
the top half of its 4-byte slot, which is only right in that byte order.

The pixel size comes from the picture's own frame header, so the EXIF values
can never disagree with the image. Any EXIF segment the file already has is
dropped first, so running the tool twice gives the same file.

Usage: add-exif.py FILE --make TEXT --model TEXT --date "YYYY:MM:DD HH:MM:SS"
                   [--orientation N] [--description TEXT]
"""

import argparse
import os
import struct
import sys

TYPE_ASCII = 2
TYPE_SHORT = 3
TYPE_LONG = 4
TYPE_RATIONAL = 5
TYPE_UNDEFINED = 7

TAG_IMAGE_DESCRIPTION = 270
TAG_MAKE = 271
TAG_MODEL = 272
TAG_ORIENTATION = 274
TAG_X_RESOLUTION = 282
TAG_Y_RESOLUTION = 283
TAG_RESOLUTION_UNIT = 296
TAG_DATE_TIME = 306
TAG_YCBCR_POSITIONING = 531
TAG_EXIF_IFD = 34665
TAG_EXIF_VERSION = 36864
TAG_DATE_ORIGINAL = 36867
TAG_DATE_DIGITIZED = 36868
TAG_COMPONENTS = 37121
TAG_FLASHPIX_VERSION = 40960
TAG_COLOR_SPACE = 40961
TAG_PIXEL_X = 40962
TAG_PIXEL_Y = 40963

# Start-of-frame markers that carry the picture size; C4, C8 and CC are
# table and arithmetic-coding markers with the same byte prefix.
SOF_MARKERS = set(range(0xC0, 0xD0)) - {0xC4, 0xC8, 0xCC}
EXIF_HEADER = b"Exif\x00\x00"


def ascii_value(text):
    return (TYPE_ASCII, text.encode("ascii") + b"\x00")


def short_value(number):
    return (TYPE_SHORT, struct.pack(">H", number))


def long_value(number):
    return (TYPE_LONG, struct.pack(">I", number))


def rational_value(numerator, denominator):
    return (TYPE_RATIONAL, struct.pack(">II", numerator, denominator))


def undefined_value(data):
    return (TYPE_UNDEFINED, data)


def element_count(kind, data):
    size = {TYPE_SHORT: 2, TYPE_LONG: 4, TYPE_RATIONAL: 8}.get(kind, 1)
    return len(data) // size


def ifd_size(entries):
    """Bytes an IFD takes: count, entries, next-IFD word, then its values."""
    size = 2 + 12 * len(entries) + 4
    for _, (_, data) in entries:
        if len(data) > 4:
            size += len(data) + (len(data) & 1)
    return size


def pack_ifd(entries, start):
    """One IFD placed at TIFF offset `start`, with its large values behind it.

    Entries must be sorted by tag; readers may stop at the first tag above
    the one they want."""
    table = struct.pack(">H", len(entries))
    values = b""
    value_pos = start + 2 + 12 * len(entries) + 4
    for tag, (kind, data) in entries:
        count = element_count(kind, data)
        if len(data) <= 4:
            slot = data.ljust(4, b"\x00")
        else:
            slot = struct.pack(">I", value_pos + len(values))
            values += data
            if len(values) & 1:
                values += b"\x00"
        table += struct.pack(">HHI", tag, kind, count) + slot
    return table + struct.pack(">I", 0) + values


def build_tiff(make, model, date, orientation, width, height,
               description=None):
    ifd0 = [
        (TAG_MAKE, ascii_value(make)),
        (TAG_MODEL, ascii_value(model)),
        (TAG_ORIENTATION, short_value(orientation)),
        (TAG_X_RESOLUTION, rational_value(72, 1)),
        (TAG_Y_RESOLUTION, rational_value(72, 1)),
        (TAG_RESOLUTION_UNIT, short_value(2)),
        (TAG_DATE_TIME, ascii_value(date)),
        (TAG_YCBCR_POSITIONING, short_value(1)),
        (TAG_EXIF_IFD, long_value(0)),
    ]
    if description:
        ifd0.insert(0, (TAG_IMAGE_DESCRIPTION, ascii_value(description)))
    exif = [
        (TAG_EXIF_VERSION, undefined_value(b"0232")),
        (TAG_DATE_ORIGINAL, ascii_value(date)),
        (TAG_DATE_DIGITIZED, ascii_value(date)),
        (TAG_COMPONENTS, undefined_value(b"\x01\x02\x03\x00")),
        (TAG_FLASHPIX_VERSION, undefined_value(b"0100")),
        (TAG_COLOR_SPACE, short_value(1)),
        (TAG_PIXEL_X, long_value(width)),
        (TAG_PIXEL_Y, long_value(height)),
    ]
    exif_start = 8 + ifd_size(ifd0)
    ifd0[-1] = (TAG_EXIF_IFD, long_value(exif_start))
    tiff = b"MM\x00\x2a" + struct.pack(">I", 8)
    tiff += pack_ifd(ifd0, 8)
    tiff += pack_ifd(exif, exif_start)
    return tiff


def split_segments(jpeg):
    """The marker segments ahead of the scan data, and the rest as one blob."""
    if jpeg[:2] != b"\xff\xd8":
        raise ValueError("not a JPEG file (no SOI marker)")
    segments = []
    pos = 2
    while pos + 4 <= len(jpeg):
        if jpeg[pos] != 0xFF:
            raise ValueError("broken marker at byte %d" % pos)
        marker = jpeg[pos + 1]
        if marker == 0xFF:
            pos += 1  # fill byte before a marker
            continue
        if marker == 0xDA:
            break
        length = struct.unpack(">H", jpeg[pos + 2:pos + 4])[0]
        end = pos + 2 + length
        if length < 2 or end > len(jpeg):
            raise ValueError("segment at byte %d runs past the end" % pos)
        segments.append(jpeg[pos:end])
        pos = end
    return segments, jpeg[pos:]


def frame_size(segments):
    for segment in segments:
        if segment[1] in SOF_MARKERS and len(segment) >= 9:
            height, width = struct.unpack(">HH", segment[5:9])
            return width, height
    raise ValueError("no start-of-frame segment")


def is_exif(segment):
    return segment[1] == 0xE1 and segment[4:10] == EXIF_HEADER


def add_exif(jpeg, make, model, date, orientation, description=None):
    segments, rest = split_segments(jpeg)
    width, height = frame_size(segments)
    payload = EXIF_HEADER + build_tiff(make, model, date, orientation,
                                       width, height, description)
    if len(payload) + 2 > 0xFFFF:
        raise ValueError("EXIF block too large for one segment")
    app1 = b"\xff\xe1" + struct.pack(">H", len(payload) + 2) + payload
    kept = [s for s in segments if not is_exif(s)]
    return b"\xff\xd8" + app1 + b"".join(kept) + rest


def check_date(text):
    if (len(text) != 19 or text[4] != ":" or text[7] != ":"
            or text[10] != " " or text[13] != ":" or text[16] != ":"):
        raise argparse.ArgumentTypeError(
            "date must look like YYYY:MM:DD HH:MM:SS")
    return text


def main():
    parser = argparse.ArgumentParser(description="Add an EXIF block to a JPEG.")
    parser.add_argument("file")
    parser.add_argument("--make", required=True)
    parser.add_argument("--model", required=True)
    parser.add_argument("--date", required=True, type=check_date)
    parser.add_argument("--orientation", type=int, default=1,
                        choices=range(1, 9))
    parser.add_argument("--description")
    args = parser.parse_args()
    with open(args.file, "rb") as f:
        jpeg = f.read()
    try:
        result = add_exif(jpeg, args.make, args.model, args.date,
                          args.orientation, args.description)
    except (ValueError, UnicodeEncodeError) as error:
        print("add-exif: %s: %s" % (args.file, error), file=sys.stderr)
        return 1
    temp = args.file + ".tmp"
    with open(temp, "wb") as f:
        f.write(result)
    os.replace(temp, args.file)
    return 0


if __name__ == "__main__":
    sys.exit(main())
