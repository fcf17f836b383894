# Latency distributions, library against plain GDBus, from the samples that
# zorvel-bench writes. Run as: gnuplot -e "dir='<results dir>'" latency.gp
# With a journal listening the floors were measured again in that pass, so
# those curves get panels of their own, each against its own floors.
if (!exists("dir")) dir = "."
exists_file(name) = system("test -f '".dir."/".name."' && echo 1 || echo 0") + 0
silent = exists_file("call_silent.dat")
threads = exists_file("call_thread_floor.dat")
journal = exists_file("call_journal_lib.dat") && exists_file("signal_journal_lib.dat")
passes = journal ? 2 : 1

set terminal pngcairo size 1200,(journal ? 900 : 500) font ",10" noenhanced
set output dir."/latency.png"
set multiplot layout passes,2 title "libzorvel vs plain GDBus: cumulative latency distributions (one run, samples interleaved)"
set logscale x
set grid xtics ytics mxtics
set key bottom right
set ylabel "fraction of samples"
set format x "%g"
set xlabel "latency (us, log scale)"

lib = "lw 2 lc rgb '#c0392b'"
quiet = "lw 2 dt 2 lc rgb '#e67e22'"
gdbus = "lw 2 lc rgb '#2471a3'"
gdbusThreads = "lw 2 dt 3 lc rgb '#17a589'"

do for [pass = 1:passes] {
  tag = pass == 1 ? "" : "journal_"
  do for [what in "call signal"] {
    title = what eq "call" ? "call -> echo observed in a callback" : "daemon signal -> callback"
    set title title.(pass == 1 ? ", no journal" : ", journal listening")
    # Up to twice the library's 99.5th percentile: a few stalls of the
    # machine would otherwise squeeze the distributions into the left edge.
    set yrange [*:*]
    set xrange [*:*]
    stats dir."/".what."_".tag."lib.dat" using ($2 <= 0.995 ? $1 : NaN) nooutput
    set yrange [0:1]
    set xrange [*:2 * STATS_max]
    file(arm) = "'".dir."/".what."_".tag.arm.".dat' using 1:2 with lines "
    cmd = "plot ".file("lib").lib." title 'library (Launcher)'"
    if (pass == 1 && silent) { cmd = cmd.", ".file("silent").quiet." title 'library, log silenced'" }
    cmd = cmd.", ".file("floor").gdbus." title 'plain GDBus'"
    if (what eq "call" && threads) { cmd = cmd.", ".file("thread_floor").gdbusThreads." title 'plain GDBus, a thread per call'" }
    eval cmd
  }
}
unset multiplot
