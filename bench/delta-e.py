#!/usr/bin/env python3
"""Colour difference (CIEDE2000) between the thumbnails of two builds.

    bench/delta-e.py OLD_TOOL NEW_TOOL FILE...

Runs both tools on every file, pairs their thumbnails by size name and
prints the mean, 95th-percentile and largest ΔE2000 of each pair (sRGB,
D65), then the mean over all pairs. Thumbnails are decoded with the ffmpeg
command, the same way for both, so only what the tools wrote differs. Pure
Python: a few seconds per file.
"""
import json
import math
import os
import subprocess
import sys
import tempfile


def thumbnails(tool, src, out_dir):
    os.makedirs(out_dir, exist_ok=True)
    done = subprocess.run([tool, "--output_dir", out_dir, "--src", src], capture_output=True, text=True)
    report = json.loads(done.stdout or "null")
    return report or {}


def pixels(path):
    probe = subprocess.run(["ffprobe", "-v", "error", "-select_streams", "v:0", "-show_entries",
                            "stream=width,height", "-of", "csv=p=0", path], capture_output=True, text=True)
    width, height = (int(v) for v in probe.stdout.strip().split(",")[:2])
    raw = subprocess.run(["ffmpeg", "-v", "error", "-i", path, "-f", "rawvideo", "-pix_fmt", "rgb24", "-"],
                         capture_output=True).stdout
    return width, height, raw


def srgb_to_lab(r, g, b):
    def linear(c):
        c /= 255.0
        return c / 12.92 if c <= 0.04045 else ((c + 0.055) / 1.055) ** 2.4
    r, g, b = linear(r), linear(g), linear(b)
    x = (0.4124 * r + 0.3576 * g + 0.1805 * b) / 0.95047
    y = 0.2126 * r + 0.7152 * g + 0.0722 * b
    z = (0.0193 * r + 0.1192 * g + 0.9505 * b) / 1.08883

    def f(t):
        return t ** (1 / 3) if t > 216 / 24389 else (24389 / 27 * t + 16) / 116
    fx, fy, fz = f(x), f(y), f(z)
    return 116 * fy - 16, 500 * (fx - fy), 200 * (fy - fz)


def ciede2000(lab1, lab2):
    l1, a1, b1 = lab1
    l2, a2, b2 = lab2
    c1, c2 = math.hypot(a1, b1), math.hypot(a2, b2)
    c_mean = (c1 + c2) / 2
    g = 0.5 * (1 - math.sqrt(c_mean ** 7 / (c_mean ** 7 + 25 ** 7)))
    a1p, a2p = (1 + g) * a1, (1 + g) * a2
    c1p, c2p = math.hypot(a1p, b1), math.hypot(a2p, b2)
    h1p = math.degrees(math.atan2(b1, a1p)) % 360
    h2p = math.degrees(math.atan2(b2, a2p)) % 360
    dl, dc = l2 - l1, c2p - c1p
    if c1p * c2p == 0:
        dhp = 0
    elif abs(h2p - h1p) <= 180:
        dhp = h2p - h1p
    else:
        dhp = h2p - h1p - 360 if h2p > h1p else h2p - h1p + 360
    dh = 2 * math.sqrt(c1p * c2p) * math.sin(math.radians(dhp / 2))
    l_mean, cp_mean = (l1 + l2) / 2, (c1p + c2p) / 2
    if c1p * c2p == 0:
        h_mean = h1p + h2p
    elif abs(h1p - h2p) <= 180:
        h_mean = (h1p + h2p) / 2
    else:
        h_mean = (h1p + h2p + 360) / 2 if h1p + h2p < 360 else (h1p + h2p - 360) / 2
    t = (1 - 0.17 * math.cos(math.radians(h_mean - 30)) + 0.24 * math.cos(math.radians(2 * h_mean))
         + 0.32 * math.cos(math.radians(3 * h_mean + 6)) - 0.20 * math.cos(math.radians(4 * h_mean - 63)))
    d_theta = 30 * math.exp(-(((h_mean - 275) / 25) ** 2))
    rc = 2 * math.sqrt(cp_mean ** 7 / (cp_mean ** 7 + 25 ** 7))
    sl = 1 + 0.015 * (l_mean - 50) ** 2 / math.sqrt(20 + (l_mean - 50) ** 2)
    sc = 1 + 0.045 * cp_mean
    sh = 1 + 0.015 * cp_mean * t
    rt = -math.sin(math.radians(2 * d_theta)) * rc
    return math.sqrt((dl / sl) ** 2 + (dc / sc) ** 2 + (dh / sh) ** 2 + rt * (dc / sc) * (dh / sh))


def compare(path_a, path_b):
    wa, ha, a = pixels(path_a)
    wb, hb, b = pixels(path_b)
    if (wa, ha) != (wb, hb):
        return None
    cache = {}

    def lab(rgb):
        if rgb not in cache:
            cache[rgb] = srgb_to_lab(*rgb)
        return cache[rgb]
    values = sorted(ciede2000(lab(a[i:i + 3]), lab(b[i:i + 3])) for i in range(0, len(a), 3))
    return sum(values) / len(values), values[int(len(values) * 0.95)], values[-1]


def main():
    if len(sys.argv) < 4:
        sys.exit(__doc__)
    old_tool, new_tool, files = sys.argv[1], sys.argv[2], sys.argv[3:]
    means = []
    with tempfile.TemporaryDirectory() as work:
        for n, src in enumerate(files):
            old = thumbnails(old_tool, src, os.path.join(work, f"{n}-old"))
            new = thumbnails(new_tool, src, os.path.join(work, f"{n}-new"))
            for size in ("small", "small-medium", "medium", "large"):
                if size not in old or size not in new:
                    continue
                result = compare(old[size], new[size])
                if result is None:
                    print(f"{src}\t{size}\tsizes differ")
                    continue
                means.append(result[0])
                print(f"{src}\t{size}\tmean {result[0]:.3f}\tp95 {result[1]:.3f}\tmax {result[2]:.3f}", flush=True)
    if means:
        print(f"mean of {len(means)} thumbnails: {sum(means) / len(means):.3f}")


if __name__ == "__main__":
    main()
