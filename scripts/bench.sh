#!/usr/bin/env bash
# Runs every benchmark workload of `dovel bench` and the same tree workloads written with
# Qt Remote Objects (bench/peers/qtro), and prints one Markdown report: the machine, the
# date, every figure with Dovel beside Qt Remote Objects and rsync, and the targets.
# bench/RESULTS.md is this script's output.
#
# Usage: scripts/bench.sh [--quick] > bench/RESULTS.md
#   --quick  short runs (1 s, 2,000 trips, 100,000 attributes, no folders) to check
#            the script
# Installs what it needs (the build's packages, Qt Remote Objects, rsync) when missing.
# Progress goes to standard error.
set -euo pipefail
cd "$(dirname "$0")/.."

quick=0
[ "${1:-}" = "--quick" ] && quick=1

bash scripts/deps.sh libqt5remoteobjects5-dev libqt5remoteobjects5-bin rsync >&2
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)" --target dovel qtro-bench >&2

seconds=5; trips=10000; attributes=1000000
if [ "$quick" = 1 ]; then seconds=1; trips=2000; attributes=100000; fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Runs one benchmark program and appends its figures as "IMPL WORKLOAD METRIC VALUE UNIT".
run() {
  local impl=$1; shift
  echo "bench: $impl $*" >&2
  if ! "$@" --json > "$work/out" 2> "$work/err"; then
    echo "bench: '$*' failed:" >&2
    cat "$work/err" >&2
  fi
  sed -nE 's/.*"metric":"([^"]*)".*"unit":"([^"]*)".*"value":([^,}]*).*"workload":"([^"]*)".*/\4 \1 \3 \2/p' \
    "$work/out" | awk -v impl="$impl" '{ print impl, $0 }' >> "$work/figures"
}

: > "$work/figures"
run dovel build/bin/dovel bench updates --seconds "$seconds"
run qtro build/bin/qtro-bench updates --seconds "$seconds"
run dovel build/bin/dovel bench latency --trips "$trips"
run qtro build/bin/qtro-bench latency --trips "$trips"
# The first copy moves by a tenth from run to run of one build on this kind of machine:
# each implementation runs it $copies times, the two taking turns, and every figure is
# the median of its runs. The client then reconnects holding the tree: that second copy
# is timed too.
copies=3
[ "$quick" = 1 ] && copies=1
: > "$work/copies"
for ((i = 0; i < copies; i++)); do
  run dovel build/bin/dovel bench initial --attributes "$attributes" --reconnect
  run qtro build/bin/qtro-bench initial --attributes "$attributes"
  grep -E '^(dovel|qtro) initial ' "$work/figures" >> "$work/copies"
  sed -i -E '/^(dovel|qtro) initial /d' "$work/figures"
done
# The median of each figure (the middle run's, or the mean of the middle two), in the
# order the figures first came.
awk '{ k = $1 " " $2 " " $3; if (!(k in n)) order[++keys] = k; v[k, ++n[k]] = $4; u[k] = $5 }
  END {
    for (i = 1; i <= keys; i++) {
      k = order[i]; c = n[k]
      for (a = 2; a <= c; a++) {
        x = v[k, a]
        for (b = a - 1; b >= 1 && v[k, b] + 0 > x + 0; b--) v[k, b + 1] = v[k, b]
        v[k, b + 1] = x
      }
      print k, (c % 2) ? v[k, (c + 1) / 2] : (v[k, c / 2] + v[k, c / 2 + 1]) / 2, u[k]
    }
  }' "$work/copies" >> "$work/figures"
# How the first copy grows with the tree: the same workload at four sizes.
scales="10000 100000 1000000 10000000"
[ "$quick" = 1 ] && scales="10000 100000"
for n in $scales; do
  run "scale$n" build/bin/dovel bench initial --attributes "$n"
done
run dovel build/bin/dovel bench coalesce --seconds "$seconds"
run dovel build/bin/dovel bench fanout --seconds "$seconds"
# The folder benchmark writes about 2 GiB and takes minutes; a quick run leaves it out.
# Its folders live in memory (tmpfs) when there is room: on a disk file system every cold
# run's deleted files slow the next run's file creation (ext4 passes over recently freed
# inodes), which hurts whichever tool runs later and swings the small files' figures
# several-fold. Both tools use the same scratch folder.
files_scratch=()
files_where="the system's temporary folder"
if [ "$(stat -f -c %T /dev/shm 2>/dev/null)" = tmpfs ] &&
   [ "$(df -k --output=avail /dev/shm 2>/dev/null | tail -1)" -gt $((4 * 1024 * 1024)) ]; then
  files_scratch=(--scratch /dev/shm)
  files_where="/dev/shm (tmpfs)"
fi
[ "$quick" = 1 ] || run dovel build/bin/dovel bench files "${files_scratch[@]}"

cpu=$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//')
memory=$(awk '/MemTotal/ { printf "%.0f GiB", $2 / 1048576 }' /proc/meminfo)
os=$(. /etc/os-release && echo "$PRETTY_NAME")

cat <<HEAD
# Benchmark results

