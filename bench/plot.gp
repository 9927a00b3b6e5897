# Plots of results.tsv. Called in the folder that holds it.

set terminal svg size 760,380 font "sans-serif,12" background "white"
set datafile separator "\t"
set style fill solid 0.8
set boxwidth 0.8
set grid ytics

# The lines of one figure and key; column 3 is the candidate, column 4 the median.
rows(figure, key) = sprintf("< awk -F '\t' '$1 == \"%s\" && $2 == \"%s\"' results.tsv", figure, key)
# The same key of several figures for one candidate, with a number in front of each.
series(pairs, key, candidate) = sprintf( \
    "< awk -F '\t' 'BEGIN { n = split(\"%s\", p, \" \"); for (i = 1; i < n; i += 2) x[p[i]] = p[i + 1] } \
    $1 in x && $2 == \"%s\" && $3 == \"%s\" { print x[$1] \"\t\" $4 }' results.tsv | sort -n", pairs, key, candidate)

set output "round_trip.svg"
set title "Round trip of a heartbeat and its answer, median"
set ylabel "microseconds"
set yrange [0:*]
plot rows("round_trip", "p50") using 0:($4 / 1e3):xtic(3) with boxes notitle

set output "burst.svg"
set title "Burst of 32 heartbeats: processor time of both processes for each"
plot rows("burst", "cpu") using 0:($4 / 1e3):xtic(3) with boxes notitle

sizes = "flood_1k 1024 flood_64k 65536 flood_1m 1048576"
candidates = system("awk -F '\t' '$1 == \"flood_1m\" && !seen[$3]++ { print $3 }' results.tsv")
set output "throughput.svg"
set title "Messages in one direction"
set ylabel "MB/s"
set xlabel "payload, bytes"
set logscale xy
set yrange [*:*]
set key outside
plot for [name in candidates] series(sizes, "bytes", name) using 1:($2 / 1e6) with linespoints title name

workers = "fleet_1 1 fleet_8 8 fleet_64 64 fleet_256 256"
unset logscale y
set yrange [0:*]
set xlabel "workers"
set output "memory.svg"
set title "The daemon's resident memory"
set ylabel "MiB"
plot for [name in "gakppc floor"] series(workers, "rss_kib", name) using 1:($2 / 1024) with linespoints title name

set output "workers.svg"
set title "The daemon's processor time for each heartbeat and its answer"
set ylabel "microseconds"
plot for [name in "gakppc floor"] series(workers, "daemon_cpu", name) using 1:($2 / 1e3) with linespoints title name
