#!/usr/bin/env bash
# Installs the Debian packages that are missing for building ("build"), for building and
# testing ("test") or for building the demo and drawing its picture ("demo"). Installs nothing
# when everything is there.
set -euo pipefail

build=(cmake ninja-build g++ pkg-config libboost-dev libcurl4-openssl-dev libopenal-dev libalut-dev
       libcli11-dev libopenal-data)
test=(libgtest-dev libgmock-dev libbenchmark-dev libsndfile1-dev sox iproute2 util-linux clang
      libclang-rt-14-dev chromium wrk python3 pybind11-dev python3-dev python3-numpy python3-pytest
      dpkg-dev file help2man man-db systemd strace liblo-dev linux-perf)
demo=(sox gnuplot-nox pybind11-dev python3-dev python3-numpy)

wanted=("${build[@]}")
case "${1:-build}" in
    test) wanted+=("${test[@]}") ;;
    demo) wanted+=("${demo[@]}") ;;
esac

missing=()
for package in "${wanted[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
        missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing missing packages: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
