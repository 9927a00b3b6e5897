# Plots of results.tsv. Called in the folder that holds it. This library is blue, the others are grey, FLOOR is a line.

set terminal svg size 760,380 font "sans-serif,12" background "white"
set datafile separator "\t"
set style fill solid 0.8
set boxwidth 0.8
set grid ytics

library = 0x1f6fb4
grey = "0x9a9a9a 0x777777 0xb5b5b5 0x606060 0x888888"
color(name, n) = name eq "gakppc" ? library : int(word(grey, 1 + n % 5))
width(name) = name eq "gakppc" ? 3 : 1

# The candidates of one figure and key without FLOOR, best first: name and median.
bars(figure, key) = sprintf( \
    "< awk -F '\t' '$1 == \"%s\" && $2 == \"%s\" && $3 != \"floor\" { print $3 \"\t\" $4 }' results.tsv | sort -t '\t' -gk 2", \
    figure, key)
level_of_floor(figure, key) = real(system(sprintf( \
    "awk -F '\t' '$1 == \"%s\" && $2 == \"%s\" && $3 == \"floor\" { print $4 }' results.tsv", figure, key)))
# The same key of several figures for one candidate, with a number in front of each.
series(pairs, key, candidate) = sprintf( \
    "< awk -F '\t' 'BEGIN { n = split(\"%s\", p, \" \"); for (i = 1; i < n; i += 2) x[p[i]] = p[i + 1] } \
    $1 in x && $2 == \"%s\" && $3 == \"%s\" { print x[$1] \"\t\" $4 }' results.tsv | sort -n", pairs, key, candidate)

set key outside

set output "round_trip.svg"
set title "Round trip of a heartbeat and its answer, median"
set ylabel "microseconds"
set yrange [0:*]
plot bars("round_trip", "p50") using 0:($2 / 1e3):(color(strcol(1), 1)):xtic(1) with boxes lc rgb variable notitle, \
    level_of_floor("round_trip", "p50") / 1e3 with lines lc rgb "black" dt 2 title "FLOOR"

set output "burst.svg"
set title "Burst of 32 heartbeats: processor time of both processes for each"
plot bars("burst", "cpu") using 0:($2 / 1e3):(color(strcol(1), 1)):xtic(1) with boxes lc rgb variable notitle, \
    level_of_floor("burst", "cpu") / 1e3 with lines lc rgb "black" dt 2 title "FLOOR"

sizes = "flood_1k 1024 flood_64k 65536 flood_1m 1048576"
# The fastest at 1 MiB first, as the lines end.
candidates = system("awk -F '\t' '$1 == \"flood_1m\" && $2 == \"bytes\" && $3 != \"floor\" { print $4 \"\t\" $3 }' \
    results.tsv | sort -rg | cut -f 2")
set output "throughput.svg"
set title "Messages in one direction"
set ylabel "MB/s"
set xlabel "payload, bytes"
set logscale xy
set xrange [800:2e6]
set yrange [*:*]
plot series(sizes, "bytes", "floor") using 1:($2 / 1e6) with lines lc rgb "black" dt 2 title "FLOOR", \
    for [i=1:words(candidates)] series(sizes, "bytes", word(candidates, i)) using 1:($2 / 1e6) with linespoints \
    lc rgb color(word(candidates, i), i) lw width(word(candidates, i)) pt i title word(candidates, i)

workers = "fleet_1 1 fleet_8 8 fleet_64 64 fleet_256 256"
unset logscale y
set xrange [*:*]
set yrange [0:*]
set xlabel "workers"
set output "memory.svg"
set title "The daemon's resident memory"
set ylabel "MiB"
plot series(workers, "rss_kib", "floor") using 1:($2 / 1024) with lines lc rgb "black" dt 2 title "FLOOR", \
    series(workers, "rss_kib", "gakppc") using 1:($2 / 1024) with linespoints lc rgb library lw 3 pt 7 title "gakppc"

set output "workers.svg"
set title "Answered heartbeats each second, one handler at a time"
set ylabel "1000/s"
plot series(workers, "rate", "floor") using 1:($2 / 1e3) with lines lc rgb "black" dt 2 title "FLOOR", \
    series(workers, "rate", "gakppc") using 1:($2 / 1e3) with linespoints lc rgb library lw 3 pt 7 title "gakppc"
