#!/usr/bin/env bash
# make bench-instructions: client instructions per read call under callgrind,
# library against raw, on a 1000-user directory.  "own" counts what runs in
# the library's own code (the benchmark program's object, into which the
# library is linked statically, with what it inlined from headers, less the
# benchmark's own files such as its search counter); the rest is the
# directory client, the C and C++ runtimes, ICU and libsodium.
#   instructions.sh <build> [calls]
# With OWN_TREE=<depth> it also prints, for each operation, where the
# library's own instructions go, per function, inclusive and exclusive,
# down to that depth (bench/own_instructions.py, which also does the count).
set -euo pipefail
build=$1
calls=${2:-200}
here=$(cd "$(dirname "$0")" && pwd)
source "$here/slapd_env.sh"
trap stop_directory EXIT
start_directory "$build" 1000
work=${KEEP_CG:-$DIR_TMP}
warm=50  # zel_bench's untimed first pass runs inside the measured function too

count() {  # side op [tag] -> "total own" instructions per call
  local out="$work/cg.$1${3:-}.$2"
  valgrind --tool=callgrind --callgrind-out-file="$out" --toggle-collect="bench_measured_$1" \
    "$build/bench/zel_bench" instr "$DIR_PORT" 1000 "$2" "$1" "$calls" >/dev/null 2>"$out.log" ||
    { cat "$out.log"; exit 1; }
  python3 "$here/own_instructions.py" count "$out" $((calls + warm))
}

# "raw instr" reads each entry as most clients do (ldap_first_attribute and
# ldap_get_values_len, a copy of every value); "in place" reads it as the
# library does (ldap_get_attribute_ber, the values where they lie), which
# shows the library's overhead over the cheapest raw client.
printf "%-18s %10s %10s %7s %10s %8s %10s %9s\n" operation "lib instr" "raw instr" ratio "in place" ratio "lib own" "targets"
for op in credential-direct credential-group credential-miss target-record target-service verify-user; do
  read -r lib own < <(count lib "$op")
  [ -n "${OWN_TREE:-}" ] &&
    python3 "$here/own_instructions.py" tree "$work/cg.lib.$op" $((calls + warm)) "$OWN_TREE" >"$work/tree.$op"
  read -r raw _ < <(count raw "$op")
  read -r flat _ < <(ZEL_BENCH_RAW_IN_PLACE=1 count raw "$op" .inplace)
  awk -v op="$op" -v lib="$lib" -v raw="$raw" -v flat="$flat" -v own="$own" 'BEGIN {
    r = lib / raw
    cap = op == "credential-direct" ? 3000 : 4000
    printf "%-18s %10d %10d %7.3f %10d %8.3f %10d  %s/%s\n", op, lib, raw, r, flat, lib / flat, own,
           (r <= 1.05 ? "ok" : "MISSED"), (own <= cap ? "ok" : "MISSED") }'
done
echo "targets: lib/raw <= 1.05, library's own <= 3000 instructions per call for credential-direct, 4000 for the rest"
if [ -n "${OWN_TREE:-}" ]; then
  for op in credential-direct credential-group credential-miss target-record target-service verify-user; do
    printf '\n%s, ' "$op"
    cat "$work/tree.$op"
  done
fi
