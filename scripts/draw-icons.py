#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Draws the four 16-pixel status icons into ui/images/ (deterministic; rerun after a change)."""
import math
import os
import struct
import zlib

SIZE = 16
HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "..", "ui", "images")


def png(pixels):
    raw = b"".join(b"\x00" + bytes(c for px in row for c in px) for row in pixels)

    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body) & 0xFFFFFFFF)

    header = struct.pack(">IIBBBBB", SIZE, SIZE, 8, 6, 0, 0, 0)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header)
            + chunk(b"IDAT", zlib.compress(raw, 9)) + chunk(b"IEND", b""))


def canvas(shade):
    return [[shade(x + 0.5, y + 0.5) for x in range(SIZE)] for y in range(SIZE)]


def coverage(d, edge):
    """Anti-aliased coverage of a point at signed distance d inside an edge at `edge`."""
    return max(0.0, min(1.0, edge - d + 0.5))


def rgba(color, alpha):
    return (*color, int(round(255 * alpha)))


DARK = (40, 40, 40)
GREY = (120, 120, 120)
WHITE = (255, 255, 255)
BLUE = (25, 110, 210)


def ring(color):
    def shade(x, y):
        d = math.hypot(x - 8, y - 8)
        return rgba(color, min(coverage(d, 6.5), 1 - coverage(d, 4.5)))
    return shade


def off(x, y):
    r, g, b, a = ring(GREY)(x, y)
    on_slash = abs(x - y) < 1.2 and math.hypot(x - 8, y - 8) < 5.5
    return (*GREY, 255) if on_slash else (r, g, b, a)


def disc_with_dot(outer, inner):
    def shade(x, y):
        d = math.hypot(x - 8, y - 8)
        if d < 2.5:
            return rgba(inner, coverage(d, 2.5))
        return rgba(outer, coverage(d, 6.5))
    return shade


def arrow(x, y):
    shaft = 6 <= x <= 10 and 2 <= y <= 9
    head = y >= 8 and abs(x - 8) <= (14 - y)
    return (*BLUE, 255) if shaft or head else (0, 0, 0, 0)


ICONS = {
    "close_16.png": off,
    "ntwrk_16.png": disc_with_dot(DARK, WHITE),
    "ntwrk_16_inverted.png": disc_with_dot(WHITE, DARK),
    "down_16.png": arrow,
}

if __name__ == "__main__":
    os.makedirs(OUT, exist_ok=True)
    for name, shade in ICONS.items():
        with open(os.path.join(OUT, name), "wb") as f:
            f.write(png(canvas(shade)))
