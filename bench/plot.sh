#!/usr/bin/env bash
# Renders docs/performance.png: time per input row event against the number of keys (1k to 1M,
# log scale) for the aggregator, for a minimal forwarding agent on the same host and for the floor (the
# same merge by a plain program over hash maps).
#   bench/plot.sh [VELTA_BENCH]     run VELTA_BENCH --curve (default build/release/bench/velta-bench)
#   bench/plot.sh --data FILE       re-render from the saved output of an earlier --curve run
# The curve's data is kept beside the picture in docs/performance.dat.
set -euo pipefail
cd "$(dirname "$0")/.."

data=docs/performance.dat
if [ "${1:-}" = "--data" ]; then
    [ "$2" = "$data" ] || cp "$2" "$data"
else
    bench=${1:-build/release/bench/velta-bench}
    [ -x "$bench" ] || { echo "plot.sh: $bench not built (try ./dev bench first)" >&2; exit 1; }
    "$bench" --curve --reps=5 > "$data.tmp"
    mv "$data.tmp" "$data"
fi

gnuplot <<GNUPLOT
set terminal pngcairo size 900,560 font "DejaVu Sans,11"
set output "docs/performance.png"
set title "Time per input row event (8 inputs, 2 holders per key, about 9% deletions)"
set xlabel "keys in the output table"
set ylabel "ns per event"
set logscale x 10
set format x "%.0s%c"
set xrange [700:1400000]
set yrange [0:*]
set grid xtics ytics mxtics
set key top left
plot "$data" using 1:2 with linespoints lw 2 pt 7 title "Aggregator", \
     "$data" using 1:3 with linespoints lw 2 pt 5 title "minimal forwarder", \
     "$data" using 1:4 with linespoints lw 2 pt 9 title "floor (plain program, hash maps)"
GNUPLOT
echo "wrote docs/performance.png from $data"
