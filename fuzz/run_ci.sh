#!/usr/bin/env bash
# Builds the fuzz targets (clang, libFuzzer, ASan and UBSan) and runs each for a bounded time on the
# committed corpus and regression inputs; fails on any finding. FUZZ_SECONDS sets the time per target.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${FUZZ_BUILD_DIR:-$root/build/fuzz}"
seconds="${FUZZ_SECONDS:-60}"
jobs="${FUZZ_BUILD_JOBS:-2}"
targets=(load_fuzz optimize_fuzz formatter_fuzz)
cmake -S "$root/fuzz" -B "$build" -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build "$build" -j"$jobs" --target "${targets[@]}"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:detect_odr_violation=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
status=0
for t in "${targets[@]}"; do
  work="$build/work/$t"
  rm -rf "$work" && mkdir -p "$work/corpus" "$work/artifacts"
  # Every known crasher on its own first; those that pass again also seed the fuzzing.
  seeds=("$root/fuzz/corpus/$t")
  for r in "$root/fuzz/regressions/$t"/*; do
    [ -f "$r" ] || continue
    if "$build/$t" -rss_limit_mb=2048 -timeout=10 "$r" >"$work/regression.log" 2>&1; then
      cp "$r" "$work/corpus/"
    else
      echo "FAIL $t: regression input ${r#$root/} fails again"
      grep -m3 -E "ERROR|ORACLE|SUMMARY" "$work/regression.log" || true
      status=1
    fi
  done
  if "$build/$t" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 -dict="$root/fuzz/matroska.dict" \
      -artifact_prefix="$work/artifacts/" -print_final_stats=1 "$work/corpus" "${seeds[@]}" >"$work/fuzz.log" 2>&1; then
    echo "ok   $t: $(grep -m1 -o 'stat::number_of_executed_units: [0-9]*' "$work/fuzz.log" | cut -d' ' -f2) runs," \
      "$(grep -E '^#[0-9]+.*cov:' "$work/fuzz.log" | tail -1 | grep -oE 'cov: [0-9]+ ft: [0-9]+')"
  else
    echo "FAIL $t: $(ls "$work/artifacts")"
    grep -m3 -E "ERROR|ORACLE|SUMMARY" "$work/fuzz.log" || true
    status=1
  fi
done
exit "$status"
