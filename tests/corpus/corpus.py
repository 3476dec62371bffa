#!/usr/bin/env python3
"""Real-world corpus for `kapsel mux` and `kapsel optimize`.

Generates small clips with ffmpeg and mkvmerge into WORKDIR, runs kapsel on each, and checks with independent
readers that every packet (bytes and presentation time), every decoded video frame and the file's metadata survive.
One table of clips drives everything. Usage: corpus.py KAPSEL WORKDIR [CLIP...]
"""
import collections
import functools
import hashlib
import json
import os
import re
import subprocess
import sys
import time
import zlib
from fractions import Fraction

# Sources for the clips: a moving test picture and tones, 1.2 seconds, 160x120.
D = "1.2"
def V(rate="25"):
    return ["-f", "lavfi", "-i", f"testsrc2=s=160x120:r={rate}:d={D}"]
def A(freq=440, rate=44100, layout="stereo"):
    return ["-f", "lavfi", "-i", f"sine=f={freq}:r={rate}:d={D},aformat=channel_layouts={layout}"]
X264 = ["-c:v", "libx264", "-bf", "2", "-g", "12", "-preset", "veryfast"]
X265 = ["-c:v", "libx265", "-preset", "ultrafast", "-g", "12", "-x265-params", "log-level=error"]
ENCODERS = set(re.findall(r"^ [VAS][.A-Z]{5} (\S+)", subprocess.run(["ffmpeg", "-hide_banner", "-encoders"],
                                                                     capture_output=True, text=True).stdout, re.M))
AV1 = ["-c:v", "libsvtav1", "-preset", "12", "-g", "12"] if "libsvtav1" in ENCODERS else \
    ["-c:v", "libaom-av1", "-cpu-used", "8", "-g", "12"]
VP8 = ["-c:v", "libvpx", "-b:v", "200k", "-g", "10"]
META = ["-metadata", "title=Corpus Title", "-metadata", "artist=Corpus Artist", "-metadata", "comment=A comment",
        "-metadata", "genre=Test"]
CHAPTERS = """;FFMETADATA1
title=Chaptered
[CHAPTER]
TIMEBASE=1/1000
START=0
END=400
title=Opening
[CHAPTER]
TIMEBASE=1/1000
START=400
END=1200
title=Rest
"""
SRT = "1\n00:00:00,100 --> 00:00:00,600\nHello\n\n2\n00:00:00,700 --> 00:00:01,100\nWorld\n"
VTT = "WEBVTT\n\ncue1\n00:00:00.100 --> 00:00:00.600 align:start\nHello\n\n00:00:00.700 --> 00:00:01.100\nWorld\n"
# Video, two audio languages (one named), SRT, forced ASS and a font for it.
MULTI = [["ffmpeg", "-i", "{w}/subs.srt", "{w}/subs.ass"],
         ["ffmpeg", *V("25"), *A(), *A(880, 48000, "mono"), "-i", "{w}/subs.srt", "-i", "{w}/subs.ass", "-map", "0",
          "-map", "1", "-map", "2", "-map", "3", "-map", "4", *X264, "-c:a:0", "aac", "-c:a:1", "libmp3lame",
          "-c:s:0", "srt", "-c:s:1", "ass", "-shortest", "-metadata:s:a:1", "language=ger", "-metadata:s:a:1",
          "title=Kommentar", "-metadata:s:s:0", "language=eng", "-metadata:s:s:1", "language=fre",
          "-disposition:s:1", "forced", "-attach", "{w}/font.ttf", "-metadata:s:t",
          "mimetype=application/x-truetype-font", "OUT"]]

