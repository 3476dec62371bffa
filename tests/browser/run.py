#!/usr/bin/env python3
"""Muxes WebM files with `kapsel mux` and checks every one in a headless Chromium (check_webm.mjs).

Clips are made by ffmpeg at test time: every video codec a browser plays in WebM (VP8, VP9, AV1) with each audio
codec (Vorbis, Opus) and alone, and each audio codec alone. The ffmpeg-made inputs are checked too, as a control of
the harness. A row whose codecs `kapsel mux` refuses for WebM is reported as skipped. Exit 77 (skip) when the browser,
Node.js or the npm package cannot be had. Usage: run.py KAPSEL WORKDIR
"""
import json
import os
import re
import shutil
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SKIP = 77
os.environ["SVT_LOG"] = "1"  # the AV1 encoder's banner: errors only
SECONDS = "10"
AV1 = (["-c:v", "libsvtav1", "-preset", "12"] if "libsvtav1" in subprocess.run(
    ["ffmpeg", "-hide_banner", "-encoders"], capture_output=True, text=True).stdout
       else ["-c:v", "libaom-av1", "-cpu-used", "8", "-usage", "realtime", "-row-mt", "1"])
# codec: (ffmpeg encoder arguments, codecs parameter of the MIME type)
VIDEO = {
    "vp8": (["-c:v", "libvpx", "-deadline", "realtime", "-cpu-used", "8"], "vp8"),
    "vp9": (["-c:v", "libvpx-vp9", "-deadline", "realtime", "-cpu-used", "8", "-row-mt", "1"], "vp09.00.10.08"),
    "av1": (AV1, "av01.0.00M.08"),
}
AUDIO = {
    "vorbis": (["-c:a", "libvorbis"], "vorbis"),
    "opus": (["-c:a", "libopus"], "opus"),
}
# Every row: a video codec or None, an audio codec or None.
ROWS = [(v, a) for v in [*VIDEO, None] for a in [*AUDIO, None] if v or a]


def run(cmd, **kw):
    return subprocess.run(cmd, capture_output=True, text=True, **kw)



def skip(why):
    print(f"SKIPPED: browser check: {why}", flush=True)
    sys.exit(SKIP)


def encode(work, kind, codec):
    """One elementary stream, made once and kept while its command stays the same."""
    args = VIDEO[codec][0] if kind == "v" else AUDIO[codec][0]
    source = (["-f", "lavfi", "-i", f"testsrc2=s=320x240:r=25:d={SECONDS}", "-b:v", "300k", "-g", "50"]
              if kind == "v" else
              ["-f", "lavfi", "-i", f"sine=f=440:r=48000:d={SECONDS}", "-ac", "2", "-b:a", "96k"])
    out = os.path.join(work, f"{kind}_{codec}.webm")
    cmd = ["ffmpeg", "-v", "error", "-y", *source, *args, out]
    stamp = out + ".cmd"
    if not (os.path.exists(out) and os.path.exists(stamp) and open(stamp).read() == " ".join(cmd)):
        subprocess.run(cmd, check=True)
        with open(stamp, "w") as f:
            f.write(" ".join(cmd))
    return out


def make_source(work, video, audio):
    name = "_".join(c for c in (video, audio) if c)
    parts = [encode(work, "v", video)] if video else []
    parts += [encode(work, "a", audio)] if audio else []
    out = os.path.join(work, f"src_{name}.webm")
    inputs = [x for p in parts for x in ("-i", p)]
    maps = [x for i in range(len(parts)) for x in ("-map", str(i))]
    subprocess.run(["ffmpeg", "-v", "error", "-y", *inputs, *maps, "-c", "copy", out], check=True)
    return name, out


def describe(path, video, audio):
    """What the browser check needs: MIME type, ffprobe's duration, and how far the buffered end may lie from it."""
    probe = json.loads(run(["ffprobe", "-v", "error", "-show_format", "-show_entries", "packet=duration_time",
                            "-of", "json", path], check=True).stdout)
    longest = max(float(p.get("duration_time", 0)) for p in probe["packets"])
    codecs = ", ".join(c for c in (VIDEO[video][1] if video else None, AUDIO[audio][1] if audio else None) if c)
    # A browser estimates the last block's duration when nothing states it, so the buffered range may end up to one
    # packet either side of the stated duration; 5 ms more covers millisecond timecodes.
    return {"path": path, "mime": f'{"video" if video else "audio"}/webm; codecs="{codecs}"',
            "duration": float(probe["format"]["duration"]), "tolerance": longest + 0.005}


