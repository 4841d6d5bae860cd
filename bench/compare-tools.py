#!/usr/bin/env python3
"""Times the tool against the peer thumbnailers and the JPEG decode floor.

Called by bench/run-bench.sh, which installs the peers, builds the tool and
makes the corpus. For every corpus file, every contender makes the tool's four
sizes (shorter side 120, 240, 320, 1280, never enlarged, JPEG) the way a user
scripts it: one process per size, except the tool, which makes all four in one
run. Each contender is run once under /usr/bin/time for its peak RSS (the
largest of its processes) and to check its outputs, then timed by hyperfine
(median). Ratios are tool / contender, so below 1 means the tool is faster.
"""

import argparse
import datetime
import json
import os
import platform
import re
import shutil
import subprocess
import sys
import tempfile
import time

EDGES = (120, 240, 320, 1280)
SIZE_NAMES = ("small", "small-medium", "medium", "large")
CONVERT = "/usr/bin/convert"  # the real ImageMagick, whatever else is on PATH
NOTES_MARKER = "<!-- notes: kept across reruns -->"
PROCESS_TIMEOUT = 60  # seconds; a contender's process that takes longer is given up
CRAWL_SECONDS = 12.0  # contenders slower than this are run once, not timed by hyperfine


def q(path):
    return "'" + path.replace("'", "'\\''") + "'"


def jpeg_size(path):
    """(width, height) from a JPEG's frame header, or None."""
    try:
        with open(path, "rb") as f:
            data = f.read()
    except OSError:
        return None
    i = 2
    if data[:2] != b"\xff\xd8":
        return None
    while i + 9 < len(data):
        if data[i] != 0xFF:
            return None
        marker = data[i + 1]
        if marker == 0xFF:
            i += 1
            continue
        length = int.from_bytes(data[i + 2:i + 4], "big")
        if marker in (0xC0, 0xC1, 0xC2):
            return (int.from_bytes(data[i + 7:i + 9], "big"),
                    int.from_bytes(data[i + 5:i + 7], "big"))
        i += 2 + length
    return None


def expected_short_side(width, height, edge):
    return min(edge, width, height)


def output_ok(path, width, height, edge):
    """The file is a JPEG of the right orientation whose shorter side is the edge."""
    size = jpeg_size(path)
    if not size:
        return False
    w, h = size
    if (w >= h) != (width >= height) and w != h and width != height:
        return False
    return abs(min(w, h) - expected_short_side(width, height, edge)) <= 1


def djpeg_scale(width, height, edge):
    """The smallest M/8 whose decode keeps the shorter side at least the edge."""
    short = min(width, height)
    for m in range(1, 9):
        if (short * m + 7) // 8 >= min(edge, short):
            return m
    return 8


class Contender:
    def __init__(self, name, commands, outputs, check=True):
        self.name = name
        self.commands = commands  # shell commands, one process each
        self.outputs = outputs    # edge -> path, or a callable giving that map
        self.check = check
        self.ok = None
        self.rss_kib = None
        self.seconds = None
        self.cpu = None  # user + system seconds, mean of the timed runs
        self.note = ""
        self.once = 0.0


