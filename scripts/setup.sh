#!/usr/bin/env bash
# Installs what building, testing and the command-line program need (Debian, as root; idempotent).
set -euo pipefail
packages=(build-essential cmake pkg-config git libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev nlohmann-json3-dev libdeflate-dev libjemalloc-dev libavformat-dev libavcodec-dev libavutil-dev
  ffmpeg mkvtoolnix libwebm-tools groff-base python3
  clang libclang-rt-14-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The browser test's packages: without them that test skips, so a failure here is only a warning.
browser=()
dpkg-query -W -f='${Status}' chromium 2>/dev/null | grep -q "install ok installed" || browser+=(chromium)
command -v node >/dev/null || browser+=(nodejs)
command -v npm >/dev/null || browser+=(npm)
if [ ${#browser[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  { apt-get update -qq && apt-get install -y -qq --no-install-recommends "${browser[@]}"; } ||
    echo "setup: could not install ${browser[*]}; the browser test will be skipped" >&2
fi