# name, file, generating commands (lists; "{w}" is the work directory, "OUT" the file), expected result per output:
# "ok" (written, every check passes) or "refused" (exit 1, no output file). Outputs: mkv, webm (mux), opt (optimize),
# plugin (mux --plugin into Matroska). An optional last item gives mux "inputs" other than the file (which then is a
# reference holding the same streams), extra "args", and the "tracks" expected as (type, language, name, default,
# forced) when they are not the file's own.
CLIPS = [
    ("h264_25_mp4", "h264_25.mp4", [["ffmpeg", *V("25"), *A(), *X264, "-c:a", "aac", "-shortest"]],
     {"mkv": "ok", "webm": "refused", "plugin": "ok"}),
    ("h264_2997_mkv", "h264_2997.mkv", [["ffmpeg", *V("30000/1001"), *A(), *X264, "-c:a", "aac", "-shortest"]],
     {"mkv": "ok", "webm": "refused", "opt": "ok"}),
    ("h264_60_mp4", "h264_60.mp4", [["ffmpeg", *V("60"), *A(rate=48000), *X264, "-c:a", "aac", "-shortest", *META]],
     {"mkv": "ok"}),
    ("h264_vfr_mkv", "h264_vfr.mkv",
     [["ffmpeg", *V("30"), "-vf", "select='not(eq(mod(n\\,5)\\,2))*not(eq(mod(n\\,7)\\,3))'", "-fps_mode", "vfr",
       *X264]], {"mkv": "ok", "opt": "ok"}),
    ("aac_priming_m4a", "aac_priming.m4a", [["ffmpeg", *A(rate=48000), "-c:a", "aac"]], {"mkv": "ok"}),
    ("aac_adts", "aac_adts.aac", [["ffmpeg", *A(layout="mono"), "-c:a", "aac"]], {"mkv": "ok"}),
    ("mpeg4_bf_avi", "mpeg4_bf.avi",
     [["ffmpeg", *V("25"), *A(), "-c:v", "mpeg4", "-bf", "2", "-vtag", "XVID", "-c:a", "libmp3lame", "-shortest"]],
     {"mkv": "ok", "webm": "refused"}),
    # libxvid with B-frames writes them packed (P and B in one chunk, then a placeholder), as old AVI files have them.
    ("xvid_packed_avi", "xvid_packed.avi",
     [["ffmpeg", *V("25"), *A(), "-c:v", "libxvid", "-bf", "2", "-g", "12", "-c:a", "libmp3lame", "-shortest"]],
     {"mkv": "ok"}),
    ("vp8_vorbis_ffmpeg", "vp8_vorbis.webm", [["ffmpeg", *V("25"), *A(), *VP8, "-c:a", "libvorbis", "-shortest"]],
     {"mkv": "ok", "webm": "ok", "opt": "ok", "plugin": "ok"}),
    ("vp8_vorbis_mkvmerge", "vp8_vorbis_mkvmerge.webm",
     [["ffmpeg", *V("25"), *A(), *VP8, "-c:a", "libvorbis", "-shortest", "{w}/vp8_vorbis_src.webm"],
      ["mkvmerge", "-q", "--webm", "-o", "OUT", "{w}/vp8_vorbis_src.webm"]],
     {"mkv": "ok", "webm": "ok", "opt": "ok"}),
    ("mp3_wav", "mp3.wav", [["ffmpeg", *A(), "-c:a", "libmp3lame", "-f", "wav"]], {"mkv": "ok"}),
    ("pcm16_wav", "pcm16.wav", [["ffmpeg", *A(), "-c:a", "pcm_s16le"]], {"mkv": "ok"}),
    ("pcm8_wav", "pcm8.wav", [["ffmpeg", *A(layout="mono", rate=22050), "-c:a", "pcm_u8"]], {"mkv": "ok"}),
    ("mp3_mkv", "mp3.mkv", [["ffmpeg", *A(), "-c:a", "libmp3lame"]], {"mkv": "ok", "opt": "ok"}),
    ("pcm24_mkv", "pcm24.mkv", [["ffmpeg", *A(rate=48000), "-c:a", "pcm_s24le"]], {"mkv": "ok", "opt": "ok"}),
    ("ac3_mkv", "ac3.mkv", [["ffmpeg", *V("25"), *A(rate=48000), *X264, "-c:a", "ac3", "-shortest"]],
     {"mkv": "ok", "opt": "ok"}),
    ("chapters_mkv", "chapters.mkv",
     [["ffmpeg", *V("25"), *A(), "-i", "{w}/chapters.txt", "-map", "0", "-map", "1", "-map_metadata", "2",
       "-map_chapters", "2", *X264, "-c:a", "aac", "-shortest"]], {"mkv": "ok", "opt": "ok"}),
    ("tags_vp8_mkv", "tags_vp8.mkv", [["ffmpeg", *V("25"), *A(), *VP8, "-c:a", "libvorbis", "-shortest", *META]],
     {"mkv": "ok", "webm": "ok", "opt": "ok"}),
    ("two_audio_subs_mkv", "two_audio_subs.mkv", MULTI, {"mkv": "ok", "webm": "refused", "opt": "ok"}),
    ("mapped_mkv", "two_audio_subs.mkv", MULTI, {"mkv": "ok"},
     {"args": ["--map", "0:2", "--map", "0:0", "--map", "0:4", "--map", "0:5", "--language", "1:fre",
               "--track-name", "1:Commentaire", "--default-track", "1:0", "--default-track", "3:1"],
      "tracks": [("audio", "fre", "Commentaire", False, False), ("video", "und", None, False, False),
                 ("subtitles", "fre", None, True, True)]}),
    # Three inputs; the reference is ffmpeg's copy of them into one file.
    ("separate_inputs", "separate.mkv",
     [["ffmpeg", *V("25"), *VP8, "{w}/sep_v.webm"], ["ffmpeg", *A(), "-c:a", "libvorbis", "{w}/sep_a.ogg"],
      ["ffmpeg", "-i", "{w}/sep_v.webm", "-i", "{w}/sep_a.ogg", "-i", "{w}/subs.srt", "-map", "0", "-map", "1",
       "-map", "2", "-c", "copy", "-c:s", "srt", "OUT"]],
     {"mkv": "ok", "webm": "refused"}, {"inputs": ["{w}/sep_v.webm", "{w}/sep_a.ogg", "{w}/subs.srt"],
                                        "tracks": [("video", "und", None, False, False), ("audio", "und", None, True, False),
                                                   ("subtitles", "und", None, False, False)]}),
    # 16:9 from 4:3 pixels.
    # WebM blocks carry the cue's identifier and settings lines before its text. No Matroska output: ffmpeg 5.1
    # does not know S_TEXT/WEBVTT (its ffprobe says "unknown codec" for the track; mkvmerge -J reads it as WebVTT).
    ("webvtt_webm", "webvtt.webm", [["ffmpeg", *V("25"), "-i", "{w}/subs.vtt", *VP8, "-c:s", "webvtt", "OUT"]],
     {"webm": "ok"}),
    ("anamorphic_mp4", "anamorphic.mp4", [["ffmpeg", *V("25"), "-vf", "scale=192:144,setsar=4/3", *X264]],
     {"mkv": "ok"}),
    # Not through the plug-in, which takes no DiscardPadding: Opus decodes there with the encoder's 648 padding
    # samples at the end (116496 values for the source's 115200, the first 115200 alike).
    ("vp9_opus_webm", "vp9_opus.webm",
     [["ffmpeg", *V("25"), *A(rate=48000), "-c:v", "libvpx-vp9", "-deadline", "realtime", "-cpu-used", "8",
       "-c:a", "libopus", "-shortest"]], {"mkv": "ok", "webm": "ok", "opt": "ok"}),
    ("colour_webm", "colour.webm",
     [["ffmpeg", *V("25"), *VP8, "-color_primaries", "bt709", "-color_trc", "bt709", "-colorspace", "bt709",
       "-color_range", "tv"]], {"mkv": "ok", "webm": "ok", "opt": "ok"}),
    ("colour_h264_mkv", "colour_h264.mkv",
     [["ffmpeg", *V("25"), *X264, "-color_primaries", "bt470bg", "-color_trc", "smpte170m", "-colorspace",
       "bt470bg", "-color_range", "pc"]], {"mkv": "ok", "opt": "ok"}),
    ("h264_eac3_ts", "h264_eac3.ts", [["ffmpeg", *V("25"), *A(rate=48000), *X264, "-c:a", "eac3", "-shortest"]],
     {"mkv": "ok", "webm": "refused"}),
    # A raw stream has no times: mux places its frames one after another, so it must not reorder them.
    ("h264_annexb", "annexb.h264", [["ffmpeg", *V("25"), *X264[:2], "-bf", "0", *X264[4:]]], {"mkv": "ok"}),
    ("hevc_mp4", "hevc.mp4", [["ffmpeg", *V("25"), *X265]], {"mkv": "ok", "webm": "refused"}),
    ("hevc_ts", "hevc.ts", [["ffmpeg", *V("25"), *X265]], {"mkv": "ok"}),
    ("av1_ivf", "av1.ivf", [["ffmpeg", *V("25"), *AV1]], {"mkv": "ok", "webm": "ok"}),
    ("av1_mp4", "av1.mp4", [["ffmpeg", *V("25"), *AV1]], {"mkv": "ok", "webm": "ok"}),
    ("mpeg2_mp2_mpg", "mpeg2_mp2.mpg",
     [["ffmpeg", *V("25"), *A(rate=48000), "-c:v", "mpeg2video", "-bf", "2", "-g", "12", "-c:a", "mp2",
       "-shortest"]], {"mkv": "ok", "webm": "refused"}),
    ("flac", "flac.flac", [["ffmpeg", *A(), "-c:a", "flac"]], {"mkv": "ok", "webm": "refused"}),
    ("dts", "dts.dts", [["ffmpeg", *A(rate=48000), "-c:a", "dca", "-strict", "-2", "-b:a", "768k"]],
     {"mkv": "ok", "webm": "refused"}),
    ("alac_m4a", "alac.m4a", [["ffmpeg", *A(), "-c:a", "alac"]], {"mkv": "ok", "webm": "refused"}),
    ("pcm_float_wav", "pcm_float.wav", [["ffmpeg", *A(), "-c:a", "pcm_f32le"]], {"mkv": "ok", "webm": "refused"}),
    ("pcm16be_aiff", "pcm16be.aiff", [["ffmpeg", *A(), "-c:a", "pcm_s16be"]], {"mkv": "ok", "webm": "refused"}),
    ("opus_ogg", "opus.ogg", [["ffmpeg", *A(rate=48000), "-c:a", "libopus"]], {"mkv": "ok", "webm": "ok"}),
    ("ass_file", "subs_only.ass", [["ffmpeg", "-i", "{w}/subs.srt", "OUT"]], {"mkv": "ok", "webm": "refused"}),
    # The 8th audio block of the first cluster says 0 ms: mux drops it with a warning and keeps every other packet.
    ("backwards_mkv", "backwards.mkv", [["ffmpeg", *V("25"), *A(), *VP8, "-c:a", "libvorbis", "-shortest",
                                         "{w}/forwards.mkv"], ["BACKWARDS", "{w}/forwards.mkv"]], {"mkv": "dropped"}),
    ("damaged_webm", "damaged.webm", [["ffmpeg", *V("25"), *A(), *VP8, "-c:a", "libvorbis", "-shortest",
                                       "{w}/undamaged.webm"], ["DAMAGE", "{w}/undamaged.webm"]],
     {"opt": "damaged"}),
]
# crc: optimize --crc32, expected as opt.
OUTPUTS = ["mkv", "webm", "opt", "crc", "plugin"]
# Tags that mux carries from the input (compared by value, names in any case).
CARRIED_TAGS = {"title", "artist", "comment", "genre", "copyright", "description", "encoded_by", "publisher",
                "keywords", "producer"}


