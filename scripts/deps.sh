#!/usr/bin/env bash
# Installs the Debian packages that are missing for building ("build") or for building and
# testing ("test"). Installs nothing when everything is there.
set -euo pipefail

build=(cmake ninja-build g++ pkg-config libboost-dev libcurl4-openssl-dev)
test=(libgtest-dev libgmock-dev libbenchmark-dev libsndfile1-dev sox iproute2 util-linux)

wanted=("${build[@]}")
[ "${1:-build}" = test ] && wanted+=("${test[@]}")

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
