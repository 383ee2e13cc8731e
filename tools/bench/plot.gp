# The bench's plot: gnuplot -e "dir='build/bench'" tools/bench/plot.gp writes dir/bench.png
# from the data files kspbench wrote there.
set terminal pngcairo size 1500,480 font "DejaVu Sans,10"
set output dir.'/bench.png'
set multiplot layout 1,3
set grid ytics
set key top left

set title "SignHash latency (ms): bar median, whisker to p99"
set style data histogram
set style histogram errorbars gap 1 lw 1
set style fill solid 0.7 border -1
set yrange [0:*]
plot dir.'/latency.dat' using 2:2:4:xtic(1) title "RSA-2048", '' using 5:5:7 title "P-256"

set title "Signs per second, RSA-2048, every signature verified"
set style data linespoints
set xlabel "threads"
set logscale x 2
set xrange [0.8:10]
plot dir.'/threads.dat' using 1:2 title "own handles" pt 7, '' using 1:3 title "one shared handle" pt 5
unset logscale x
set xrange [*:*]

set title "Memory and handles across signs"
set key center right
set xlabel "signs after warm-up"
set ylabel "MiB"
set y2label "handles"
set ytics nomirror
set y2tics
set y2range [0:*]
plot dir.'/memory.dat' using 1:2 title "committed private" pt 7, \
     '' using 1:3 title "busy heap" pt 5, \
     '' using 1:4 axes x1y2 title "handles" pt 9
unset multiplot
