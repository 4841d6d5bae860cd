#!/usr/bin/env python3
"""Runs thumbnail-tool over a corpus of real-world files described by a
MANIFEST.tsv and checks what every run must satisfy:

  * exit status 0 and a JSON report (an object or null) on standard output;
  * no crash, no hang (each run has a time limit);
  * the output directory holds exactly the files the report names;
  * every reported file is a JPEG, and when the manifest knows the upright
    size of the source, each thumbnail has the expected size and orientation.

Usage: corpus-run.py <thumbnail-tool> <corpus-dir> [--filter SUBSTRING] [--verbose]
Prints one line per file and a summary; exits 1 when a run broke a rule that
holds for every input (crash, hang, bad report, stray files).

A Windows build (a tool whose name ends in .exe) runs under Wine
(scripts/windows/wine-run.sh), given the paths as Wine's Z: drive shows them;
the paths it reports are read back the same way.
"""
import argparse
import csv
import json
import os
import shutil
import struct
import subprocess
import sys
import tempfile
import time

WINE_RUN = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "scripts", "windows", "wine-run.sh")
SIZES = {"small": 120, "small-medium": 240, "medium": 320, "large": 1280}
TIME_LIMIT_S = 150


def jpeg_size(path):
    """(width, height) of a baseline or progressive JPEG, or None."""
    with open(path, "rb") as f:
        data = f.read()
    if data[:2] != b"\xff\xd8":
        return None
    i = 2
    while i + 4 <= len(data):
        if data[i] != 0xFF:
            i += 1
            continue
        marker = data[i + 1]
        if marker in (0xD8, 0x01) or 0xD0 <= marker <= 0xD7:
            i += 2
            continue
        length = struct.unpack(">H", data[i + 2:i + 4])[0]
        if 0xC0 <= marker <= 0xCF and marker not in (0xC4, 0xC8, 0xCC):
            h, w = struct.unpack(">HH", data[i + 5:i + 9])
            return w, h
        i += 2 + length
    return None


def expected_size(width, height, edge):
    """What the tool should make of an upright width x height source: the
    provider fits the longer side into 3 x edge (never enlarging), then the
    shorter side is scaled to edge when both sides exceed it."""
    cx = 3 * edge
    if max(width, height) > cx:
        scale = cx / max(width, height)
        width, height = max(1, round(width * scale)), max(1, round(height * scale))
    if width > edge and height > edge:
        if width < height:
            return edge, int(edge / width * height)
        return int(edge / height * width), edge
    return width, height


def close(a, b, tolerance=2):
    return abs(a[0] - b[0]) <= tolerance and abs(a[1] - b[1]) <= tolerance


def to_wine(path):
    return "Z:" + os.path.abspath(path).replace("/", "\\")


def from_wine(path):
    return path[2:].replace("\\", "/") if path.startswith("Z:\\") else path


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("tool")
    parser.add_argument("corpus")
    parser.add_argument("--filter", default="")
    parser.add_argument("--verbose", action="store_true")
    args = parser.parse_args()

    rows = list(csv.DictReader(open(os.path.join(args.corpus, "MANIFEST.tsv"), encoding="utf-8"),
                               delimiter="\t"))
    broken = 0
    counts = {"made": 0, "none": 0, "mismatch": 0, "broken": 0}
    for row in rows:
        rel = row["path"]
        if args.filter not in rel:
            continue
        src = os.path.join(args.corpus, rel)
        out_dir = tempfile.mkdtemp(prefix="corpus-")
        problems = []
        started = time.monotonic()
        try:
            if args.tool.endswith(".exe"):
                command = [WINE_RUN, args.tool, "--output_dir", to_wine(out_dir), "--src", to_wine(src)]
            else:
                command = [args.tool, "--output_dir", out_dir, "--src", src]
            proc = subprocess.run(command, capture_output=True, timeout=TIME_LIMIT_S)
        except subprocess.TimeoutExpired:
            problems.append("hang")
            proc = None
        elapsed = time.monotonic() - started
        report = None
        if proc is not None:
            if proc.returncode != 0:
                problems.append("exit %d" % proc.returncode)
            try:
                report = json.loads(proc.stdout.decode("utf-8"))
            except (UnicodeDecodeError, ValueError):
                problems.append("stdout is not JSON: %r" % proc.stdout[:80])
            if report is not None and not isinstance(report, dict):
                problems.append("report is neither an object nor null")
                report = None
        files = set(os.listdir(out_dir))
        reported = set()
        mismatches = []
        for name, path in (report or {}).items():
            path = from_wine(path)
            reported.add(os.path.basename(path))
            if name not in SIZES or not os.path.isfile(path):
                problems.append("bad entry %s -> %s" % (name, path))
                continue
            size = jpeg_size(path)
            if size is None:
                problems.append("%s is not a JPEG" % name)
                continue
            display = row.get("display_WxH_after_orientation", "")
            if "x" in display:
                w, h = (int(v) for v in display.split("x"))
                want = expected_size(w, h, SIZES[name])
                if not close(size, want):
                    mismatches.append("%s %dx%d, expected %dx%d" % (name, size[0], size[1], *want))
        if files != reported:
            problems.append("stray files: %s" % sorted(files - reported))
        shutil.rmtree(out_dir, ignore_errors=True)

        if problems:
            verdict = "BROKEN"
            counts["broken"] += 1
            broken += 1
        elif mismatches:
            verdict = "size?"
            counts["mismatch"] += 1
        elif report:
            verdict = "made %d" % len(report)
            counts["made"] += 1
        else:
            verdict = "null"
            counts["none"] += 1
        print("%-8s %5.2fs  %-55s %s" % (verdict, elapsed, rel[:55], row["expected_outcome"][:60]))
        for text in problems + mismatches:
            print("           - " + text)
        if args.verbose and proc is not None and proc.stderr:
            print("           stderr: " + proc.stderr.decode("utf-8", "replace").strip()[:300])
    print("\n%(made)d with thumbnails, %(none)d null, %(mismatch)d size mismatches, %(broken)d broken" % counts)
    return 1 if broken else 0


if __name__ == "__main__":
    sys.exit(main())
