#!/usr/bin/env bash
# Draws the interaural time difference of a stereo WAV over time as a PNG: in short windows, the
# lag of the best cross-correlation between the two channels. Positive: the right ear hears the
# sound later, so it is on the left.
#   scripts/itd-plot.sh kelo-server.wav kelo-demo-itd.png
set -euo pipefail
wav=$1 png=$2
data=$(mktemp)
trap 'rm -f "$data"' EXIT

# A high-pass keeps a low, centred hum from pulling the correlation towards zero. Windows of
# 20 ms every 50 ms, lags up to 1 ms each way; quiet windows (between pulses) are left out.
sox "$wav" -t dat - highpass 300 | awk '
    /^;/ { if ($2 == "Sample" && $3 == "Rate") rate = $4; next }
    { l[n] = $2; r[n] = $3; e += $2 * $2 + $3 * $3; n++ }
    END {
        if (!rate || !n) exit 1
        len = int(rate / 50); hop = int(rate / 20); maxLag = int(rate / 1000)
        mean = e / n
        for (start = maxLag; start + len + maxLag < n; start += hop) {
            energy = 0
            for (i = start; i < start + len; i++) energy += l[i] * l[i] + r[i] * r[i]
            if (energy / len < mean / 4) continue
            best = -1e300; lag = 0
            for (k = -maxLag; k <= maxLag; k++) {
                s = 0
                for (i = start; i < start + len; i++) s += l[i] * r[i + k]
                if (s > best) { best = s; lag = k }
            }
            printf "%.3f %.3f\n", (start + len / 2) / rate, 1000 * lag / rate
        }
    }' > "$data"

gnuplot <<PLOT
set terminal pngcairo size 900,360 font "sans,10"
set output "$png"
set title "$(basename "$wav"): interaural time difference (positive: the sound is on the left)"
set xlabel "time (s)"
set ylabel "right ear's delay (ms)"
set yrange [-1:1]
set grid
set key off
plot "$data" using 1:2 with points pt 7 ps 0.6 lc rgb "#2ca02c"
PLOT
echo "interaural time difference plot: $png"
