#!/usr/bin/env python3
"""Writes a matrix-and-curve RGB ICC profile for the benchmark corpus.

    make-icc.py srgb OUT          sRGB as cameras embed it: version 2,
                                  1024-entry tone curves
    make-icc.py display-p3 OUT    Display P3: version 4, parametric curves

Same bytes on every run. The colorants are the D50-adapted primaries of each
space, as profiles carry them.
"""
import math
import struct
import sys

D50 = (0.9642, 1.0, 0.8249)
SPACES = {
    "srgb": {
        "version": 0x02100000,
        "description": "sRGB (benchmark corpus)",
        "colorants": ((0.4361, 0.2225, 0.0139), (0.3851, 0.7169, 0.0971), (0.1431, 0.0606, 0.7141)),
        "curve": "table",
    },
    "display-p3": {
        "version": 0x04300000,
        "description": "Display P3 (benchmark corpus)",
        "colorants": ((0.5151, 0.2412, -0.0011), (0.2919, 0.6922, 0.0419), (0.1572, 0.0666, 0.7841)),
        "curve": "parametric",
    },
}


def s15f16(value):
    return struct.pack(">i", int(round(value * 65536)))


def xyz_tag(xyz):
    return b"XYZ " + b"\0" * 4 + b"".join(s15f16(v) for v in xyz)


def srgb_decode(v):
    return v / 12.92 if v <= 0.04045 else ((v + 0.055) / 1.055) ** 2.4


def curve_tag(kind):
    if kind == "table":
        n = 1024
        values = [int(round(srgb_decode(i / (n - 1)) * 65535)) for i in range(n)]
        return b"curv" + b"\0" * 4 + struct.pack(">I", n) + struct.pack(f">{n}H", *values)
    # Type 3: Y = (aX + b)^g for X >= d, else cX.
    g, a, b, c, d = 2.4, 1 / 1.055, 0.055 / 1.055, 1 / 12.92, 0.04045
    return b"para" + b"\0" * 4 + struct.pack(">HH", 3, 0) + b"".join(s15f16(v) for v in (g, a, b, c, d))


def text_tag(text, version):
    if version >= 0x04000000:
        encoded = text.encode("utf-16-be")
        return (b"mluc" + b"\0" * 4 + struct.pack(">II", 1, 12) + b"enUS" +
                struct.pack(">II", len(encoded), 28) + encoded)
    ascii_text = text.encode("ascii") + b"\0"
    return (b"desc" + b"\0" * 4 + struct.pack(">I", len(ascii_text)) + ascii_text +
            struct.pack(">II", 0, 0) + struct.pack(">HB", 0, 0) + b"\0" * 67)


def copyright_tag(version):
    if version >= 0x04000000:
        return text_tag("No copyright, use freely", version)
    return b"text" + b"\0" * 4 + b"No copyright, use freely\0"


def profile(name):
    space = SPACES[name]
    version = space["version"]
    curve = curve_tag(space["curve"])
    tags = [
        (b"desc", text_tag(space["description"], version)),
        (b"cprt", copyright_tag(version)),
        (b"wtpt", xyz_tag(D50)),
        (b"rXYZ", xyz_tag(space["colorants"][0])),
        (b"gXYZ", xyz_tag(space["colorants"][1])),
        (b"bXYZ", xyz_tag(space["colorants"][2])),
        (b"rTRC", curve),
        (b"gTRC", curve),  # the same data: shared below
        (b"bTRC", curve),
    ]
    if version >= 0x04000000:
        # Version 4 wants the adaptation from D65 that gave the colorants.
        bradford = ((1.0479, 0.0229, -0.0502), (0.0296, 0.9904, -0.0171), (-0.0092, 0.0151, 0.7519))
        tags.append((b"chad", b"sf32" + b"\0" * 4 + b"".join(s15f16(v) for row in bradford for v in row)))
    table_size = 4 + 12 * len(tags)
    offset = 128 + table_size
    entries = b""
    data = b""
    placed = {}
    for signature, body in tags:
        if body not in placed:
            placed[body] = offset
            padded = body + b"\0" * (-len(body) % 4)
            data += padded
            offset += len(padded)
        entries += signature + struct.pack(">II", placed[body], len(body))
    size = 128 + table_size + len(data)
    header = struct.pack(">I", size) + b"\0" * 4 + struct.pack(">I", version) + b"mntrRGB XYZ "
    header += struct.pack(">6H", 2024, 1, 1, 0, 0, 0) + b"acsp" + b"\0" * 4
    header += struct.pack(">I", 0) + b"\0" * 8 + b"\0" * 8 + struct.pack(">I", 0)
    header += b"".join(s15f16(v) for v in D50) + b"\0" * 4
    header += b"\0" * (128 - len(header))
    assert len(header) == 128
    return header + struct.pack(">I", len(tags)) + entries + data


def main():
    if len(sys.argv) != 3 or sys.argv[1] not in SPACES:
        sys.exit(__doc__)
    with open(sys.argv[2], "wb") as out:
        out.write(profile(sys.argv[1]))


if __name__ == "__main__":
    main()