def contenders_for(entry, tool, out):
    name, kind, width, height = entry["name"], entry["kind"], entry["w"], entry["h"]
    src = entry["path"]
    result = []

    tool_dir = os.path.join(out, "tool")
    report = os.path.join(out, "tool-report.json")
    tool_cmd = f"{q(tool)} --output_dir {q(tool_dir)} --src {q(src)} > {q(report)}"

    def tool_outputs():
        try:
            with open(report) as f:
                data = json.load(f)
        except (OSError, ValueError):
            return {}
        if not isinstance(data, dict):
            return {}
        return {e: data[n] for e, n in zip(EDGES, SIZE_NAMES) if n in data}

    result.append(Contender("tool", [tool_cmd], tool_outputs))

    if kind in ("jpeg", "image"):
        cmds, outs = [], {}
        for e in EDGES:
            box = f"x{e}>" if width >= height else f"{e}x>"
            path = os.path.join(out, f"vips-{e}.jpg")
            cmds.append(f"vipsthumbnail {q(src)} -s {q(box)} -o {q(path + '[Q=75]')}")
            outs[e] = path
        result.append(Contender("vipsthumbnail", cmds, outs))
        cmds, outs = [], {}
        for e in EDGES:
            path = os.path.join(out, f"im-{e}.jpg")
            cmds.append(f"{CONVERT} {q(src)} -thumbnail {q(f'{e}x{e}^>')} -quality 75 {q(path)}")
            outs[e] = path
        result.append(Contender("convert", cmds, outs))
    if kind == "video":
        cmds, outs = [], {}
        for e in EDGES:
            short, long_ = min(width, height), max(width, height)
            size = (min(e, short) * long_ + short - 1) // short
            path = os.path.join(out, f"fft-{e}.jpg")
            cmds.append(f"ffmpegthumbnailer -i {q(src)} -o {q(path)} -s {size} -q 8")
            outs[e] = path
        result.append(Contender("ffmpegthumbnailer", cmds, outs))
    if kind == "jpeg":
        cmds = [f"djpeg -scale {djpeg_scale(width, height, e)}/8 -outfile /dev/null {q(src)}"
                for e in EDGES]
        result.append(Contender("floor", cmds, {}, check=False))
        # One whole decode: what a run that decodes once costs at least.
        result.append(Contender("decode", [f"djpeg -outfile /dev/null {q(src)}"], {}, check=False))
    return result


def run_once(contender, out):
    """Runs every process once under /usr/bin/time; peak RSS and output check."""
    shutil.rmtree(out, ignore_errors=True)
    os.makedirs(os.path.join(out, "tool"))
    peak = 0
    failed = False
    rss_file = os.path.join(out, "..", "rss.txt")
    for cmd in contender.commands:
        try:
            rc = subprocess.call(["/usr/bin/time", "-f", "%M", "-o", rss_file, "sh", "-c", cmd],
                                 stderr=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                 timeout=PROCESS_TIMEOUT)
        except subprocess.TimeoutExpired:
            contender.note = "timed out"
            contender.rss_kib = max(peak, contender.rss_kib or 0)
            return False
        with open(rss_file) as f:
            numbers = [int(t) for t in f.read().split() if t.isdigit()]
        if numbers:
            peak = max(peak, numbers[-1])
        failed = failed or rc != 0
    contender.rss_kib = peak
    return not failed


def check_outputs(contender, entry):
    outputs = contender.outputs() if callable(contender.outputs) else contender.outputs
    for e in EDGES:
        path = outputs.get(e)
        if not path or not output_ok(path, entry["w"], entry["h"], e):
            return False, f"size {e} missing or wrong"
    return True, ""


def time_contenders(contenders, out, runs, slow):
    if not contenders:
        return
    cmds, alive = [], []
    for c in contenders:
        cmds.append(" ; ".join(c.commands))
        alive.append(c)
    with tempfile.NamedTemporaryFile(suffix=".json", delete=False) as f:
        export = f.name
    prepare = f"rm -rf {q(out)} && mkdir -p {q(os.path.join(out, 'tool'))}"
    args = ["hyperfine", "--style", "none", "--runs", str(3 if slow else runs),
            "--prepare", prepare, "--export-json", export, "--ignore-failure"]
    subprocess.run(args + cmds, check=True, stdout=subprocess.DEVNULL)
    with open(export) as f:
        data = json.load(f)
    os.unlink(export)
    for c, r in zip(alive, data["results"]):
        c.seconds = r["median"]
        c.cpu = r["user"] + r["system"]


def ssim_at_320(src, thumb, workdir):
    """Luma SSIM of a 320-px thumbnail against a Lanczos-3 reduction of the source."""
    size = jpeg_size(thumb)
    if not size:
        return None
    ref = os.path.join(workdir, "ref.png")
    subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-y", "-i", src, "-vf",
                    f"scale={size[0]}:{size[1]}:flags=lanczos+accurate_rnd+full_chroma_int:param0=3",
                    ref], check=True)
    done = subprocess.run(["ffmpeg", "-nostdin", "-i", thumb, "-i", ref, "-lavfi",
                           "[0:v]format=yuv444p[a];[1:v]format=yuv444p[b];[a][b]ssim",
                           "-f", "null", "-"], capture_output=True, text=True)
    m = re.search(r"SSIM Y:([0-9.]+)", done.stderr)
    return float(m.group(1)) if m else None


