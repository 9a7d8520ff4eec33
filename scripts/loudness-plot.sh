#!/usr/bin/env bash
# Draws the left and right channel loudness of a stereo WAV over time as a PNG:
#   scripts/loudness-plot.sh kelo-demo.wav kelo-demo.png
set -euo pipefail
wav=$1 png=$2
data=$(mktemp)
trap 'rm -f "$data"' EXIT

# RMS level of each channel over 250 ms windows (one pulse of the demo sound), in dB relative to full scale.
sox "$wav" -t dat - | awk '
    /^;/ { if ($2 == "Sample" && $3 == "Rate") rate = $4; next }
    {
        n++; l += $2 * $2; r += $3 * $3
        if (n == int(rate / 4)) {
            printf "%.3f %.1f %.1f\n", $1, 10 * log(l / n + 1e-12) / log(10),
                                            10 * log(r / n + 1e-12) / log(10)
            n = 0; l = 0; r = 0
        }
    }' > "$data"

gnuplot <<PLOT
set terminal pngcairo size 900,360 font "sans,10"
set output "$png"
set title "$(basename "$wav"): loudness of each channel"
set xlabel "time (s)"
set ylabel "RMS level (dBFS)"
set yrange [-60:0]
set grid
set key bottom right
plot "$data" using 1:2 with lines lw 2 lc rgb "#1f77b4" title "left", \
     "$data" using 1:3 with lines lw 2 lc rgb "#d62728" title "right"
PLOT
echo "loudness plot: $png"
