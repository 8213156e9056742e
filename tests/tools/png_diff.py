#!/usr/bin/env python3
"""Compares two 8-bit RGB(A) PNG images written by kxgeom.

Usage: png_diff.py A.png B.png MAX_FRACTION
Exits 0 when the images have the same size and at most MAX_FRACTION of their
bytes differ by more than 8 levels, 1 otherwise (printing the figures)."""
import struct
import sys
import zlib


def paeth(a, b, c):
    p = a + b - c
    pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
    return a if pa <= pb and pa <= pc else (b if pb <= pc else c)


def load(path):
    data = open(path, 'rb').read()
    pos, idat = 8, b''
    while pos < len(data):
        n, kind = struct.unpack('>I4s', data[pos:pos + 8])
        body = data[pos + 8:pos + 8 + n]
        pos += 12 + n
        if kind == b'IHDR':
            width, height, _, colour = struct.unpack('>IIBB', body[:10])
        elif kind == b'IDAT':
            idat += body
    raw = zlib.decompress(idat)
    bpp = 3 if colour == 2 else 4
    stride = width * bpp
    pixels, prev, i = bytearray(), bytearray(stride), 0
    for _ in range(height):
        kind, line = raw[i], bytearray(raw[i + 1:i + 1 + stride])
        i += 1 + stride
        for x in range(stride):
            a = line[x - bpp] if x >= bpp else 0
            c = prev[x - bpp] if x >= bpp else 0
            predictor = [0, a, prev[x], (a + prev[x]) // 2, paeth(a, prev[x], c)][kind]
            line[x] = (line[x] + predictor) & 255
        pixels += line
        prev = line
    return width, height, pixels


wa, ha, a = load(sys.argv[1])
wb, hb, b = load(sys.argv[2])
if (wa, ha) != (wb, hb):
    sys.exit(f'sizes differ: {wa}x{ha} against {wb}x{hb}')
differing = sum(1 for x, y in zip(a, b) if abs(x - y) > 8) / len(a)
if differing > float(sys.argv[3]):
    sys.exit(f'{differing:.4%} of the bytes differ')
