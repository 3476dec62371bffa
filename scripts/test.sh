#!/usr/bin/env bash
# Set-up, sanitizer build and every test.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build/ci -DCMAKE_BUILD_TYPE=Debug -DKAPSEL_SANITIZE=ON -DKAPSEL_BUILD_BENCH=OFF
cmake --build build/ci -j"$(nproc)"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:detect_odr_violation=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
ctest --test-dir build/ci --output-on-failure -j"$(nproc)"
bash fuzz/run_ci.sh