def machine():
    model = platform.processor() or "?"
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    model = line.split(":", 1)[1].strip()
                    break
        with open("/proc/meminfo") as f:
            mem = int(f.readline().split()[1]) // 1024
    except OSError:
        mem = 0
    return f"{model}, {os.cpu_count()} cores, {mem} MiB RAM, Linux {platform.release()}"


def fmt_s(c, attr="seconds"):
    if c is not None and c.note == "timed out":
        return f"> {PROCESS_TIMEOUT} (timed out)"
    if c is None or getattr(c, attr) is None:
        return "—"
    mark = "" if c.ok or not c.check else " ✗"
    if c.note == "one run":
        mark += " †"
    if c.note == "timed out":
        mark += " (timed out)"
    return f"{getattr(c, attr):.3f}" + mark


def fmt_mib(c):
    return "—" if c is None or c.rss_kib is None else f"{c.rss_kib / 1024:.0f}"


def ratio(tool, other, attr="seconds"):
    if other is None or not getattr(other, attr) or getattr(tool, attr) is None:
        return None
    return getattr(tool, attr) / getattr(other, attr)


def fmt_ratio(r):
    return "—" if r is None else f"{r:.2f}"


def timing_table(rows, attr):
    header = ("| file | tool s | tool MiB | vipsthumbnail s | MiB | convert s | MiB | "
              "ffmpegthumbnailer s | MiB | djpeg floor s | djpeg 1/1 s | tool/vips | tool/convert | "
              "tool/fft | tool/floor | tool/1:1 | tool/best peer |")
    table = [header, "|" + "---|" * 17]
    for entry, by in rows:
        t = by["tool"]
        peers = [by[n] for n in ("vipsthumbnail", "convert", "ffmpegthumbnailer")
                 if n in by and by[n].ok]
        peers = [c for c in peers if getattr(c, attr) is not None]
        best = min(peers, key=lambda c: getattr(c, attr)) if peers else None
        cells = [entry["name"], fmt_s(t, attr), fmt_mib(t)]
        for n in ("vipsthumbnail", "convert", "ffmpegthumbnailer"):
            cells += [fmt_s(by.get(n), attr), fmt_mib(by.get(n))]
        cells.append(fmt_s(by.get("floor"), attr))
        cells.append(fmt_s(by.get("decode"), attr))
        for n in ("vipsthumbnail", "convert", "ffmpegthumbnailer", "floor", "decode"):
            cells.append(fmt_ratio(ratio(t, by.get(n), attr)))
        cells.append(fmt_ratio(ratio(t, best, attr)) + (f" ({best.name})" if best else ""))
        table.append("| " + " | ".join(cells) + " |")
    return table


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--tool", required=True)
    ap.add_argument("--corpus", required=True)
    ap.add_argument("--results", required=True)
    ap.add_argument("--runs", type=int, default=7)
    ap.add_argument("--only", default="")
    ap.add_argument("--no-results", action="store_true")
    opts = ap.parse_args()

    entries = []
    with open(os.path.join(opts.corpus, "MANIFEST.tsv")) as f:
        for line in f:
            name, kind, w, h = line.rstrip("\n").split("\t")
            if opts.only and name not in opts.only.split(","):
                continue
            entries.append({"name": name, "kind": kind, "w": int(w), "h": int(h),
                            "path": os.path.join(opts.corpus, name)})

    load_before = f"{os.getloadavg()[0]:.1f}"
    work = tempfile.mkdtemp(prefix="tessera-bench-")
    rows, verdicts = [], []
    quality = None
    try:
        for entry in entries:
            out = os.path.join(work, "out")
            contenders = contenders_for(entry, opts.tool, out)
            for c in contenders:
                t0 = time.monotonic()
                exited_ok = run_once(c, out)
                c.once = time.monotonic() - t0
                if c.check:
                    c.ok, c.note = check_outputs(c, entry)
                    c.ok = c.ok and (exited_ok or c.name == "tool")
                else:
                    c.ok = exited_ok
                if c.name == "tool" and entry["name"] == "camera-24mp.jpg":
                    outs = c.outputs()
                    if 320 in outs:
                        quality = {"tool": ssim_at_320(entry["path"], outs[320], work)}
                if c.name == "vipsthumbnail" and entry["name"] == "camera-24mp.jpg" and quality:
                    quality["vipsthumbnail"] = ssim_at_320(entry["path"], c.outputs[320], work)
            # A contender that needs minutes is timed by its one run above,
            # so the whole benchmark stays within a few minutes.
            crawling = [c for c in contenders if c.once > CRAWL_SECONDS or c.note == "timed out"]
            for c in crawling:
                if c.note == "timed out":
                    c.ok = False
                else:
                    c.seconds = c.once
                    c.note = "one run"
            timed = [c for c in contenders if c not in crawling]
            time_contenders(timed, out, opts.runs, any(c.once > 4.0 for c in timed))
            by = {c.name: c for c in contenders}
            rows.append((entry, by))
            line = "  ".join(f"{c.name} {fmt_s(c)} s {fmt_mib(c)} MiB" for c in contenders)
            print(f"{entry['name']}: {line}", file=sys.stderr)
    finally:
        shutil.rmtree(work, ignore_errors=True)

    # --- raw numbers, for a table redone by hand ---
    raw = [{"file": e["name"], "contenders": {n: {"seconds": c.seconds, "cpu": c.cpu, "rss_kib": c.rss_kib,
                                                   "ok": c.ok, "note": c.note} for n, c in by.items()}}
           for e, by in rows]
    with open(os.path.join(opts.corpus, "last-run.json"), "w") as f:
        json.dump({"raw": raw, "quality": quality}, f, indent=1)

    # --- tables and targets ---
    table = timing_table(rows, "seconds") + ["", "CPU time (user + system, mean), same layout:", ""] \
        + timing_table(rows, "cpu")

    def target(text, ok):
        verdicts.append(("met" if ok else "MISSED") + " — " + text)

    rows_by = {e["name"]: by for e, by in rows}
    if "tiny-64.jpg" in rows_by:
        r = ratio(rows_by["tiny-64.jpg"]["tool"], rows_by["tiny-64.jpg"]["vipsthumbnail"])
        target(f"64×64 JPEG: tool/vipsthumbnail = {fmt_ratio(r)} (≤ 0.10)", r is not None and r <= 0.10)
    if "camera-24mp.jpg" in rows_by:
        by = rows_by["camera-24mp.jpg"]
        r = ratio(by["tool"], by["vipsthumbnail"])
        target(f"24 MP JPEG: tool/vipsthumbnail = {fmt_ratio(r)} (≤ 0.50)", r is not None and r <= 0.5)
        r = ratio(by["tool"], by["floor"])
        target(f"24 MP JPEG: tool/floor = {fmt_ratio(r)} (≤ 1.10)", r is not None and r <= 1.1)
    if "progressive-24mp-srgb.jpg" in rows_by:
        by = rows_by["progressive-24mp-srgb.jpg"]
        r = ratio(by["tool"], by["vipsthumbnail"])
        target(f"24 MP progressive JPEG (sRGB profile): tool/vipsthumbnail = {fmt_ratio(r)} (≤ 0.40)",
               r is not None and r <= 0.4)
        r = ratio(by["tool"], by["decode"])
        target(f"24 MP progressive JPEG (sRGB profile): tool/one djpeg 1/1 decode = {fmt_ratio(r)} (≤ 2.00)",
               r is not None and r <= 2.0)
    images = [(e["name"], ratio(by["tool"], by["vipsthumbnail"])) for e, by in rows
              if e["kind"] in ("jpeg", "image") and "vipsthumbnail" in by and by["vipsthumbnail"].ok]
    above = [f"{n} {fmt_ratio(r)}" for n, r in images if r is None or r > 0.5]
    target("every image ≤ 0.50 × vipsthumbnail's four runs" + (f" (above on {', '.join(above)})" if above else ""),
           not above)
    hdr = [(e["name"], by["tool"].rss_kib or 0) for e, by in rows if e["name"].startswith("hdr-")]
    for name, kib in hdr:
        target(f"{name}: tool peak RSS {kib / 1024:.0f} MiB (< 400)", kib < 400 * 1024)
    if "h264-1080p-10s.mp4" in rows_by:
        by = rows_by["h264-1080p-10s.mp4"]
        r = ratio(by["tool"], by["ffmpegthumbnailer"])
        target(f"1080p H.264: tool/ffmpegthumbnailer = {fmt_ratio(r)} (≤ 0.40)", r is not None and r <= 0.4)
    heifs = [(e, by) for e, by in rows if e["name"].endswith((".heic", ".heif"))]
    if heifs:
        ratios = [(e["name"], ratio(by["tool"], by["vipsthumbnail"])) for e, by in heifs]
        worst = max(ratios, key=lambda nr: float("inf") if nr[1] is None else nr[1])
        target(f"HEIF: tool/vipsthumbnail ≤ 0.50 on every one (worst {worst[0]}: {fmt_ratio(worst[1])})",
               all(r is not None and r <= 0.5 for _, r in ratios))
    over = [e["name"] for e, by in rows
            if "vipsthumbnail" in by and by["vipsthumbnail"].ok
            and (by["tool"].rss_kib or 0) > (by["vipsthumbnail"].rss_kib or 0)]
    target("peak RSS never above vipsthumbnail's" + (f" (above on {', '.join(over)})" if over else ""),
           not over)
    big = [e["name"] for e, by in rows if (by["tool"].rss_kib or 0) > 1024 * 1024]
    target("peak RSS below 1 GiB everywhere" + (f" (above on {', '.join(big)})" if big else ""), not big)
    if quality and quality.get("tool") is not None and quality.get("vipsthumbnail") is not None:
        target(f"SSIM at 320 px on the 24 MP JPEG: tool {quality['tool']:.4f}, "
               f"vipsthumbnail {quality['vipsthumbnail']:.4f}",
               quality["tool"] >= quality["vipsthumbnail"])
    slower = []
    for e, by in rows:
        if e["name"] in ("tiny-64.jpg", "camera-24mp.jpg", "h264-1080p-10s.mp4"):
            continue
        peers = [by[n] for n in ("vipsthumbnail", "convert", "ffmpegthumbnailer")
                 if n in by and by[n].ok]
        peers = [p for p in peers if p.seconds is not None]
        if peers and by["tool"].seconds is not None and by["tool"].seconds > min(p.seconds for p in peers):
            slower.append(e["name"])
    target("every other file no slower than its fastest correct peer"
           + (f" (slower on {', '.join(slower)})" if slower else ""), not slower)
    failed = [e["name"] for e, by in rows if not by["tool"].ok]
    target("the tool made all four sizes of every file" + (f" (not on {', '.join(failed)})" if failed else ""),
           not failed)

    when = datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC")
    text = "\n".join(table) + "\n\n" + "\n".join("- " + v for v in verdicts) + "\n"
    print(text)
    if not opts.no_results and not opts.only:
        # Hand-written notes (profiles of missed targets) below the marker
        # survive a rerun.
        notes = ""
        try:
            with open(opts.results) as f:
                old = f.read()
            if NOTES_MARKER in old:
                notes = old[old.index(NOTES_MARKER):]
        except OSError:
            pass
        with open(opts.results, "w") as f:
            f.write("# Benchmark results\n\n")
            f.write("Written by `bench/run-bench.sh`. Times are medians of whole runs "
                    "(four sizes: one tool run, or one peer process per size), in seconds; "
                    "MiB is the largest peak RSS of those processes; ratios are tool / "
                    "other, so below 1 means the tool is faster; ✗ marks a contender whose "
                    "outputs were missing or wrong (it does not count as a peer there); † marks a "
                    f"contender slower than {CRAWL_SECONDS:.0f} s, timed by a single run (wall "
                    "time, CPU time not measured).\n\n")
            f.write(f"- Machine: {machine()}\n- Date: {when}\n"
                    f"- Load average before / after: {load_before} / {os.getloadavg()[0]:.1f}\n\n")
            f.write(text)
            if notes:
                f.write("\n" + notes)


if __name__ == "__main__":
    main()
