#!/usr/bin/env bash
# kapsel against mkvmerge, ffmpeg -c copy and cp on the same ten-minute 720p inputs, run alternately with a warm
# page cache (medians of ROUNDS); start-up times (medians of STARTUP_RUNS); peak memory of mux on a one-minute
# input and, with BENCH_LONG=1, a one-hour one (about 1.8 GB more on disk); the plug-in alone against fwrite.
#
#   ROUNDS=5 STARTUP_RUNS=50 WORK=/tmp/kapsel-bench BUILD=build/release BENCH_LONG=0 bash bench/compare.sh
# KAPSEL=path measures another kapsel program (for before/after figures).
set -euo pipefail
cd "$(dirname "$0")/.."
rounds=${ROUNDS:-5}
startup_runs=${STARTUP_RUNS:-50}
work=${WORK:-/tmp/kapsel-bench}
build=${BUILD:-build/release}
mkdir -p "$work/out"

if [ ! -x "$build/tools/kapsel" ] || [ ! -x "$build/bench/formatter_bench" ]; then
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DKAPSEL_BUILD_TESTS=OFF -DKAPSEL_BUILD_BENCH=ON >/dev/null
  cmake --build "$build" -j2 --target kapsel_cli formatter_bench >/dev/null
fi
kapsel=${KAPSEL:-$build/tools/kapsel}
for tool in ffmpeg mkvmerge; do command -v $tool >/dev/null || { echo "$tool is needed (scripts/setup.sh)" >&2; exit 1; }; done

load() { cut -d' ' -f1 /proc/loadavg; }
echo "load before: $(load) (figures are trustworthy below about 1.5 on this two-core machine)"

# Inputs, made once: a 60-second 720p clip at about 30 MB a minute, looped without re-encoding.
lavfi="-f lavfi -i testsrc2=size=1280x720:rate=25:duration=60 -f lavfi -i sine=frequency=440:sample_rate=48000:duration=60"
make_input() { # target command...
  local target=$1; shift
  [ -s "$target" ] && return
  echo "making $(basename "$target")" >&2
  "$@" "$target.part.${target##*.}" && mv "$target.part.${target##*.}" "$target"
}
rate="-b:v 3900k -maxrate 3900k -bufsize 8M -g 50"
make_input "$work/clip.mp4" ffmpeg -v error -y $lavfi -c:v libx264 -preset ultrafast $rate -c:a aac -b:a 128k
make_input "$work/clip.webm" ffmpeg -v error -y $lavfi -c:v libvpx -deadline realtime -cpu-used 8 $rate -c:a libvorbis -b:a 128k
make_input "$work/long.mp4" ffmpeg -v error -y -stream_loop 9 -i "$work/clip.mp4" -c copy
make_input "$work/long.webm" ffmpeg -v error -y -stream_loop 9 -i "$work/clip.webm" -c copy
# A Matroska file as another muxer writes it (clusters with CRC-32s, padding): something for optimize to do.
make_input "$work/long.mkv" ffmpeg -v error -y -i "$work/long.mp4" -c copy
make_input "$work/small.mkv" ffmpeg -v error -y -t 5 -i "$work/clip.mp4" -c copy
if [ "${BENCH_LONG:-0}" = 1 ] && [ ! -s "$work/hour.mp4" ]; then
  avail=$(df -Pk "$work" | awk 'NR==2 {print $4}')
  [ "$avail" -gt $((5 * 1024 * 1024)) ] || { echo "BENCH_LONG=1 needs 5 GB free in $work" >&2; exit 1; }
  make_input "$work/hour.mp4" ffmpeg -v error -y -stream_loop 59 -i "$work/clip.mp4" -c copy
fi