def run(cmd, **kw):
    return subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, errors="replace", **kw)


def vint(data, pos, keep_marker=False):
    first = data[pos]
    length = 1
    while length <= 8 and not first & (0x80 >> (length - 1)):
        length += 1
    value = first if keep_marker else first & (0xFF >> length)
    for b in data[pos + 1:pos + length]:
        value = (value << 8) | b
    return value, length


def blocks(data):
    """(position of the payload, size) of every SimpleBlock of the first cluster."""
    pos = data.index(b"\x1f\x43\xb6\x75")
    _, n = vint(data, pos + 4)
    pos += 4 + n
    while pos < len(data):
        ident, n = vint(data, pos, keep_marker=True)
        size, m = vint(data, pos + n)
        if ident == 0xA3:
            yield pos + n + m, size
        elif ident == 0x1F43B675:
            return
        pos += n + m + size


def backwards(src, dst):
    """Sets the time of the 8th block of track 2 in the first cluster to the cluster's time."""
    data = bytearray(open(src, "rb").read())
    audio = [p for p, _ in blocks(data) if data[p] == 0x82]
    data[audio[7] + 1:audio[7] + 3] = b"\x00\x00"
    open(dst, "wb").write(bytes(data))


def damage(src, dst):
    """Inserts one byte into the middle of the first block of the first cluster."""
    data = bytearray(open(src, "rb").read())
    pos = data.index(b"\x1f\x43\xb6\x75")
    _, n = vint(data, pos + 4)
    pos += 4 + n
    while True:
        ident, n = vint(data, pos, keep_marker=True)
        size, m = vint(data, pos + n)
        if ident in (0xA3, 0xA0):
            data.insert(pos + n + m + size // 2, 0x5A)
            break
        pos += n + m + size
    open(dst, "wb").write(bytes(data))


def generate(work, clip):
    name, fname, cmds = clip[:3]
    out = os.path.join(work, fname)
    for cmd in cmds:
        cmd = [c.replace("{w}", work) for c in cmd]
        if cmd[0] in ("DAMAGE", "BACKWARDS"):
            (damage if cmd[0] == "DAMAGE" else backwards)(cmd[1], out)
            continue
        if cmd[0] == "ffmpeg":
            missing = [c for o, c in zip(cmd, cmd[1:]) if o.startswith("-c:") and c != "copy" and c not in ENCODERS]
            if missing:
                raise LookupError(f"this ffmpeg has no {missing[0]} encoder")
            cmd = ["ffmpeg", "-v", "error", "-y", *cmd[1:]]
            if "OUT" not in cmd and not any(c.startswith(work + "/") and not c.endswith((".txt", ".srt"))
                                            for c in cmd):
                cmd.append(out)
        cmd = [out if c == "OUT" else c for c in cmd]
        r = run(cmd)
        if r.returncode > 1 or (cmd[0] == "ffmpeg" and r.returncode):
            raise RuntimeError(f"{name}: {' '.join(cmd)} failed: {r.stderr.strip()[-300:]}")
    return out


@functools.lru_cache(maxsize=None)
def packets(path, index):
    """(time base, extradata md5, [(pts, duration, md5)]) of one stream, in file order."""
    # Raw ADTS is compared without its frame headers, as Matroska carries AAC.
    adts = ["-bsf", "aac_adtstoasc"] if path.endswith(".aac") else []
    # -copyts: the times as the file has them, not moved to where ffmpeg thinks the file starts.
    r = run(["ffmpeg", "-v", "error", "-copyts", "-i", path, "-map", f"0:{index}", "-c", "copy", *adts, "-f",
             "framemd5", "-"])
    tb, extra, pk, subtitle = None, None, [], False
    for line in r.stdout.splitlines():
        if line.startswith("#media_type"):
            subtitle = line.endswith("subtitle")
        if line.startswith("#tb"):
            num, den = line.split(":")[1].strip().split("/")
            tb = Fraction(int(num), int(den))
        elif line.startswith("#extradata"):
            extra = line.split(",")[-1].strip()
        elif line and not line.startswith("#"):
            f = [x.strip() for x in line.split(",")]
            pts = None if int(f[2]) == -2**63 else int(f[2]) * tb
            # A subtitle's side data (WebVTT cue identifier and settings) is part of the cue.
            pk.append((pts, int(f[3]) * tb, ",".join(f[5:]) if subtitle else f[5]))
    return tb, extra, pk, r.stderr.strip()


def split_units(data, codec):
    """A packet's NAL units (H.264, HEVC; start codes or 4-byte sizes) or its OBUs but temporal delimiters (AV1)."""
    units, pos = [], 0
    if codec == "av1":
        while pos < len(data):
            start, header = pos, data[pos]
            pos += 2 if header & 4 else 1
            size, shift = (0, 0) if header & 2 else (len(data) - pos, None)
            while shift is not None:
                size |= (data[pos] & 0x7F) << shift
                shift = shift + 7 if data[pos] & 0x80 else None
                pos += 1
            pos += size
            if (header >> 3) & 15 != 2:
                units.append(data[start:pos])
        return units
    while pos + 4 <= len(data):
        size = int.from_bytes(data[pos:pos + 4], "big")
        units.append(data[pos + 4:pos + 4 + size].rstrip(b"\0"))
        pos += 4 + size
    if pos == len(data):  # sizes that tile the packet exactly: not start codes
        return units
    return [u.rstrip(b"\0") for u in data.split(b"\0\0\1") if u.rstrip(b"\0")]


@functools.lru_cache(maxsize=None)
def unit_md5s(path, index, codec):
    """Per packet, an md5 of its units: Annex-B and size-prefixed framing compare alike."""
    r = run(["ffprobe", "-v", "error", "-select_streams", str(index), "-show_entries", "packet=data", "-show_data",
             "-of", "json", path])
    out = []
    for p in json.loads(r.stdout or "{}").get("packets", []):
        data = bytes.fromhex("".join(l[10:50].replace(" ", "") for l in p["data"].splitlines() if l))
        out.append(hashlib.md5(b"|".join(split_units(data, codec))).hexdigest())
    return out


@functools.lru_cache(maxsize=None)
def samples(path, index):
    """One audio stream decoded to 32-bit floats."""
    r = subprocess.run(["ffmpeg", "-v", "error", "-i", path, "-map", f"0:{index}", "-c:a", "pcm_f32le", "-f", "f32le",
                        "-"], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    return r.stdout, r.stderr.decode(errors="replace").strip()


def start_skip(path, index):
    """Samples the demuxer tells the decoder to drop from the stream's first packet."""
    r = run(["ffprobe", "-v", "error", "-select_streams", str(index), "-read_intervals", "%+#1", "-show_packets",
             "-of", "json", path])
    first = (json.loads(r.stdout or "{}").get("packets") or [{}])[0]
    return sum(int(d.get("skip_samples", 0)) for d in first.get("side_data_list", []))


def diff_samples(a, b):
    """Where two decoded streams part, in values (a stereo sample is two)."""
    if a == b:
        return None
    n = min(len(a), len(b))
    lo, hi = 0, n
    while hi - lo > 4096:  # the first difference, by halves
        mid = (lo + hi) // 2 // 4 * 4
        lo, hi = (mid, hi) if a[lo:mid] == b[lo:mid] else (lo, mid)
    first = next((i for i in range(lo, hi, 4) if a[i:i + 4] != b[i:i + 4]), n) // 4
    return f"decoded audio differs from value #{first} ({len(a) // 4} vs {len(b) // 4} values)"


def frames(path):
    r = run(["ffmpeg", "-v", "error", "-i", path, "-map", "0:v:0", "-fps_mode", "passthrough", "-f", "framemd5",
             "-"])
    return [l.split(",")[-1].strip() for l in r.stdout.splitlines() if l and not l.startswith("#")], r.stderr.strip()


def probe(path):
    r = run(["ffprobe", "-v", "error", "-print_format", "json", "-show_streams", "-show_format", "-show_chapters",
             path])
    return json.loads(r.stdout or "{}")


def identify(path):
    r = run(["mkvmerge", "-J", path])
    try:
        return r.returncode, json.loads(r.stdout)
    except ValueError:
        return r.returncode, {}


def element_tree(path):
    """mkvinfo's elements as paths of names and values, without positions, sizes, padding, CRC-32 and seek data.
    Sibling order is not compared (block order is, by the packet check)."""
    r = run(["mkvinfo", "-a", path])
    out, stack, skip = collections.Counter(), [], None
    for line in r.stdout.splitlines():
        m = re.match(r"^([| ]*)\+ (.*)$", line)
        if not m:
            continue
        depth, text = len(m.group(1)), m.group(2)
        if skip is not None and depth > skip:
            continue
        skip = None
        if re.match(r"(Seek head|EBML void|CRC-32)", text):
            skip = depth
            continue
        if text.startswith(("Cue cluster position", "Cue relative position")):
            continue
        text = re.sub(r"^Segment: size \d+", "Segment", text)
        del stack[depth:]
        stack.append(text)
        out[" / ".join(stack)] += 1
    return out, r.returncode


def check_crc32(path):
    """Every top-level element inside the Segment starts with a CRC-32 of the rest of its payload (little-endian)."""
    data = open(path, "rb").read()
    pos = data.index(b"\x18\x53\x80\x67") + 4
    _, n = vint(data, pos)
    pos += n
    problems = []
    while pos < len(data):
        ident, n = vint(data, pos, keep_marker=True)
        size, m = vint(data, pos + n)
        body = data[pos + n + m:pos + n + m + size]
        if ident != 0xEC:
            if body[:2] != b"\xbf\x84":
                problems.append(f"element 0x{ident:X} at {pos} has no CRC-32")
            elif int.from_bytes(body[2:6], "little") != zlib.crc32(body[6:]):
                problems.append(f"CRC-32 of element 0x{ident:X} at {pos} does not match (little-endian)")
        pos += n + m + size
    return problems[:1]


def diff_trees(a, b):
    lost, added = list((a - b).elements()), list((b - a).elements())
    problems = []
    if lost:
        problems.append(f"{len(lost)} element(s) lost, first: {lost[0]}")
    if added:
        problems.append(f"{len(added)} element(s) added, first: {added[0]}")
    return problems


def diff_lists(a, b, what):
    for i, (x, y) in enumerate(zip(a, b)):
        if x != y:
            return f"{what} #{i}: {x} vs {y}"
    if len(a) != len(b):
        return f"{what}: {len(a)} vs {len(b)}"
    return None


def check_packets(src, out, src_probe, out_probe, laced_audio=False):
    """Each output stream's packets equal one source stream's of the same type, all shifted by one amount.

    With `laced_audio` (the plug-in's Matroska output, which laces audio as it always has), readers place the
    frames after the first of a laced block themselves, so an audio packet may sit up to one packet's duration
    from its source time; video and every block's first frame stay exact."""
    problems, shift = [], None
    out_streams = out_probe.get("streams", [])
    if not out_streams:
        return ["no streams"]
    for os_ in out_streams:
        otb, oextra, opk, oerr = packets(out, os_["index"])
        best = None
        for ss in src_probe.get("streams", []):
            if ss["codec_type"] != os_["codec_type"]:
                continue
            stb, sextra, spk, _ = packets(src, ss["index"])
            md5s = [p[2] for p in spk]
            errs = []
            e = diff_lists(md5s, [p[2] for p in opk], "packet bytes")
            # Annex-B sources become size-prefixed units and AV1 loses its temporal delimiters: the units must match
            # (the codec private changes form too; the decoded frames check it).
            reframed = e is not None and ss["codec_name"] in ("h264", "hevc", "av1")
            if reframed:
                e = diff_lists(unit_md5s(src, ss["index"], ss["codec_name"]),
                               unit_md5s(out, os_["index"], ss["codec_name"]), "packet units")
            if e:
                errs.append(e)
            if sextra and oextra != sextra and ss["codec_name"] != "mp3" and not reframed:
                errs.append(f"codec private {sextra} vs {oextra}")
            if not errs:
                tol = max(otb, stb)
                local = None
                for i, (s, o) in enumerate(zip(spk, opk)):
                    if s[0] is None:
                        continue
                    slack = s[1] if laced_audio and os_["codec_type"] == "audio" else 0
                    if o[0] is None:
                        errs.append(f"packet #{i} lost its time")
                        break
                    if os_["codec_type"] == "subtitle" and abs(o[1] - s[1]) > tol:
                        errs.append(f"packet #{i} duration {float(s[1]):.4f}s -> {float(o[1]):.4f}s")
                        break
                    d = o[0] - s[0]
                    ref = shift if shift is not None else (local if local is not None else d)
                    if local is None:
                        local = d
                    if abs(d - ref) > tol + slack:
                        errs.append(f"packet #{i} time {float(s[0]):.4f}s -> {float(o[0]):.4f}s "
                                    f"(shift {float(d):.4f}s, expected {float(ref):.4f}s)")
                        break
                if not errs and local is not None and shift is None:
                    shift = local
            # Decoded audio from its first sample: what the codec delay and trimming leave must line up.
            if not errs and os_["codec_type"] == "audio":
                a, b = samples(src, ss["index"])[0], samples(out, os_["index"])[0]
                # AAC priming that an MP4 edit list skips is kept in front, every stream shifted alike to make room.
                primed = start_skip(src, ss["index"]) * ss.get("channels", 1) * 4 if ss["codec_name"] == "aac" else 0
                if primed and len(b) == len(a) + primed and b.endswith(a):
                    b = a
                e = diff_samples(a, b)
                if e:
                    errs.append(e)
            if best is None or len(errs) < len(best[1]):
                best = (ss["index"], errs)
            if not errs:
                break
        if best is None:
            problems.append(f"{os_['codec_type']} stream {os_['index']}: not in the source")
        elif best[1]:
            problems.append(f"stream {os_['index']} vs source {best[0]}: {best[1][0]}")
        if oerr:
            problems.append(f"reading stream {os_['index']}: {oerr.splitlines()[0]}")
    # Times before zero (AAC priming) move every stream by the same amount, as a stream copy does, up to zero.
    # Opus shows its codec delay as an earlier time, but the file carries it as CodecDelay.
    earliest = min((p[0] for s in src_probe.get("streams", []) if s.get("codec_name") != "opus"
                    for p in packets(src, s["index"])[2] if p[0] is not None), default=0)
    if earliest < 0 and shift is not None and abs(shift + earliest) > Fraction(1, 1000):
        problems.append(f"every time moved by {float(shift):.4f}s; the source starts at {float(earliest):.4f}s")
    return problems


def check_frames(src, out, src_probe):
    if not any(s["codec_type"] == "video" for s in src_probe.get("streams", [])):
        return None
    a, _ = frames(src)
    b, err = frames(out)
    e = diff_lists(a, b, "decoded frame")
    return [e] if e else ([err.splitlines()[0]] if err else [])


def source_duration(src, src_probe):
    """End of the last packet of the audio and video streams (else the subtitles), counted from zero or the earliest
    time before it; from the earliest time in a format whose clock starts anywhere (MPEG-TS and -PS, Ogg), as mux
    starts those at zero."""
    streams = src_probe.get("streams", [])
    kinds = ("audio", "video") if any(s["codec_type"] in ("audio", "video") for s in streams) else ("subtitle",)
    spans = [(p[0], p[0] + p[1]) for s in streams if s["codec_type"] in kinds
             for p in packets(src, s["index"])[2] if p[0] is not None]
    clock = src_probe.get("format", {}).get("format_name") in ("mpegts", "mpeg", "ogg")
    if not spans:
        return 0
    start = min(b for b, _ in spans)
    return max(e for _, e in spans) - (start if clock else min(0, start))


def tags_of(p):
    return {k.lower(): v for k, v in p.get("format", {}).get("tags", {}).items() if k.lower() in CARRIED_TAGS}


def check_tracks(sj, oj, kind, src_probe, out_probe, extra):
    """Track languages, names and flags (the row's, or the source's), attachments, display aspect ratios, colour."""
    problems = []
    def props(t):
        p = t.get("properties", {})
        return (t["type"], p.get("language", "eng"), p.get("track_name"), p.get("default_track", True),
                p.get("forced_track", False))
    otracks = [props(t) for t in oj.get("tracks", [])]
    want = extra.get("tracks")
    if want is None and sj.get("tracks"):
        # Unmapped, every video, audio and subtitle track of the source, in order, as the source has it.
        want = [props(t) for t in sj["tracks"] if t["type"] in ("video", "audio", "subtitles")]
        container = sj["container"]["type"]
        if not container.startswith(("Matroska", "QuickTime")):  # no languages: mkvmerge says "eng", mux "und"
            want = [(w[0], "und") + w[2:] for w in want]
        if not container.startswith("Matroska"):  # only Matroska sources have default flags
            want = [w[:3] + o[3:] for w, o in zip(want, otracks)]
    if want is not None and otracks != [tuple(w) for w in want]:
        problems.append(f"tracks {otracks}, expected {want}")
    attached = lambda j: [(a["file_name"], a["content_type"], a["size"]) for a in j.get("attachments", [])]
    if kind == "mkv" and attached(oj) != attached(sj):
        problems.append(f"attachments {attached(oj)} for source {attached(sj)}")
    keys = ("display_aspect_ratio", "color_range", "color_space", "color_transfer", "color_primaries")
    look = lambda p: sorted(tuple(s.get(k) for k in keys) for s in p.get("streams", []) if s["codec_type"] == "video")
    if look(out_probe) != look(src_probe):
        problems.append(f"display aspect ratio and colour {look(out_probe)} for source {look(src_probe)}")
    return problems


def check_seek(out, out_probe):
    """ffprobe seeking to the middle lands on one of the two video key frames around it (the index is found and
    right)."""
    if not any(s["codec_type"] == "video" for s in out_probe.get("streams", [])):
        return []
    target = float(out_probe.get("format", {}).get("duration", 0)) / 2
    entries = ["-select_streams", "v", "-show_entries", "packet=pts_time,flags", "-of", "json", out]
    keys = sorted(float(p["pts_time"]) for p in json.loads(run(["ffprobe", "-v", "error", *entries]).stdout or "{}")
                  .get("packets", []) if "K" in p["flags"])
    around = [max((k for k in keys if k <= target), default=None), min((k for k in keys if k >= target), default=None)]
    r = run(["ffprobe", "-v", "error", "-read_intervals", f"{target:.3f}%+#1", *entries])  # START%END
    pk = json.loads(r.stdout or "{}").get("packets", [])
    if r.returncode or not pk or float(pk[0]["pts_time"]) not in around:
        return [f"seeking to {target:.3f}s lands on {pk[0] if pk else 'nothing'}, not on a key frame of {around}"]
    return []


def check_readers(src, out, kind, src_probe, out_probe, frame_tol, optimized, extra={}):
    problems = []
    r = run(["ffprobe", "-v", "warning", "-show_packets", "-show_streams", out])
    # ffprobe has no decoder for font attachments and says so for any file that has one.
    err = [l for l in r.stderr.strip().splitlines() if not l.startswith("Unsupported codec with id 98304")]
    if err:
        problems.append("ffprobe: " + err[0])
    rc, oj = identify(out)
    if rc != 0 or oj.get("warnings") or oj.get("errors"):
        problems.append(f"mkvmerge -J exit {rc}: {(oj.get('warnings') or oj.get('errors') or [''])[0]}")
    r = run(["mkvinfo", out])
    if r.returncode != 0 or re.search(r"(?i)\b(error|warning)\b", r.stdout + r.stderr):
        problems.append(f"mkvinfo exit {r.returncode}: " +
                        next((l for l in (r.stdout + r.stderr).splitlines() if re.search(r"(?i)error|warning", l)),
                             ""))
    if kind == "webm" or (optimized and src.endswith(".webm")):
        r = run(["webm_info", "-i", out])
        if r.returncode != 0 or re.search(r"(?i)not supported|error|invalid", r.stdout + r.stderr):
            problems.append(f"webm_info exit {r.returncode}")
    # What mkvmerge reports: tracks carried, their codecs, duration, chapters, tags, title.
    _, sj = identify(src)
    stracks = sj.get("tracks", [])
    otracks = oj.get("tracks", [])
    for t in otracks if stracks else []:
        same = [s for s in stracks if s["type"] == t["type"] and s["codec"] == t["codec"]]
        if not same:
            problems.append(f"mkvmerge: output {t['type']} track {t['codec']} not like any source track")
    # The plug-in carries one video and one audio track; the writer every track.
    carried_types = sorted({t["type"] for t in stracks if t["type"] in ("video", "audio")}) if kind == "plugin" else \
        sorted(t["type"] for t in stracks if t["type"] in ("video", "audio", "subtitles"))
    if not stracks:  # mkvmerge cannot read every source (MP3 in WAV): take ffprobe's word for the types
        carried_types = sorted(s["codec_type"] for s in src_probe.get("streams", []) if s["codec_type"] in ("video", "audio"))
    if "tracks" in extra:
        carried_types = sorted(t[0] for t in extra["tracks"])
    if not optimized and sorted(t["type"] for t in oj.get("tracks", [])) != carried_types:
        problems.append(f"mkvmerge: track types {sorted(t['type'] for t in otracks)} for source {carried_types}")
    if not optimized and kind != "plugin":
        problems += check_tracks(sj, oj, kind, src_probe, out_probe, extra)
        problems += check_seek(out, out_probe)
    if optimized and [(t["type"], t["codec"]) for t in otracks] != [(t["type"], t["codec"]) for t in stracks]:
        problems.append("mkvmerge: tracks differ")
    sd = float(source_duration(src, src_probe))
    od = oj.get("container", {}).get("properties", {}).get("duration")
    if od is None or abs(od / 1e9 - sd) > frame_tol:
        problems.append(f"duration {None if od is None else od / 1e9}s for source {sd:.3f}s")
    # The host's chapter markers carry no end: through the plug-in a chapter ends where the next starts or the file ends.
    def chapters(p):
        return [(round(float(c["start_time"]), 3), round(float(c["end_time"]), 3) if kind != "plugin" else None,
                 c.get("tags", {}).get("title")) for c in p.get("chapters", [])]
    sch, och = chapters(src_probe), chapters(out_probe)
    if sch != och:
        problems.append(f"chapters {och} for source {sch}")
    st, ot = tags_of(src_probe), tags_of(out_probe)
    # WebM output carries no Tags (a documented choice); the title still goes to the segment's title.
    if kind != "webm" and any(ot.get(k) != v for k, v in st.items()):
        problems.append(f"tags {ot} for source {st}")
    stitle = sj.get("container", {}).get("properties", {}).get("title") or st.get("title")
    otitle = oj.get("container", {}).get("properties", {}).get("title")
    if stitle != otitle:
        problems.append(f"title {otitle!r} for source {stitle!r}")
    return problems


def check_damaged(kapsel, work, src):
    """optimize refuses the damaged file; with --force it keeps every intact packet ffmpeg still reads."""
    out = os.path.join(work, "damaged.opt.webm")
    problems = []
    if os.path.exists(out):
        os.remove(out)
    r = run([kapsel, "optimize", src, out])
    if r.returncode != 1 or os.path.exists(out) or "damage" not in r.stderr.lower():
        problems.append(f"without --force: exit {r.returncode}, output {'written' if os.path.exists(out) else 'none'}"
                        f", says {r.stderr.strip()[:120]!r}")
    r = run([kapsel, "optimize", "--force", src, out])
    if r.returncode != 0 or not os.path.exists(out):
        return problems + [f"--force: exit {r.returncode}: {r.stderr.strip()[:200]}"], []
    original = os.path.join(work, "undamaged.webm")
    readers = []
    rr = run(["ffprobe", "-v", "warning", "-show_packets", out])
    if rr.stderr.strip():
        readers.append("ffprobe: " + rr.stderr.strip().splitlines()[0])
    rc, oj = identify(out)
    if rc != 0:
        readers.append(f"mkvmerge -J exit {rc}")
    for i in range(2):
        good = {(p[0], p[2]) for p in packets(original, i)[2]}
        readable = [(p[0], p[2]) for p in packets(src, i)[2]]
        kept = [(p[0], p[2]) for p in packets(out, i)[2]]
        missing = [p for p in readable if p in good and p not in kept]
        garbage = [p for p in kept if p not in good and p not in readable]
        if missing:
            problems.append(f"stream {i}: {len(missing)} intact packet(s) ffmpeg reads were dropped, first at "
                            f"{float(missing[0][0]):.3f}s")
        if garbage:
            problems.append(f"stream {i}: {len(garbage)} packet(s) neither in the undamaged file nor read by ffmpeg")
    return problems, readers


def main():
    if len(sys.argv) < 3:
        print(__doc__)
        return 2
    kapsel, work = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    only = set(sys.argv[3:])
    os.makedirs(work, exist_ok=True)
    open(os.path.join(work, "chapters.txt"), "w").write(CHAPTERS)
    open(os.path.join(work, "subs.srt"), "w").write(SRT)
    open(os.path.join(work, "subs.vtt"), "w").write(VTT)
    open(os.path.join(work, "font.ttf"), "wb").write(b"\x00\x01\x00\x00" + bytes(range(60)))
    start = time.time()
    rows, failed = [], False

    def report(name, kind, cells, problems):
        nonlocal failed
        rows.append((name, kind, *cells))
        for p in problems:
            print(f"  {name} {kind}: {p}")
        failed |= bool(problems)

    for clip in CLIPS:
        name, fname, _, expected = clip[:4]
        extra = {k: [x.replace("{w}", work) if isinstance(x, str) else x for x in v]
                 for k, v in (clip[4] if len(clip) > 4 else {}).items()}
        if only and name not in only:
            continue
        try:
            src = generate(work, clip)
        except LookupError as e:
            print(f"  {name}: skipped, {e}")
            rows.append((name, "-", "skipped", "-", "-"))
            continue
        src_probe = probe(src)
        durations = [p[1] for s in src_probe.get("streams", []) for p in packets(src, s["index"])[2][:3]]
        frame_tol = float(max(durations, default=Fraction(1, 25))) + 0.002
        for kind in OUTPUTS:
            want = expected.get("opt" if kind == "crc" else kind)
            if want is None or (want == "damaged" and kind == "crc"):
                continue
            if want == "damaged":
                probs, readers = check_damaged(kapsel, work, src)
                report(name, kind, ("FAIL" if probs else "ok", "-", "FAIL" if readers else "ok"), probs + readers)
                continue
            ext = kind if kind in ("mkv", "webm") else "mkv" if kind == "plugin" else os.path.splitext(fname)[1][1:]
            out = os.path.join(work, f"{name}.{kind}.{ext}")
            if os.path.exists(out):
                os.remove(out)
            cmd = ([kapsel, "optimize", src, out] if kind == "opt" else [kapsel, "optimize", "--crc32", src, out]
                   if kind == "crc" else [kapsel, "mux", "-q", *(["--plugin"] if kind == "plugin" else []),
                                          *extra.get("inputs", [src]), *extra.get("args", []), "-o", out])
            r = run(cmd)
            leftovers = [f for f in os.listdir(work) if ".kapsel-" in f]
            if leftovers:
                failed = True
                print(f"  {name} {kind}: temporary file left behind: {leftovers[0]}")
                for f in leftovers:
                    os.remove(os.path.join(work, f))
            if want == "dropped":
                # Every packet but the one whose time goes back, and a warning that names it.
                problems = [] if r.returncode == 0 and re.search(r"stream 0:1: the packet at [0-9.]+ s .* goes back "
                                                                  r"in time; dropped", r.stderr) else \
                    [f"exit {r.returncode}, says {r.stderr.strip()[:200]!r}"]
                for index in (0, 1):
                    spk, opk = packets(src, index)[2], packets(out, index)[2] if not problems else []
                    # ffmpeg's copy shows a time that goes back as the time before it.
                    back = [i for i in range(1, len(spk)) if spk[i][0] <= spk[i - 1][0]]
                    kept = [p for i, p in enumerate(spk) if i not in back]
                    e = diff_lists([(p[0], p[2]) for p in kept], [(p[0], p[2]) for p in opk], f"stream {index} packet")
                    if e and not problems:
                        problems.append(e)
                report(name, kind, ("FAIL" if problems else "ok", "-", "-"), problems)
                continue
            if want == "refused" or r.returncode != 0:
                ok = want == "refused" and r.returncode == 1 and not os.path.exists(out) and \
                    len(r.stderr.strip().splitlines()) == 1
                report(name, kind, ("refused" if ok else "FAIL", "-", "-"), [] if ok else [
                    f"expected {want}, got exit {r.returncode}{' and an output file' if os.path.exists(out) else ''}: "
                    f"{r.stderr.strip()[:200]}"])
                continue
            out_probe = probe(out)
            results = {"packets": check_packets(src, out, src_probe, out_probe, laced_audio=kind == "plugin"),
                       "frames": check_frames(src, out, src_probe),
                       "readers": check_readers(src, out, kind, src_probe, out_probe, frame_tol, kind in ("opt", "crc"),
                                                extra)}
            if kind == "crc":
                results["readers"] += check_crc32(out)
            if kind in ("opt", "crc"):
                a, _ = element_tree(src)
                b, rc = element_tree(out)
                results["readers"] += [f"element tree: {e}" for e in diff_trees(a, b)]
            report(name, kind, ["-" if v is None else ("FAIL" if v else "ok") for v in results.values()],
                   [f"{key}: {p}" for key, v in results.items() for p in v or []])
    print()
    print(f"{'clip':<22} {'output':<6} {'packets':<8} {'frames':<8} {'readers':<8}")
    for row in rows:
        print(f"{row[0]:<22} {row[1]:<6} {row[2]:<8} {row[3]:<8} {row[4]:<8}")
    print(f"\n{len(rows)} rows, {sum('FAIL' in r for r in rows)} failing, {time.time() - start:.0f} s")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