def playwright(work):
    """playwright-core from the committed lock file, installed once into the work directory."""
    modules = os.path.join(work, "npm")
    lock = open(os.path.join(HERE, "package-lock.json")).read()
    stamp = os.path.join(modules, "package-lock.json")
    if not (os.path.exists(stamp) and open(stamp).read() == lock
            and os.path.isdir(os.path.join(modules, "node_modules", "playwright-core"))):
        os.makedirs(modules, exist_ok=True)
        for f in ("package.json", "package-lock.json"):
            shutil.copy(os.path.join(HERE, f), modules)
        installed = run(["npm", "ci", "--ignore-scripts", "--no-audit", "--no-fund"], cwd=modules,
                        env={**os.environ, "PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD": "1"})
        if installed.returncode != 0:
            os.remove(stamp)
            skip(f"npm could not install playwright-core: {installed.stderr.strip()[-300:]}")
    return os.path.join(modules, "node_modules")


def main(kapsel, work):
    started = time.monotonic()
    chromium = os.environ.get("KAPSEL_CHROMIUM", "/usr/bin/chromium")
    for tool, path in (("chromium", chromium), ("node", shutil.which("node")), ("npm", shutil.which("npm"))):
        if not path or not os.access(path, os.X_OK):
            skip(f"{tool} is not installed (scripts/setup.sh installs it)")
    os.makedirs(work, exist_ok=True)
    modules = playwright(work)

    files, report = [], []  # report: per row, the names checked in the browser or a line of its own
    for video, audio in ROWS:
        name, source = make_source(work, video, audio)
        files.append({"name": f"control {name}", **describe(source, video, audio)})
        report.append(f"control {name}")
        out = os.path.join(work, f"kapsel_{name}.webm")
        if os.path.exists(out):
            os.remove(out)
        muxed = run([kapsel, "mux", "-q", source, "-o", out])
        if muxed.returncode != 0 and re.search(r"cannot (hold|write)", muxed.stderr):
            report.append((f"{name}: skipped: kapsel mux refuses it ({muxed.stderr.strip()})", "skipped"))
        elif muxed.returncode != 0 or not os.path.exists(out):
            report.append((f"{name}: FAILED: kapsel mux exit {muxed.returncode}: {muxed.stderr.strip()}", "failed"))
        else:
            files.append({"name": name, **describe(out, video, audio)})
            report.append(name)
    print(f"{len(ROWS)} clips made and muxed in {time.monotonic() - started:.1f} s", flush=True)

    manifest = os.path.join(work, "manifest.json")
    with open(manifest, "w") as f:
        json.dump({"modules": modules, "chromium": chromium, "files": files}, f, indent=1)
    try:  # well inside the test's own time limit, so that what was checked is still printed
        checked = subprocess.run(["node", os.path.join(HERE, "check_webm.mjs"), manifest], capture_output=True,
                                 text=True, timeout=200)
    except subprocess.TimeoutExpired as e:
        out = e.stdout or ""
        checked = subprocess.CompletedProcess(e.cmd, -1, out if isinstance(out, str) else out.decode(),
                                              "timed out after 200 s")
    results = dict(line.split(": ", 1) for line in checked.stdout.splitlines() if ": " in line)
    if checked.returncode not in (0, 1) or set(results) != {f["name"] for f in files}:
        print(checked.stdout, end="")
        print(f"FAILED: the browser check stopped (exit {checked.returncode}): {checked.stderr.strip()[-2000:]}")
        return 1
    counts = {"ok": 0, "failed": 0, "skipped": 0}
    for entry in report:
        line, outcome = entry if isinstance(entry, tuple) else (f"{entry}: {results[entry]}", None)
        counts[outcome or ("ok" if results[entry] == "ok" else "failed")] += 1
        print(line)
    failed = counts["failed"]
    print(f"browser check: {counts['ok']} ok, {failed} failed, {counts['skipped']} skipped "
          f"in {time.monotonic() - started:.1f} s")
    return 1 if failed else 0


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1], sys.argv[2]))
