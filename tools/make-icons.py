#!/usr/bin/env python3
# Draws the device icons that players show beside the server's name: a
# white play triangle in a rounded square of calm blue, at 120, 80 and 48
# pixels, as PNG and as JPEG, into resources/. Only the standard library
# is needed for the PNG files; the JPEG files are converted from them by
# ffmpeg. Run it again after a change of design and commit what it wrote.
#
# The PNG files are 24-bit RGB, as the device description announces them;
# the corners outside the rounded square are one key colour that a tRNS
# chunk marks as transparent. The JPEG files, which know no transparency,
# have white corners.
import os
import struct
import subprocess
import sys
import tempfile
import zlib

SIZES = (120, 80, 48)
SQUARE = (38, 104, 132)        # calm blue
SQUARE_EDGE = (28, 82, 106)    # a slightly darker rim
PLAY = (255, 255, 255)
KEY = (0, 255, 0)              # transparent in the PNG files
PAPER = (255, 255, 255)        # the corners of the JPEG files
SUB = 4                        # samples per pixel side for smooth edges


def inside_rounded_square(x, y, size, radius):
    """Whether the point lies in the square of the given size with rounded corners."""
    if x < 0 or y < 0 or x > size or y > size:
        return False
    cx = min(max(x, radius), size - radius)
    cy = min(max(y, radius), size - radius)
    return (x - cx) ** 2 + (y - cy) ** 2 <= radius ** 2


def inside_triangle(x, y, size):
    """Whether the point lies in the play triangle, a little right of centre so that it looks centred."""
    left, right = size * 0.36, size * 0.74
    top, bottom = size * 0.26, size * 0.74
    if x < left or x > right:
        return False
    half = (bottom - top) / 2 * (right - x) / (right - left)
    middle = (top + bottom) / 2
    return middle - half <= y <= middle + half


def mix(a, b, share):
    return tuple(round(a[i] * (1 - share) + b[i] * share) for i in range(3))


def pixel(px, py, size, corners):
    """The colour of one pixel; corners is the colour outside the square."""
    radius = size * 0.22
    rim = max(1.0, size / 40)
    square = edge = play = 0
    for sy in range(SUB):
        for sx in range(SUB):
            x = px + (sx + 0.5) / SUB
            y = py + (sy + 0.5) / SUB
            if not inside_rounded_square(x, y, size, radius):
                continue
            square += 1
            if not inside_rounded_square(x - rim, y - rim, size - 2 * rim, radius - rim):
                edge += 1
            elif inside_triangle(x, y, size):
                play += 1
    total = SUB * SUB
    if square * 2 < total:
        return corners
    body = SQUARE if edge * 2 < square else SQUARE_EDGE
    # Only the triangle is smoothed: a key colour cannot be half transparent.
    colour = mix(body, PLAY, play / square)
    if corners != KEY:
        colour = mix(corners, colour, square / total)
    return colour


def draw(size, corners):
    return [[pixel(x, y, size, corners) for x in range(size)] for y in range(size)]


def chunk(kind, data):
    body = kind + data
    return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body) & 0xFFFFFFFF)


def png(rows, transparent):
    height, width = len(rows), len(rows[0])
    raw = b"".join(b"\0" + bytes(v for colour in row for v in colour) for row in rows)
    data = b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0))
    if transparent:
        data += chunk(b"tRNS", struct.pack(">HHH", *transparent))
    return data + chunk(b"IDAT", zlib.compress(raw, 9)) + chunk(b"IEND", b"")


def write(path, data, quiet=False):
    with open(path, "wb") as f:
        f.write(data)
    if not quiet:
        print("wrote", path)


def main():
    top = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(top, "resources")
    for size in SIZES:
        name = os.path.join(out, "velmoraicon-%dx%d" % (size, size))
        write(name + ".png", png(draw(size, KEY), KEY))
        with tempfile.TemporaryDirectory() as scratch:
            flat = os.path.join(scratch, "flat.png")
            write(flat, png(draw(size, PAPER), None), quiet=True)
            # Baseline 4:2:0, which every player's decoder reads.
            subprocess.run(["ffmpeg", "-loglevel", "error", "-y", "-i", flat, "-q:v", "2", "-pix_fmt", "yuvj420p",
                            name + ".jpg"], check=True)
            print("wrote", name + ".jpg")


if __name__ == "__main__":
    main()
