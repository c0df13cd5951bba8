# Draws what bench/run measured: `data` has a line for each number of processes, with changes a
# second and worst wait in us for each store; `picture` is the file to write.
set terminal svg size 900,420 font "sans-serif,12" background "white"
set output picture
set multiplot layout 1,2
set key below maxrows 2
set xrange [0.9:9]
set format y "%.0s%c"
set xlabel "processes"
set xtics (1, 2, 4, 8)
set logscale x 2
set logscale y
set grid ytics
stores = "library LMDB 'LMDB, in place' SQLite"

set title "changes a second"
plot for [n=1:4] data using 1:(column(2*n)) \
  with linespoints linewidth 2 title word(stores, n)

set title "worst wait, ms"
plot for [n=1:4] data using 1:(column(2*n+1)/1000) \
  with linespoints linewidth 2 title word(stores, n)