median() { sort -g | awk '{a[NR]=$1} END {if (NR) print a[int((NR+1)/2)]; else print "nan"}'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {if (b > 0) printf "%.2f", a / b; else print "-"}'; }

# run NAME OUTPUT command...: one timed run after the previous output is gone and written back; appends
# "wall-seconds peak-KiB cpu-seconds" to $work/NAME.txt (CPU time is the steadier figure on a busy machine).
run() {
  local name=$1 output=$2; shift 2
  rm -f "$output"; sync
  local start=$EPOCHREALTIME status=0
  /usr/bin/time -f "%M %U %S" -o "$work/rss" "$@" >/dev/null 2>"$work/err" || status=$?
  local end=$EPOCHREALTIME
  # mkvmerge exits 1 for warnings; anything else is a failed run.
  if [ $status -ne 0 ] && ! { [ $status = 1 ] && [ "$1" = mkvmerge ]; }; then
    echo "$name failed ($status): $(head -c 300 "$work/err")" >&2; exit 1
  fi
  echo "$(awk -v s="$start" -v e="$end" 'BEGIN {printf "%.4f", e - s}') $(tail -1 "$work/rss" | awk '{print $1, $2 + $3}')" \
    >> "$work/$name.txt"
}
col() { cut -d' ' -f"$1" "$work/$2.txt" | median; }
# The fastest round: mkvmerge's wall time is bimodal here (some runs spend half a second more in the kernel).
best() { cut -d' ' -f1 "$work/$1.txt" | sort -g | head -1; }

rows=() cpu_rows=() best_rows=()
# job LABEL INPUT OUTPUT-EXTENSION KAPSEL-ARGS... : every tool on the input, in turn, ROUNDS times.
job() {
  local label=$1 input=$2 ext=$3; shift 3
  local out="$work/out/o.$ext"
  rm -f "$work"/{kapsel,mkvmerge,ffmpeg,cp}.txt
  cat "$input" >/dev/null
  for _ in $(seq "$rounds"); do
    run kapsel "$out" "$kapsel" "$@"
    run mkvmerge "$out" mkvmerge -q -o "$out" "$input"
    run ffmpeg "$out" ffmpeg -v error -y -i "$input" -c copy "$out"
    run cp "$out" cp "$input" "$out"
  done
  local k m f c
  k=$(col 1 kapsel); m=$(col 1 mkvmerge); f=$(col 1 ffmpeg); c=$(col 1 cp)
  rows+=("$(printf '%-34s %8.2f %8.2f %8.2f %8.2f %7s %7s %7s %9.1f' "$label ($(du -m "$input" | cut -f1) MB)" \
    "$k" "$m" "$f" "$c" "$(ratio "$k" "$m")" "$(ratio "$k" "$f")" "$(ratio "$k" "$c")" \
    "$(awk -v k="$(col 2 kapsel)" 'BEGIN {print k / 1024}')")")
  k=$(best kapsel); m=$(best mkvmerge); f=$(best ffmpeg); c=$(best cp)
  best_rows+=("$(printf '%-34s %8.2f %8.2f %8.2f %8.2f %7s %7s %7s' "$label" "$k" "$m" "$f" "$c" \
    "$(ratio "$k" "$m")" "$(ratio "$k" "$f")" "$(ratio "$k" "$c")")")
  k=$(col 3 kapsel); m=$(col 3 mkvmerge); f=$(col 3 ffmpeg); c=$(col 3 cp)
  cpu_rows+=("$(printf '%-34s %8.2f %8.2f %8.2f %8.2f %7s %7s %7s' "$label" "$k" "$m" "$f" "$c" \
    "$(ratio "$k" "$m")" "$(ratio "$k" "$f")" "$(ratio "$k" "$c")")")
}

job "mux mp4 -> mkv" "$work/long.mp4" mkv mux -q "$work/long.mp4" -o "$work/out/o.mkv"
if "$kapsel" mux --help 2>&1 | grep -q -- '--plugin'; then
  job "mux --plugin mp4 -> mkv" "$work/long.mp4" mkv mux -q --plugin "$work/long.mp4" -o "$work/out/o.mkv"
fi
job "mux webm -> webm" "$work/long.webm" webm mux -q "$work/long.webm" -o "$work/out/o.webm"
job "optimize mkv" "$work/long.mkv" mkv optimize "$work/long.mkv" "$work/out/o.mkv"
load_jobs=$(load)

# Start-up: fork, exec and exit, nothing else on a tiny file.
startup() { # label command...
  local label=$1; shift
  local t=()
  for _ in $(seq "$startup_runs"); do
    local start=$EPOCHREALTIME
    "$@" >/dev/null 2>&1 || true
    t+=("$(awk -v s="$start" -v e="$EPOCHREALTIME" 'BEGIN {printf "%.3f", (e - s) * 1000}')")
  done
  printf '%-36s %7s ms\n' "$label" "$(printf '%s\n' "${t[@]}" | median)"
}

# Peak memory of mux alone, against the others' on the same input.
memory() { # label input
  rm -f "$work"/{kapsel,mkvmerge,ffmpeg}.txt
  run kapsel "$work/out/m.mkv" "$kapsel" mux -q "$2" -o "$work/out/m.mkv"
  run mkvmerge "$work/out/m.mkv" mkvmerge -q -o "$work/out/m.mkv" "$2"
  run ffmpeg "$work/out/m.mkv" ffmpeg -v error -y -i "$2" -c copy "$work/out/m.mkv"
  printf '%-30s %10s %10s %10s\n' "$1" "$(col 2 kapsel)" "$(col 2 mkvmerge)" "$(col 2 ffmpeg)"
}

echo
echo "rounds: $rounds, alternating, medians; seconds of wall time; load after the jobs: $load_jobs"
printf '%-34s %8s %8s %8s %8s %7s %7s %7s %9s\n' job kapsel mkvmerge ffmpeg cp k/mkvm k/ffm k/cp "peak MiB"
printf '%s\n' "${rows[@]}"
echo "the same runs, the fastest round of each:"
printf '%s\n' "${best_rows[@]}"
echo "the same runs, CPU seconds (user + system):"
printf '%s\n' "${cpu_rows[@]}"

echo
echo "start-up, median of $startup_runs runs (fork and exec included):"
startup "/bin/true" /bin/true
startup "kapsel --version" "$kapsel" --version
startup "kapsel info (5-second file)" "$kapsel" info "$work/small.mkv"
startup "kapsel optimize --help" "$kapsel" optimize --help
startup "kapsel edit --help" "$kapsel" edit --help

echo
echo "peak memory of mux, KiB:"
printf '%-30s %10s %10s %10s\n' input kapsel mkvmerge ffmpeg
memory "one minute (clip.mp4)" "$work/clip.mp4"
memory "ten minutes (long.mp4)" "$work/long.mp4"
[ -s "$work/hour.mp4" ] && memory "one hour (hour.mp4)" "$work/hour.mp4"
rm -f "$work"/out/*

echo
if [ -x "$build/bench/formatter_bench" ]; then
  "$build/bench/formatter_bench" --gib="${GIB:-1}" --benchmark_filter='PluginWebm|Fwrite' --benchmark_format=json \
    2>/dev/null | python3 -c '
import json, sys
runs = {b["run_name"].split("/")[0]: b for b in json.load(sys.stdin)["benchmarks"] if b.get("run_type") != "aggregate"}
p, f = runs["BM_PluginWebm"], runs["BM_FwriteSameBytes"]
print("plug-in alone %.0f MB/s, fwrite of the same bytes %.0f MB/s: plug-in time / fwrite time %.2f"
      % (p["MB/s"], f["MB/s"], p["real_time"] / f["real_time"]))'
fi
echo "load at the end: $(load)"
