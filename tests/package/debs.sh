#!/usr/bin/env bash
# Builds the Debian packages of a build tree with cpack and checks them as an administrator
# would meet them: their files and dependencies, the consumer program built against the
# unpacked libkelo-dev, the service unit (systemd-analyze verify) and its command line with the
# options of the shipped /etc/default/kelo-server (kelo-server --check-options).
set -euo pipefail
build=$1 work=$2 version=$3
here=$(cd "$(dirname "$0")" && pwd)
release=1
rm -rf "$work"
mkdir -p "$work"

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

if ! cpack --config "$build/CPackConfig.cmake" -B "$work/debs" > "$work/cpack.log" 2>&1; then
    cat "$work/cpack.log" >&2
    fail "cpack"
fi
arch=$(dpkg --print-architecture)
deb() { echo "$work/debs/$1_${version}-${release}_${arch}.deb"; }
for package in libkelo0 libkelo-dev kelo-server; do
    [ -f "$(deb $package)" ] || fail "cpack made no $(basename "$(deb $package)")"
done

# Files: each where it belongs, and only there.
files() { dpkg-deb -c "$(deb "$1")" | awk '{ print $6 }' | sed 's|^\./||'; }
has() { files "$1" | grep -Eq "^$2\$" || fail "$1 has no $2"; }
lacks() { ! files "$1" | grep -Eq "$2" || fail "$1 has $2"; }
has libkelo0 "usr/lib/(.*/)?libkelo\.so\.0"
has libkelo0 "usr/lib/(.*/)?libkelo\.so\.${version//./\\.}"
lacks libkelo0 "include/|\.so\$|bin/"
has libkelo-dev "usr/lib/(.*/)?libkelo\.so"
has libkelo-dev "usr/include/Kelo/World\.h"
has libkelo-dev "usr/include/Kelo/platform/osg/Vec3f\.h"
has libkelo-dev "usr/lib/(.*/)?pkgconfig/kelo\.pc"
has libkelo-dev "usr/lib/(.*/)?cmake/Kelo/KeloConfig\.cmake"
has libkelo-dev "usr/lib/(.*/)?cmake/Kelo/KeloTargets\.cmake"
lacks libkelo-dev "\.so\.|bin/"
has kelo-server "usr/bin/kelo-server"
has kelo-server "usr/lib/systemd/system/kelo-server\.service"
has kelo-server "etc/default/kelo-server"
has kelo-server "usr/share/man/man1/kelo-server\.1\.gz"
lacks kelo-server "libkelo|include/|kelo-demo|example|python"

# Dependencies: from the ELF files (dpkg-shlibdeps), plus the exact libkelo0.
needs() {
    dpkg-deb -f "$(deb "$1")" Depends | tr ',' '\n' | sed 's/^ *//' |
        grep -Eq "^$2( \(.*\))?\$" || fail "$1 does not depend on $2: $(dpkg-deb -f "$(deb "$1")" Depends)"
}
for dependency in libc6 libstdc\\+\\+6 libopenal1 libalut0 libcurl4; do
    needs libkelo0 "$dependency"
done
needs libkelo-dev "libkelo0 \\(= ${version}-${release}\\)"
for dependency in "libkelo0 \\(= ${version}-${release}\\)" libopenal1 libasound2 libc6; do
    needs kelo-server "$dependency"
done
[ "$(dpkg-deb -I "$(deb libkelo0)" shlibs)" = "libkelo 0 libkelo0 (>= ${version}-${release})" ] ||
    fail "libkelo0 shlibs: $(dpkg-deb -I "$(deb libkelo0)" shlibs)"
[ "$(dpkg-deb -I "$(deb kelo-server)" conffiles)" = "/etc/default/kelo-server" ] ||
    fail "kelo-server conffiles: $(dpkg-deb -I "$(deb kelo-server)" conffiles)"
for field in Maintainer Section Description; do
    for package in libkelo0 libkelo-dev kelo-server; do
        [ -n "$(dpkg-deb -f "$(deb $package)" $field)" ] || fail "$package has no $field"
    done
done
dpkg-deb -e "$(deb kelo-server)" "$work/control"
for script in postinst prerm postrm; do
    sh -n "$work/control/$script" || fail "kelo-server $script"
