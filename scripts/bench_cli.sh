#!/usr/bin/env bash
# kapsel mux against ffmpeg -c copy and mkvmerge on the same inputs, run alternately.
# Prints wall time and peak memory per run and the ratios of the medians.
set -euo pipefail
cd "$(dirname "$0")/.."
rounds=${ROUNDS:-5}
work=${WORK:-/tmp/kapsel-bench}
mkdir -p "$work"
build=build/release
[ -x $build/tools/kapsel ] || { cmake -S . -B $build -DCMAKE_BUILD_TYPE=Release -DKAPSEL_BUILD_TESTS=OFF -DKAPSEL_BUILD_BENCH=OFF >/dev/null; cmake --build $build -j"$(nproc)" --target kapsel_cli kapsel_formatter >/dev/null; }
kapsel=$build/tools/kapsel
src="-f lavfi -i testsrc2=size=1280x720:rate=25:duration=60 -f lavfi -i sine=frequency=440:duration=60"
[ -f "$work/in.webm" ] || ffmpeg -v error -y $src -c:v libvpx -deadline realtime -cpu-used 8 -b:v 2M -g 50 -c:a libvorbis "$work/in.webm"
[ -f "$work/in.mp4" ] || ffmpeg -v error -y $src -c:v libx264 -preset ultrafast -b:v 2M -g 50 -c:a aac "$work/in.mp4"

measure() { # name command... -> appends "seconds kilobytes" to $work/name.txt
  local name=$1; shift
  /usr/bin/time -f "%e %M" -o "$work/t" "$@" >/dev/null 2>&1
  cat "$work/t" >> "$work/$name.txt"
}
median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }

for input in in.webm in.mp4; do
  ext=mkv; [ $input = in.webm ] && ext=webm
  rm -f "$work"/{kapsel,ffmpeg,mkvmerge}.txt
  for i in $(seq "$rounds"); do
    measure kapsel $kapsel mux -q "$work/$input" -o "$work/out-k.$ext"
    measure ffmpeg ffmpeg -v error -y -i "$work/$input" -c copy "$work/out-f.$ext"
    measure mkvmerge mkvmerge -q -o "$work/out-m.$ext" "$work/$input"
  done
  k=$(cut -d' ' -f1 "$work/kapsel.txt" | median); km=$(cut -d' ' -f2 "$work/kapsel.txt" | median)
  f=$(cut -d' ' -f1 "$work/ffmpeg.txt" | median); fm=$(cut -d' ' -f2 "$work/ffmpeg.txt" | median)
  m=$(cut -d' ' -f1 "$work/mkvmerge.txt" | median); mm=$(cut -d' ' -f2 "$work/mkvmerge.txt" | median)
  echo "$input ($(du -h "$work/$input" | cut -f1)): kapsel ${k}s ${km}KB, ffmpeg -c copy ${f}s ${fm}KB, mkvmerge ${m}s ${mm}KB;" \
       "time ratio kapsel/ffmpeg $(awk "BEGIN{printf \"%.2f\", $k/$f}") kapsel/mkvmerge $(awk "BEGIN{printf \"%.2f\", $k/$m}")"
done