Produced by \`scripts/bench.sh$([ "$quick" = 1 ] && echo " --quick")\` on $(date -u '+%Y-%m-%d %H:%M UTC').
Machine: $(nproc) cores ($cpu), $memory, $os, kernel $(uname -r).
Every figure comes from a server and its clients running as separate processes on
loopback (\`dovel bench WORKLOAD\`, \`qtro-bench WORKLOAD\`); see \`dovel bench --help\`
and bench/peers/qtro/README.md for what each workload does.$([ "$copies" -gt 1 ] && printf '%s' "
The first copy's figures (\`initial\`) are medians of $copies runs of each implementation,
taking turns.")

HEAD

awk -v where="$files_where" -v scales="$scales" '
  # Thousands separated by commas from 1,000 up; three significant digits below.
  function num(v,    s, out, neg) {
    if (v >= 1000 || v <= -1000) {
      s = sprintf("%.0f", v); out = "";
      neg = (substr(s, 1, 1) == "-"); if (neg) s = substr(s, 2);
      while (length(s) > 3) { out = "," substr(s, length(s) - 2) out; s = substr(s, 1, length(s) - 3) }
      return (neg ? "-" : "") s out
    }
    if (v >= 100 || v <= -100) return sprintf("%.0f", v)
    if (v >= 10 || v <= -10) return sprintf("%.1f", v)
    return sprintf("%.3g", v)
  }
  { key = $2 " " $3; value[$1, key] = $4; unit[key] = $5;
    if (!(key in seen)) { seen[key] = 1; order[++n] = key } }
  END {
    print "## Tree state: Dovel beside Qt Remote Objects\n"
    print "| workload | metric | unit | Dovel | Qt Remote Objects | Dovel / QtRO |"
    print "|---|---|---|---:|---:|---:|"
    for (i = 1; i <= n; i++) {
      k = order[i]; split(k, p, " ");
      if (p[1] != "updates" && p[1] != "latency" && p[1] != "initial") continue
      if (unit[k] == "met") continue
      d = (("dovel", k) in value) ? value["dovel", k] : ""
      q = (("qtro", k) in value) ? value["qtro", k] : ""
      r = (d != "" && q != "" && q + 0 != 0) ? sprintf("%.2f", d / q) : ""
      printf "| %s | %s | %s | %s | %s | %s |\n", p[1], p[2], unit[k], d == "" ? "" : num(d), q == "" ? "" : num(q), r
    }
    print "\n## The first copy by tree size (Dovel)\n"
    print "| attributes | seconds | us per attribute | tree B/attribute | session B/attribute (server, client) | peak RSS MiB (server, client) |"
    print "|---:|---:|---:|---:|---:|---:|"
    split(scales, sizes, " ")
    for (z = 1; z in sizes; z++) {
      im = "scale" sizes[z]
      if (!((im, "initial seconds") in value)) { printf "| %s | failed | | | | |\n", num(sizes[z]); continue }
      sec = value[im, "initial seconds"]
      printf "| %s | %s | %s | %s | %s, %s | %s, %s |\n", num(sizes[z]), num(sec), num(sec * 1e6 / sizes[z]),
        num(value[im, "initial tree_bytes_per_attribute"]), num(value[im, "initial server_bytes_per_attribute"]),
        num(value[im, "initial client_bytes_per_attribute"]), num(value[im, "initial server_peak_rss_mb"]),
        num(value[im, "initial client_peak_rss_mb"])
    }
    print "\n## Dovel only: coalescing and fan-out\n"
    print "| workload | metric | unit | Dovel |"
    print "|---|---|---|---:|"
    for (i = 1; i <= n; i++) {
      k = order[i]; split(k, p, " ");
      if ((p[1] != "coalesce" && p[1] != "fanout") || unit[k] == "met") continue
      printf "| %s | %s | %s | %s |\n", p[1], p[2], unit[k], num(value["dovel", k])
    }
    print "\n## Folders: Dovel beside rsync (daemon on loopback)\n"
    print "| case | unit | Dovel | rsync | Dovel / rsync |"
    print "|---|---|---:|---:|---:|"
    split("cold_big_mb_per_s cold_small_mb_per_s warm_seconds", cases, " ")
    for (c = 1; c <= 3; c++) {
      k = "files " cases[c]; rk = "files rsync_" cases[c]
      d = (("dovel", k) in value) ? value["dovel", k] : ""
      r = (("dovel", rk) in value) ? value["dovel", rk] : ""
      ratio = (d != "" && r != "" && r + 0 != 0) ? sprintf("%.2f", d / r) : ""
      printf "| %s | %s | %s | %s | %s |\n", cases[c], unit[k], d == "" ? "" : num(d), r == "" ? "" : num(r), ratio
    }
    k = "files md5_mb_per_s"
    if (("dovel", k) in value) printf "\nOne core hashes MD5 at %s MB/s on this machine. Folders are served and pulled within %s.\n", num(value["dovel", k]), where

    print "\n## Targets\n"
    print "| target | figures | met |"
    print "|---|---|---|"
    u = value["dovel", "updates changes_per_second"]; uq = value["qtro", "updates changes_per_second"]
    printf "| updates: at least 3,000,000 changes/s | %s | %s |\n", num(u), (u >= 3000000 ? "yes" : "no")
    printf "| updates: at least 2 x Qt Remote Objects | %s vs %s | %s |\n", num(u), num(uq), (uq > 0 && u >= 2 * uq ? "yes" : "no")
    l = value["dovel", "latency rtt_p50_us"]; lt = value["dovel", "latency tcp_rtt_p50_us"]; lq = value["qtro", "latency rtt_p50_us"]
    printf "| latency: p50 at most 2 x raw TCP ping-pong | %s us vs 2 x %s us | %s |\n", num(l), num(lt), (l <= 2 * lt ? "yes" : "no")
    printf "| latency: p50 below Qt Remote Objects | %s us vs %s us | %s |\n", num(l), num(lq), (l < lq ? "yes" : "no")
    s = value["dovel", "initial seconds"]; na = value["dovel", "initial attributes"]; sq = value["qtro", "initial seconds"]
    printf "| initial: %s attributes converged in at most 0.8 x Qt Remote Objects | %s s vs 0.8 x %s s | %s |\n", num(na), num(s), num(sq), (sq > 0 && s <= 0.8 * sq ? "yes" : "no")
    # Qt Remote Objects makes one copy: compared with the scale run of the same size,
    # whose client makes one too (the run above adds the second copy of a reconnect).
    rs = value["dovel", "initial server_peak_rss_mb"]; rc = value["dovel", "initial client_peak_rss_mb"]
    once = ""
    if (("scale" na, "initial client_peak_rss_mb") in value) {
      rs = value["scale" na, "initial server_peak_rss_mb"]; rc = value["scale" na, "initial client_peak_rss_mb"]
      once = sprintf(" (first copy; with the second copy of the reconnect %s and %s)", num(value["dovel", "initial server_peak_rss_mb"]), num(value["dovel", "initial client_peak_rss_mb"]))
    }
    rsq = value["qtro", "initial server_peak_rss_mb"]; rcq = value["qtro", "initial client_peak_rss_mb"]
    printf "| initial: peak RSS at most Qt Remote Objects on each side | server %s vs %s, client %s vs %s MiB%s | %s |\n", num(rs), num(rsq), num(rc), num(rcq), once, (rsq > 0 && rs <= rsq && rc <= rcq ? "yes" : "no")
    tb = value["dovel", "initial tree_bytes_per_attribute"]
    printf "| initial: the tree and its watching at most 250 bytes per attribute | %s | %s |\n", num(tb), (tb <= 250 ? "yes" : "no")
    sb = value["dovel", "initial server_bytes_per_attribute"]; cb = value["dovel", "initial client_bytes_per_attribute"]
    printf "| initial: session memory at most 120 bytes per attribute per side | server %s, client %s | %s |\n", num(sb), num(cb), (sb <= 120 && cb <= 120 ? "yes" : "no")
    ra = value["dovel", "initial reconnect_seconds"]
    printf "| initial: a reconnect holding the tree no slower than the first copy | %s s vs %s s | %s |\n", num(ra), num(s), (ra != "" && ra <= s ? "yes" : "no")
    st = value["dovel", "initial set_seconds"]; gt = value["dovel", "initial get_seconds"]
    printf "| initial: dovel set of one path on the %s-attribute tree under 0.2 s | set %s s, get %s s | %s |\n", num(na), num(st), num(gt), (st != "" && st >= 0 && st < 0.2 ? "yes" : "no")
    nl = split(scales, ls, " "); big = ls[nl]
    printf "| initial: %s attributes complete | %s | %s |\n", num(big), (("scale" big, "initial seconds") in value) ? num(value["scale" big, "initial seconds"]) " s" : "failed", (("scale" big, "initial seconds") in value) ? "yes" : "no"
    fb = value["dovel", "files cold_big_mb_per_s"]; rb = value["dovel", "files rsync_cold_big_mb_per_s"]; md5 = value["dovel", "files md5_mb_per_s"]
    printf "| files: cold 4 x 256 MiB at least as fast as rsync | %s vs %s MB/s | %s |\n", num(fb), num(rb), (fb >= rb && rb > 0 ? "yes" : "no")
    printf "| files: cold 4 x 256 MiB at least 90%% of one core of MD5 | %s vs %s MB/s | %s |\n", num(fb), num(0.9 * md5), (fb >= 0.9 * md5 && md5 > 0 ? "yes" : "no")
    fs = value["dovel", "files cold_small_mb_per_s"]; rs = value["dovel", "files rsync_cold_small_mb_per_s"]
    printf "| files: cold 1,000 x 64 KiB at least as fast as rsync | %s vs %s MB/s | %s |\n", num(fs), num(rs), (fs >= rs && rs > 0 ? "yes" : "no")
    fw = value["dovel", "files warm_seconds"]; rw = value["dovel", "files rsync_warm_seconds"]
    printf "| files: warm 10,000 unchanged files faster than rsync | %s s vs %s s | %s |\n", num(fw), num(rw), (fw < rw && fw > 0 ? "yes" : "no")
  }
' "$work/figures"
