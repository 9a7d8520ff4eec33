#!/usr/bin/env bash
# Builds everything and runs the whole test suite twice: once in a normal build and once under
# AddressSanitizer + UndefinedBehaviorSanitizer. Both runs happen inside a private network
# namespace with only loopback up, so no test can reach a real network.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/deps.sh test

werror=OFF
[ "${CI:-}" = true ] && werror=ON
jobs=$(nproc)

cmake -S . -B build -G Ninja -DKELO_WERROR=$werror
cmake --build build -j "$jobs"
cmake -S . -B build-asan -G Ninja -DKELO_WERROR=$werror -DCMAKE_BUILD_TYPE=Debug \
    -DKELO_SANITIZE=address,undefined -DKELO_BUILD_BENCH=OFF
cmake --build build-asan -j "$jobs"

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
unshare --net bash -c "
    set -e
    ip link set lo up
    echo '== tests (sanitizers) =='
    ctest --test-dir build-asan --output-on-failure -j $jobs
    echo '== tests =='
    ctest --test-dir build --output-on-failure -j $jobs
"
