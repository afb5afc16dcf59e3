# Latency distributions written by bench/remote_driver (make bench).
set terminal pngcairo size 1500,520 font ',10'
set output 'perf_roundtrip.png'
set multiplot layout 1,3 title 'RXMemory vs Redis on loopback (cumulative distribution; tails beyond 1 ms not shown)'
set logscale x
set xlabel 'microseconds'
set ylabel 'fraction of calls'
set key right bottom
set grid
set yrange [0:1]
set xrange [5:1000]
set title 'TCP round trips'
plot 'perf_roundtrip_tcp.dat' using 2:1 with lines lw 2 title 'raw ping-pong', \
     '' using 3:1 with lines lw 2 title 'RX insertData', '' using 4:1 with lines lw 2 title 'Redis SET', \
     '' using 5:1 with lines lw 2 title 'RX getData', '' using 6:1 with lines lw 2 title 'Redis GET'
set title 'Unix socket round trips'
plot 'perf_roundtrip_unix.dat' using 2:1 with lines lw 2 title 'raw ping-pong', \
     '' using 3:1 with lines lw 2 title 'RX insertData', '' using 4:1 with lines lw 2 title 'Redis SET', \
     '' using 5:1 with lines lw 2 title 'RX getData', '' using 6:1 with lines lw 2 title 'Redis GET'
set title 'Event to subscriber'
plot 'perf_roundtrip_tcp.dat' using 7:1 with lines lw 2 title 'RX raiseEvent, TCP', \
     '' using 8:1 with lines lw 2 title 'Redis PUBLISH, TCP', \
     'perf_roundtrip_unix.dat' using 7:1 with lines lw 2 title 'RX raiseEvent, Unix', \
     '' using 8:1 with lines lw 2 title 'Redis PUBLISH, Unix'
unset multiplot
