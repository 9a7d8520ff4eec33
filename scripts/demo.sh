#!/usr/bin/env bash
# Builds the library and runs the whole chain on this machine: a kelo-server holding two sounds,
# and the kelo-demo application driving it over loopback (named address, no multicast) with a
# sound circling the listener. With a sound device the server plays it; without one it renders
# into kelo-server.wav, and a picture of the two channels' loudness is drawn from that.
#
# --binaural: the server renders with OpenAL Soft's HRTF (for headphones), the circling sound is
# broadband noise pulses, and a second picture shows the interaural time difference over time.
#
# --python: builds the kelo Python module and runs examples/circle.py instead, the pulses circling
# the listener rendered by the script's own world (into kelo-server.wav when there is no device).
set -euo pipefail
cd "$(dirname "$0")/.."

binaural= python=
case "${1:-}" in
    "") ;;
    --binaural) binaural=1 ;;
    --python) python=1 ;;
    *) echo "usage: $0 [--binaural | --python]" >&2; exit 2 ;;
esac

bash scripts/deps.sh demo
# KELO_BUILD_DIR: an already configured build directory to use instead of build/.
build=${KELO_BUILD_DIR:-build}
[ -f "$build/CMakeCache.txt" ] && [ -n "${KELO_BUILD_DIR:-}" ] ||
    cmake -S . -B "$build" -G Ninja -DKELO_BUILD_TESTS=OFF -DKELO_BUILD_BENCH=OFF \
        -DKELO_BUILD_PYTHON=ON -DPython_EXECUTABLE=/usr/bin/python3
if [ -n "$python" ]; then
    cmake --build "$build" -j "$(nproc)" --target kelo_python
    rm -f kelo-server.wav kelo-demo.png
    # As the programs decide: the device OpenAL opens by default, else its wave writer. Asked in
    # a process of its own, so that the example's OpenAL still reads the configuration it gets.
    wav=()
    [ -n "${ALSOFT_CONF:-}" ] || /usr/bin/python3 -c 'import ctypes, sys
al = ctypes.CDLL("libopenal.so.1")
al.alcOpenDevice.restype = ctypes.c_void_p
sys.exit(0 if al.alcOpenDevice(None) else 1)' 2> /dev/null || wav=(--wav "$PWD/kelo-server.wav")
    PYTHONPATH="$build/python" /usr/bin/python3 examples/circle.py "${wav[@]}"
    [ ! -f kelo-server.wav ] || bash scripts/loudness-plot.sh kelo-server.wav kelo-demo.png
    exit 0
fi
cmake --build "$build" -j "$(nproc)" --target kelo-demo kelo-server

top=$PWD
work=$build/demo
mkdir -p "$work"
rm -f kelo-server.wav kelo-demo.png kelo-demo-itd.png
"$build"/apps/kelo-demo --write-sounds "$work" 2> /dev/null
pulses=$work/pulses.wav
audio=()
if [ -n "$binaural" ]; then
    # A pure tone's delay between the ears is hard to hear and to measure; noise is not.
    pulses=$work/noise-pulses.wav
    sox -n -r 44100 -b 16 -c 1 "$pulses" synth 2 whitenoise tremolo 4 100 vol 0.5
    audio=(--hrtf on)
fi

"$build"/apps/kelo-server --host 127.0.0.1 --no-multicast --wav "$top/kelo-server.wav" "${audio[@]}" \
    --sound 1="$pulses" --sound 2="$work/hum.wav" > "$work/server.out" 2> "$work/server.err" &
server=$!
trap 'kill $server 2> /dev/null || true' EXIT
port=
for _ in $(seq 100); do
    port=$(sed -n 's/.*listening on 127\.0\.0\.1:\([0-9]*\).*/\1/p' "$work/server.out")
    [ -n "$port" ] && break
    kill -0 $server 2> /dev/null || break
    sleep 0.1
done
if [ -z "$port" ]; then
    echo "kelo-server did not start:" >&2
    cat "$work/server.out" "$work/server.err" >&2
    exit 1
fi
cat "$work/server.out"

status=0
"$build"/apps/kelo-demo --server "127.0.0.1:$port" 2> "$work/demo.err" || status=$?
kill -INT $server
wait $server || true
trap - EXIT
cat "$work/server.out" | tail -n +2
[ $status -eq 0 ] || { cat "$work/demo.err" >&2; exit $status; }

if [ -f kelo-server.wav ]; then
    bash scripts/loudness-plot.sh kelo-server.wav kelo-demo.png
    [ -z "$binaural" ] || bash scripts/itd-plot.sh kelo-server.wav kelo-demo-itd.png
fi
