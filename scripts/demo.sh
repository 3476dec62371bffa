#!/usr/bin/env bash
# Main job: set up, build, mux the embedded sample into out/sample.webm and out/sample.mkv (streaming writer) and
# out/sample-plugin.mkv (formatter plug-in), show one of them.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DKAPSEL_BUILD_TESTS=OFF -DKAPSEL_BUILD_BENCH=OFF
cmake --build build/release -j"$(nproc)" --target kapsel_cli kapsel_formatter
mkdir -p out
build/release/tools/kapsel mux samples/sample.webm -o out/sample.webm
build/release/tools/kapsel mux samples/sample.mp4 -o out/sample.mkv
build/release/tools/kapsel mux --plugin samples/sample.mp4 -o out/sample-plugin.mkv
build/release/tools/kapsel info --depth 2 --no-blocks out/sample.webm