done

# The consumer, built against the unpacked library and development packages, through
# find_package(Kelo) and through pkg-config.
root=$work/root
for package in libkelo0 libkelo-dev kelo-server; do
    dpkg-deb -x "$(deb $package)" "$root"
done
libdir=$(dirname "$(find "$root" -name 'libkelo.so.0' | head -n 1)")
cmake -S "$here" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$root/usr" > "$work/consumer.log"
grep -q "^Kelo_DIR:PATH=$root/" "$work/consumer/CMakeCache.txt" ||
    fail "find_package(Kelo) did not find the unpacked package"
cmake --build "$work/consumer" >> "$work/consumer.log"
[ "$(LD_LIBRARY_PATH=$libdir "$work/consumer/consumer")" = "consumer ok" ] || fail "cmake consumer"
export PKG_CONFIG_PATH=$libdir/pkgconfig
[ "$(pkg-config --modversion kelo)" = "$version" ] || fail "pkg-config --modversion kelo"
# shellcheck disable=SC2046
c++ "$here/consumer.cpp" -o "$work/pc-consumer" $(pkg-config --cflags --libs kelo)
[ "$(LD_LIBRARY_PATH=$libdir "$work/pc-consumer")" = "consumer ok" ] || fail "pkg-config consumer"
unset PKG_CONFIG_PATH

# libkelo-dev depends on no other -dev package: all that its headers include is its own or the
# C and C++ toolchain's.
(cd "$root/usr/include" && find Kelo -name '*.h' | sort | sed 's|.*|#include <&>|') > "$work/headers.cpp"
c++ -std=c++17 -M -I"$root/usr/include" -I"$root/usr/include/Kelo/platform" "$work/headers.cpp" |
    tr -d '\134' | tr ' ' '\n' | grep '^/' | grep -v "^$work/" | sort -u > "$work/header-files"
owners=$(xargs dpkg -S < "$work/header-files" | sed 's/: .*//' | tr ',' '\n' | sed 's/ //g; s/:.*//' |
    sort -u) || fail "a header includes a file of no package"
others=$(grep -Ev '^(libc6-dev|linux-libc-dev|libstdc\+\+-[0-9]+-dev|libgcc-[0-9]+-dev)$' <<< "$owners") &&
    fail "the headers include files of $others"

