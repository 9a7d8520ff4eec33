#!/usr/bin/env bash
# Loads the web backend's index page with wrk (keep-alive connections on 127.0.0.1) while a
# world updates at 90 Hz, and prints the longest update() with wrk's throughput and latency.
# With slow clients, that many connections trickle a request byte by byte meanwhile.
# Runs in a network namespace of its own with only loopback up; stops by itself.
#
#   bash bench/web-load.sh [seconds=10] [connections=100] [wrk threads=2] [slow clients=0]
set -euo pipefail
cd "$(dirname "$0")/.."

command -v wrk > /dev/null || bash scripts/deps.sh test
[ -x build/bench/bench_web ] || { cmake -S . -B build -G Ninja && cmake --build build --target bench_web; }
exec unshare --net bash -c 'ip link set lo up && exec build/bench/bench_web "$@"' bench_web "$@"
