#!/usr/bin/env bash
# Builds the library and runs the demo scene.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/deps.sh build
cmake -S . -B build -G Ninja -DKELO_BUILD_TESTS=OFF -DKELO_BUILD_BENCH=OFF
cmake --build build -j "$(nproc)" --target kelo-demo
./build/apps/kelo-demo