# Every program answers --version, and its man page is made from its --help: each long option
# is in it.
export LD_LIBRARY_PATH=$libdir
for program in "$root"/usr/bin/*; do
    name=$(basename "$program")
    [ "$("$program" --version)" = "$name $version" ] || fail "$name --version: $("$program" --version)"
    page=$root/usr/share/man/man1/$name.1.gz
    [ -f "$page" ] || fail "no man page for $name"
    text=$(MANWIDTH=200 man -l "$page" 2> /dev/null)
    for option in $("$program" --help | grep -Eo -- '--[a-z][a-z-]+' | sort -u); do
        grep -qF -- "$option" <<< "$text" || fail "the man page of $name lacks $option"
    done
done

# The unit, pointed at the unpacked program; verify reads its man page too.
unit=$root/usr/lib/systemd/system/kelo-server.service
mkdir -p "$work/unit"
sed "s|/usr/bin/|$root/usr/bin/|g" "$unit" > "$work/unit/kelo-server.service"
report=$(MANPATH=$root/usr/share/man systemd-analyze verify "$work/unit/kelo-server.service" 2>&1) ||
    fail "systemd-analyze verify: $report"
[ -z "$report" ] || fail "systemd-analyze verify: $report"

# The unit's ExecStartPre command line with the options of the defaults file, split at blanks
# as systemd does: first the active line, then each commented example, with the sounds it names
# made up in the scratch directory.
run_pre() {
    local options=$1 word words pre command=()
    read -ra words <<< "$options"
    read -ra pre <<< "$(sed -n 's/^ExecStartPre=//p' "$unit")"
    for word in "${pre[@]}"; do
        # shellcheck disable=SC2016
        case $word in
            /usr/bin/kelo-server) command+=("$root/usr/bin/kelo-server") ;;
            '$KELO_SERVER_OPTIONS') command+=("${words[@]}") ;;
            *) command+=("$word") ;;
        esac
    done
    mkdir -p "$work/cwd"
    (cd "$work/cwd" && "${command[@]}") || fail "--check-options refused: $options"
    [ -z "$(ls -A "$work/cwd")" ] || fail "--check-options wrote a file: $options"
}
value() { sed -E 's/^#?KELO_SERVER_OPTIONS=//; s/^"(.*)"$/\1/' <<< "$1"; }
defaults=$root/etc/default/kelo-server
active=$(grep -E '^KELO_SERVER_OPTIONS=' "$defaults" | tail -n 1)
[ -n "$active" ] || fail "no KELO_SERVER_OPTIONS in the defaults file"
run_pre "$(value "$active")"
examples=0
while IFS= read -r line; do
    options=$(value "$line" | sed "s|=/usr/share/sounds/|=$work/sounds/|g")
    while IFS= read -r path; do
        mkdir -p "$(dirname "${path#=}")"
        : > "${path#=}"
    done < <(grep -Eo "=$work/sounds/[^ ]+" <<< "$options")
    run_pre "$options"
    examples=$((examples + 1))
done < <(grep -E '^#KELO_SERVER_OPTIONS=' "$defaults")
[ "$examples" -ge 2 ] || fail "the defaults file shows $examples examples"
grep -q -- "--sound 1=/usr/share/sounds/" "$defaults" || fail "the defaults file names no sound"

# --check-options opens no socket and creates no file (the same options without it do open
# one), and reports a bad option or an unreadable sound in one line with status 2.
server=$root/usr/bin/kelo-server
options=(--host 127.0.0.1 --no-multicast --port 0 -b openal -b silent --wav "$work/cwd/out.wav"
         --sound "1=$here/consumer.cpp")
traced() {
    strace -f -qq -e trace=socket,bind,open,openat,creat,mkdir -e signal=none -o "$work/trace" "$@"
}
(cd "$work/cwd" && unset ALSOFT_CONF && traced "$server" --check-options "${options[@]}") ||
    fail "--check-options ${options[*]}"
if grep -E 'socket\(|bind\(|mkdir\(|creat\(|O_WRONLY|O_RDWR|O_CREAT' "$work/trace"; then
    fail "--check-options opened the above"
fi
(cd "$work/cwd" && ALSOFT_CONF=/dev/null traced timeout -s TERM 3 "$server" "${options[@]}" \
    > /dev/null 2>&1) || true
grep -q 'bind(' "$work/trace" || fail "the trace does not show the server's socket"
for case in "--ttl 256|kelo-server: --ttl: 256 is not in 0..255" \
            "--sound 1=$work/none.wav|kelo-server: --sound: sound 1: Cannot fetch file://$work/none.wav: no such file"; do
    read -ra args <<< "${case%%|*}"
    status=0
    message=$("$server" --check-options "${args[@]}" 2>&1) || status=$?
    if [ "$status" != 2 ] || [ "$message" != "${case#*|}" ]; then
        fail "--check-options ${case%%|*}: status $status, \"$message\""
    fi
done

# Started as the unit starts it, its output going to a file (buffered as a pipe to the journal
# is): the lines arrive while it runs, and SIGTERM stops it cleanly.
rm -f "$work/cwd/"*
(cd "$work/cwd" && ALSOFT_CONF=/dev/null exec "$server" --host 127.0.0.1 --no-multicast --port 0 \
    -b openal > "$work/server.log" 2>&1) &
pid=$!
for _ in $(seq 100); do
    grep -q "^kelo-server: listening on 127.0.0.1:" "$work/server.log" && break
    sleep 0.1
done
if ! grep -q "^kelo-server: listening on 127.0.0.1:" "$work/server.log"; then
    kill -KILL "$pid" 2> /dev/null || true
    fail "the server did not say it listens: $(cat "$work/server.log")"
fi
kill -TERM "$pid"
status=0
wait "$pid" || status=$?
[ "$status" = 0 ] || fail "after SIGTERM the server exited with $status: $(cat "$work/server.log")"
grep -q "^kelo-server: stopped after 0 events\$" "$work/server.log" ||
    fail "no clean stop: $(cat "$work/server.log")"
echo "packages ok"
