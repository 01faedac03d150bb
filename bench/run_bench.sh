#!/usr/bin/env bash
# make bench: per directory size, a fresh slapd bulk-loaded with that many
# users, then the timings; results.csv and results.png in bench/.
#   run_bench.sh <build> [sizes...]   (default 1000 10000 100000)
set -euo pipefail
build=$1
shift
sizes=("$@")
[ ${#sizes[@]} -gt 0 ] || sizes=(1000 10000 100000)
source "$(dirname "$0")/slapd_env.sh"
trap stop_directory EXIT
out="$(cd "$(dirname "$0")" && pwd)"
csv="$out/results.csv"
echo "users,operation,library_us,raw_us,ratio,ratio_min,ratio_max,searches,required,band_lo,band_hi,spread,busy" >"$csv"
busy=0  # zel_bench exits 3 when it withheld a verdict
# With two CPUs or more the server and the client each get one of their own,
# so neither waits for the other to be scheduled.
client=()
if command -v taskset >/dev/null && [ "$(nproc)" -ge 2 ] && taskset -c 0,1 true 2>/dev/null; then
  client=(taskset -c 0)
fi
for users in "${sizes[@]}"; do
  start_directory "$build" "$users"
  if [ ${#client[@]} -gt 0 ]; then taskset -a -p -c 1 "$zel_pid" >/dev/null || true; fi
  t0=$SECONDS
  ZEL_BENCH_SERVER_PID=$zel_pid "${client[@]}" "$build/bench/zel_bench" run "$DIR_PORT" "$users" "$csv" "${ZEL_BENCH_ROUNDS:-30}" || {
    rc=$?
    [ "$rc" -eq 3 ] || exit "$rc"
    busy=1
  }
  echo "$users users: loaded in ${LOAD_SECONDS}s, measured in $((SECONDS - t0))s"
  stop_directory
done

# Per-call time against directory size, as the runs above found it.  They
# came one after the other, so the machine's speed may differ between them:
# no verdict here (the raw side's growth beside shows how much).
awk -F, -v first="${sizes[0]}" -v last="${sizes[${#sizes[@]}-1]}" '
  NR > 1 && $8 != "" { t[$1 "," $2] = $3; if ($5 != "") r[$1 "," $2] = $4; ops[$2] = 1 }
  END { if (first == last) exit
        printf "\nper-call time %s -> %s users, from the runs above (no verdict; raw beside):\n", first, last
        for (op in ops) {
          g = t[last "," op] / t[first "," op]
          raw = r[first "," op] > 0 ? sprintf("(raw %.2fx)", r[last "," op] / r[first "," op]) : ""
          printf "  %-26s %.2fx %s\n", op, g, raw
        } }' "$csv"

# The growth judged: the smallest and the largest directory up at once,
# calls alternating between them (zel_bench growth).  Both are sealed under
# one key file, which the library reads for either.
if [ ${#sizes[@]} -gt 1 ]; then
  first=${sizes[0]} last=${sizes[${#sizes[@]}-1]}
  keys=$(mktemp -d /tmp/zelbench-keys-XXXXXX)
  small_pid= small_tmp=
  stop_both() {  # the large directory, then the small one as stop_directory stops any
    stop_directory
    [ -n "$small_tmp" ] && zel_pid=$small_pid DIR_TMP=$small_tmp stop_directory
    small_pid= small_tmp=
    rm -rf "$keys"
  }
  trap stop_both EXIT
  "$build/bench/zel_bench" key "$keys/keys"
  DIR_KEYFILE=$keys/keys start_directory "$build" "$first"
  small_port=$DIR_PORT small_pid=$zel_pid small_tmp=$DIR_TMP
  zel_pid= DIR_TMP=  # the small directory is stop_both's now
  DIR_KEYFILE=$keys/keys start_directory "$build" "$last"
  if [ ${#client[@]} -gt 0 ]; then
    taskset -a -p -c 1 "$small_pid" >/dev/null || true
    taskset -a -p -c 1 "$zel_pid" >/dev/null || true
  fi
  ZEL_KEYFILE=$keys/keys ZEL_BENCH_SERVER_PID="$small_pid $zel_pid" "${client[@]}" "$build/bench/zel_bench" growth \
    "$small_port" "$first" "$DIR_PORT" "$last" "$csv" "${ZEL_BENCH_ROUNDS:-30}" || {
    rc=$?
    [ "$rc" -eq 3 ] || exit "$rc"
    busy=1
  }
  stop_both
  trap - EXIT
fi

# Failing over on a replicated pair.
if [ -x "$build/bench/zel_failover_bench" ]; then
  echo
  "$build/bench/zel_failover_bench"
fi

if command -v gnuplot >/dev/null; then
  gnuplot <<PLOT
set datafile separator ","
set terminal pngcairo size 900,560 noenhanced
set output "$out/results.png"
set logscale x
set xlabel "users in the directory"
set ylabel "microseconds per call (median)"
set key outside right
ops = "credential-direct credential-group credential-miss target-record target-service verify-user"
plot for [op in ops] "< grep ',".op.",' $csv" using 1:3 with linespoints title op." (library)", \
     for [op in ops] "< grep ',".op.",' $csv" using 1:4 with linespoints dashtype 2 title op." (raw)"
PLOT
  echo "wrote $csv and $out/results.png"
fi

if [ "$busy" = 1 ]; then
  echo "some verdicts withheld (busy or unsure above); only a run that exits 0 is worth publishing" >&2
  exit 3
fi
