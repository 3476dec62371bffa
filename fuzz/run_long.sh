#!/usr/bin/env bash
# A longer fuzzing run for developers: fuzz/run_long.sh [minutes per target] [target...]
# Keeps the growing corpus in build/fuzz/long/<target>; crashers land in build/fuzz/long/<target>-artifacts.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${FUZZ_BUILD_DIR:-$root/build/fuzz}"
minutes="${1:-10}"
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(load_fuzz optimize_fuzz formatter_fuzz)
cmake -S "$root/fuzz" -B "$build" -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build "$build" -j2 --target "${targets[@]}"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:detect_odr_violation=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
for t in "${targets[@]}"; do
  mkdir -p "$build/long/$t" "$build/long/$t-artifacts"
  seeds=("$root/fuzz/corpus/$t")
  # Regression inputs that still fail would stop every start; only those that pass seed the run.
  for r in "$root/fuzz/regressions/$t"/*; do
    [ -f "$r" ] || continue
    "$build/$t" -rss_limit_mb=2048 -timeout=10 "$r" >/dev/null 2>&1 && cp "$r" "$build/long/$t/" ||
      echo "   still failing: ${r#$root/}"
  done
  echo "== $t: $minutes min (log: $build/long/$t.log)"
  # A finding stops libFuzzer: it starts again on the grown corpus until the time is up.
  end=$((SECONDS + minutes * 60))
  : >"$build/long/$t.log"
  while [ $SECONDS -lt $end ]; do
    began=$SECONDS
    "$build/$t" -max_total_time=$((end - SECONDS)) -rss_limit_mb=2048 -timeout=10 -dict="$root/fuzz/matroska.dict" \
      -artifact_prefix="$build/long/$t-artifacts/" -print_final_stats=1 "$build/long/$t" "${seeds[@]}" \
      >>"$build/long/$t.log" 2>&1 && break
    [ $((SECONDS - began)) -ge 5 ] || break  # fails at once: a seed itself is a finding
  done
  echo "   runs: $(grep -o 'number_of_executed_units: [0-9]*' "$build/long/$t.log" | awk '{s+=$2} END {print s}')," \
    "last: $(grep -E '^#[0-9]+.*cov:' "$build/long/$t.log" | tail -1 | grep -oE 'cov: [0-9]+ ft: [0-9]+')," \
    "findings: $(ls "$build/long/$t-artifacts" | tr '\n' ' ')"
done
