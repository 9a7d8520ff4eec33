#!/usr/bin/env bash
# Installs the build tree into a scratch prefix, then builds and runs a consumer against it
# twice: through find_package(Kelo) and through pkg-config; imports the Python module if built.
set -euo pipefail
build=$1 work=$2
here=$(cd "$(dirname "$0")" && pwd)
rm -rf "$work"
mkdir -p "$work"
cmake --install "$build" --prefix "$work/prefix" > "$work/install.log"
# Move the installed tree: both the CMake package and the .pc file must still work.
mv "$work/prefix" "$work/moved"
prefix=$work/moved
libdir=$(dirname "$(find "$prefix" -name 'libkelo.so' | head -n 1)")

cmake -S "$here" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" > "$work/configure.log"
cmake --build "$work/cmake" > "$work/build.log"
[ "$(LD_LIBRARY_PATH=$libdir "$work/cmake/consumer")" = "consumer ok" ]

export PKG_CONFIG_PATH=$libdir/pkgconfig
[ "$(pkg-config --modversion kelo)" = "$3" ]
# shellcheck disable=SC2046
c++ "$here/consumer.cpp" -o "$work/pc-consumer" $(pkg-config --cflags --libs kelo)
[ "$(LD_LIBRARY_PATH=$libdir "$work/pc-consumer")" = "consumer ok" ]

# The Python module, when built, finds the moved library by itself and has its stub beside it.
module=$(find "$prefix" -name 'kelo.cpython-*.so' | head -n 1)
if [ -n "$module" ]; then
    [ -f "$(dirname "$module")/kelo.pyi" ]
    [ "$(PYTHONPATH=$(dirname "$module") /usr/bin/python3 -c 'import kelo; print(kelo.__file__)')" = "$module" ]
fi
echo "package ok"
