#!/usr/bin/env bash
# Writes the seed corpus of every fuzz target under fuzz/corpus/ (small files, a few KB each).
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
tmp="$(mktemp -d)"
trap 'rm -rf "$tmp"' EXIT
load="$here/corpus/load_fuzz" opt="$here/corpus/optimize_fuzz" fmt="$here/corpus/formatter_fuzz"
rm -rf "$load" "$opt" "$fmt"
mkdir -p "$load" "$opt" "$fmt"

ff() { ffmpeg -hide_banner -loglevel error -y "$@"; }
src=(-f lavfi -i testsrc=size=32x24:rate=10:duration=0.5 -f lavfi -i sine=frequency=440:sample_rate=8000:duration=0.5)
ff "${src[@]}" -c:v mpeg4 -q:v 31 -c:a pcm_s16le -ac 1 "$load/mpeg4_pcm.mkv"
ff "${src[@]}" -c:v libvpx -b:v 20k -c:a libvorbis -ac 1 -aq 0 "$load/vp8_vorbis.webm"
ff -f lavfi -i sine=sample_rate=8000:duration=1 -c:a pcm_u8 -cluster_time_limit 100 "$load/audio_clusters.mkv"
# mkvmerge adds chapters, tags, CRC-32 elements, Voids and cue relative positions.
cat > "$tmp/chapters.xml" <<'XML'
<?xml version="1.0"?>
<Chapters><EditionEntry><ChapterAtom><ChapterTimeStart>00:00:00.000</ChapterTimeStart>
<ChapterDisplay><ChapterString>One</ChapterString></ChapterDisplay>
<ChapterAtom><ChapterTimeStart>00:00:00.100</ChapterTimeStart>
<ChapterDisplay><ChapterString>Nested</ChapterString></ChapterDisplay></ChapterAtom></ChapterAtom>
</EditionEntry></Chapters>
XML
mkvmerge -q -o "$load/merged.mkv" --chapters "$tmp/chapters.xml" --title seed "$load/mpeg4_pcm.mkv"
# Laced audio: several frames to a block.
ff -f lavfi -i sine=sample_rate=8000:duration=0.3 -c:a libvorbis -aq 0 "$tmp/laced.ogg"
mkvmerge -q -o "$load/laced.mkv" "$tmp/laced.ogg"
# The smallest document: an EBML header and an empty Segment of unknown size.
printf '\x1a\x45\xdf\xa3\x84\x42\x82\x81\x6d\x18\x53\x80\x67\x01\xff\xff\xff\xff\xff\xff\xff' > "$load/minimal.mkv"
for f in "$load"/*; do
  [ "$(stat -c %s "$f")" -le 12000 ] || { head -c 12000 "$f" > "$f.cut" && mv "$f.cut" "$f"; }
done
cp "$load"/* "$opt"/

# Formatter inputs (see formatter_fuzz.cpp): flags, codecs, width, height, rate, audio, duration
# hint, metadata, chapters, then packets of kind, time step and size.
fmtseed() { python3 -c "import sys; sys.stdout.buffer.write(bytes.fromhex(sys.argv[1]))" "$1" > "$fmt/$2"; }
packets() {  # kind step size, repeated n times with a key frame every k
  python3 - "$@" <<'PY'
import sys
vk, ak, n, k = (int(x, 16) for x in sys.argv[1:5])
out = []
for i in range(n):
    out += [vk | (2 if i % k == 0 else 0), 40, 60]
    out += [ak, 26, 40]
print(bytes(out).hex(), end='')
PY
}
fmtseed "07""00""4001""f000""32""00""0000""d007""e8""02""00""3a""00""02""14""a000""03" mkv_vp8_vorbis_meta
fmtseed "0700""4001f00032""00""0000d007e8""00""00""$(packets 01 00 30 0a)" mkv_vp8_vorbis
fmtseed "0709""4001f00032""02""0000d007e8""01""3b""02""0a1000""13e803""$(packets 05 04 30 08)" mkv_h264_lpcm_chapters
fmtseed "0300""4001f00032""00""0000d007e8""00""00""$(packets 01 00 40 05)" webm_vp8
fmtseed "0518""4001f00032""00""0000d007e8""00""00""$(packets 00 06 40 05)" mkv_aac_only
fmtseed "3700""400170000a""05""00001027e8""00""00""$(packets 89 00 20 0a)" mkv_vp8_90k_keyinterval
ls -l "$load" "$fmt"
