#!/usr/bin/env bash
# Builds the library and runs the demo scene: with a sound device it plays; without one it
# renders into kelo-demo.wav, and a picture of the two channels' loudness is drawn from it.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/deps.sh demo
cmake -S . -B build -G Ninja -DKELO_BUILD_TESTS=OFF -DKELO_BUILD_BENCH=OFF
cmake --build build -j "$(nproc)" --target kelo-demo
rm -f kelo-demo.wav
./build/apps/kelo-demo
if [ -f kelo-demo.wav ]; then
    bash scripts/loudness-plot.sh kelo-demo.wav kelo-demo.png
fi
