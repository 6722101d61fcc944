# plots.gnuplot: draws the plots of docs/performance.md from FOLDER/*.points into PREFIX*.svg.
# Usage: gnuplot -e 'points="FOLDER"; plots="PREFIX"' plots.gnuplot
set terminal svg size 640,320 dynamic background rgb 'white' font 'Helvetica,Arial,sans-serif,12' noenhanced
set key bottom right
set grid
set yrange [0:]
set style line 1 lc rgb '#1f5fa8' lw 2 pt 7 ps 0.5
set style line 2 lc rgb '#999999' lw 2 pt 7 ps 0.5

set output plots.'hit.svg'
set xlabel 'position of the record in the cache, 4 addresses'
set ylabel 'µs'
plot points.'/hit.points' using 1:2 with linespoints ls 1 title 'a hit', '' using 1:3 with linespoints ls 2 title 'its floor'

set output plots.'miss.svg'
set xlabel 'touched memory of the parent, MB'
set ylabel 'ms'
plot points.'/miss.points' using 1:($2/1000) with linespoints ls 1 title 'a miss in VRF 0', \
    '' using 1:($3/1000) with linespoints ls 2 title 'by hand'

set output plots.'pass.svg'
set xlabel 'expired records of 64'
plot points.'/pass.points' using 1:($2/1000) with linespoints ls 1 title 'a refresh pass'
