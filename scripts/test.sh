#!/usr/bin/env bash
# Builds everything and runs the whole test suite twice: once in a normal build and once under
# AddressSanitizer + UndefinedBehaviorSanitizer; runs the networking tests under
# ThreadSanitizer; then fuzzes the event decoder for a while. All
# of it runs inside a private network namespace with only loopback up, so nothing can reach a
# real network.
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
# The threaded parts (networking, client and server) once more under ThreadSanitizer.
cmake -S . -B build-tsan -G Ninja -DKELO_WERROR=$werror -DCMAKE_BUILD_TYPE=Debug \
    -DKELO_SANITIZE=thread -DKELO_BUILD_BENCH=OFF -DKELO_BUILD_APPS=OFF
cmake --build build-tsan -j "$jobs" --target test_remote test_discovery
cmake -S . -B build-fuzz -G Ninja -DKELO_WERROR=$werror -DCMAKE_C_COMPILER=clang \
    -DCMAKE_CXX_COMPILER=clang++ -DKELO_BUILD_FUZZ=ON -DKELO_BUILD_TESTS=OFF \
    -DKELO_BUILD_BENCH=OFF -DKELO_BUILD_APPS=OFF
cmake --build build-fuzz -j "$jobs" --target fuzz_events
# The fuzzer adds what it finds to its corpus: give it a copy, not the checked-in one.
rm -rf build-fuzz/corpus && cp -r fuzz/corpus build-fuzz/corpus

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
unshare --net bash -c "
    set -e
    ip link set lo up
    echo '== tests (sanitizers) =='
    ctest --test-dir build-asan --output-on-failure -j $jobs
    echo '== tests (thread sanitizer) =='
    ctest --test-dir build-tsan --output-on-failure -j $jobs -R 'Remote|discovery'
    echo '== fuzzing the event decoder (${KELO_FUZZ_SECONDS:-30} s) =='
    build-fuzz/fuzz/fuzz_events -max_total_time=${KELO_FUZZ_SECONDS:-30} -rss_limit_mb=1024 \
        -artifact_prefix=build-fuzz/ build-fuzz/corpus 2>&1 | tail -n 3
    test \${PIPESTATUS[0]} -eq 0
    echo '== tests =='
    ctest --test-dir build --output-on-failure -j $jobs
"
