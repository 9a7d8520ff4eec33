#!/usr/bin/env bash
# Builds everything and runs the whole test suite twice: once in a normal build and once under
# AddressSanitizer + UndefinedBehaviorSanitizer; runs the networking tests under
# ThreadSanitizer; then runs every fuzz target of fuzz/CMakeLists.txt briefly (KELO_FUZZ_SECONDS
# each, 15 by default), each on a copy of its checked-in corpus, and fails on any finding. All of it
# runs inside a private network namespace with only loopback up, so nothing can reach a real
# network.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/deps.sh test

werror=OFF
[ "${CI:-}" = true ] && werror=ON
jobs=$(nproc)

cmake -S . -B build -G Ninja -DKELO_WERROR=$werror -DKELO_BUILD_PYTHON=ON \
    -DPython_EXECUTABLE=/usr/bin/python3
cmake --build build -j "$jobs"
cmake -S . -B build-asan -G Ninja -DKELO_WERROR=$werror -DCMAKE_BUILD_TYPE=Debug \
    -DKELO_SANITIZE=address,undefined -DKELO_BUILD_BENCH=OFF
cmake --build build-asan -j "$jobs"
# The threaded parts (networking, client and server) once more under ThreadSanitizer.
cmake -S . -B build-tsan -G Ninja -DKELO_WERROR=$werror -DCMAKE_BUILD_TYPE=Debug \
    -DKELO_SANITIZE=thread -DKELO_BUILD_BENCH=OFF -DKELO_BUILD_APPS=OFF
cmake --build build-tsan -j "$jobs" --target test_remote test_discovery \
    test_hostile_net test_hostile_server test_hostile_client test_session test_metrics
cmake -S . -B build-fuzz -G Ninja -DKELO_WERROR=$werror -DCMAKE_C_COMPILER=clang \
    -DCMAKE_CXX_COMPILER=clang++ -DKELO_BUILD_FUZZ=ON -DKELO_BUILD_TESTS=OFF \
    -DKELO_BUILD_BENCH=OFF -DKELO_BUILD_APPS=OFF
fuzzers=$(sed -n 's/^kelo_fuzz(\(fuzz_[a-z0-9_]*\).*/\1/p' fuzz/CMakeLists.txt | tr '\n' ' ')
cmake --build build-fuzz -j "$jobs" --target $fuzzers
# A fuzzer adds what it finds to its corpus: give each a copy, not the checked-in one. The event
# decoder's inputs are in fuzz/corpus, every other fuzz_NAME's in fuzz/corpus-NAME.
for fuzzer in $fuzzers; do
    inputs=fuzz/corpus-${fuzzer#fuzz_}
    if [ "$fuzzer" = fuzz_events ]; then inputs=fuzz/corpus; fi
    rm -rf "build-fuzz/corpus-$fuzzer"
    mkdir -p "build-fuzz/corpus-$fuzzer"
    if [ -d "$inputs" ]; then cp -r "$inputs"/. "build-fuzz/corpus-$fuzzer"; fi
done
fuzz_seconds=${KELO_FUZZ_SECONDS:-15}

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
unshare --net bash -c "
    set -e
    ip link set lo up
    echo '== tests (sanitizers) =='
    ctest --test-dir build-asan --output-on-failure -j $jobs
    echo '== tests (thread sanitizer) =='
    ctest --test-dir build-tsan --output-on-failure -j $jobs \
        -R '^(Remote|HostileNet|HostileServer|ClientShutdown|ClientReports|ClientLabels|Session|Metrics)[.]|discovery'
    found=''
    for fuzzer in $fuzzers; do
        echo \"== fuzzing: \$fuzzer ($fuzz_seconds s) ==\"
        if build-fuzz/fuzz/\$fuzzer -max_total_time=$fuzz_seconds -rss_limit_mb=1024 \
                -artifact_prefix=build-fuzz/\$fuzzer- build-fuzz/corpus-\$fuzzer \
                > build-fuzz/\$fuzzer.log 2>&1; then
            tail -n 1 build-fuzz/\$fuzzer.log
        else
            tail -n 40 build-fuzz/\$fuzzer.log
            echo \"\$fuzzer found a fault; the input is in build-fuzz/\$fuzzer-*\"
            found=\"\$found \$fuzzer\"
        fi
    done
    echo '== tests =='
    ctest --test-dir build --output-on-failure -j $jobs
    test -z \"\$found\" || { echo \"fuzzing found faults:\$found\"; exit 1; }
"
