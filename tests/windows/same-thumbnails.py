#!/usr/bin/env python3
"""same-thumbnails.py <ffmpeg> <linux report> <windows report>

Compares two runs of the tool on the same source: the reports name the same
sizes, and each pair of thumbnails has the same dimensions and the same
pixels within a small tolerance (the JPEG encoders of the two builds differ).
Paths of the Windows report are Wine's Z: paths. Exit status 1 on the first
difference, with a line that says what differs."""
import json
import subprocess
import sys

MAX_MEAN_DIFFERENCE = 2.0  # of 255, over every channel of every pixel
# Of 255, for all but the 1 % of channel values that differ most: at sharp
# edges the two encoders' ringing differs by a lot, everywhere else by little.
MAX_P99_DIFFERENCE = 24


def pixels(ffmpeg, path):
    probe = subprocess.run([ffmpeg, "-v", "error", "-i", path, "-f", "image2pipe", "-c:v", "ppm", "-"],
                           capture_output=True, check=True).stdout
    # P6\n<width> <height>\n255\n<rgb bytes>
    header, rest = probe.split(b"\n", 1)
    size, rest = rest.split(b"\n", 1)
    _, data = rest.split(b"\n", 1)
    width, height = (int(v) for v in size.split())
    return width, height, data


def main():
    ffmpeg, linux_report, windows_report = sys.argv[1:4]
    linux = json.load(open(linux_report))
    windows = json.load(open(windows_report))
    if not isinstance(linux, dict) or not isinstance(windows, dict) or sorted(linux) != sorted(windows):
        print("the reports differ: %s / %s" % (linux, windows))
        return 1
    for size in sorted(linux):
        windows_path = windows[size]
        if windows_path.startswith("Z:\\"):
            windows_path = windows_path[2:].replace("\\", "/")
        lw, lh, lp = pixels(ffmpeg, linux[size])
        ww, wh, wp = pixels(ffmpeg, windows_path)
        if (lw, lh) != (ww, wh):
            print("%s: %dx%d on Linux, %dx%d on Windows" % (size, lw, lh, ww, wh))
            return 1
        histogram = [0] * 256
        for a, b in zip(lp, wp):
            histogram[abs(a - b)] += 1
        count = len(lp)
        mean = sum(d * n for d, n in enumerate(histogram)) / count
        seen = 0
        p99 = 0
        for d, n in enumerate(histogram):
            seen += n
            if seen >= 0.99 * count:
                p99 = d
                break
        if mean > MAX_MEAN_DIFFERENCE or p99 > MAX_P99_DIFFERENCE:
            print("%s: pixels differ by %.2f on average, by %d or less in 99 %% of values" % (size, mean, p99))
            return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
