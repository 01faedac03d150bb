#!/usr/bin/env bash
# make bench, data moves: zelctl import of <users> Zel users with one target
# record each into a directory that has the persons and services but no Zel
# user yet, then the same document again, which must change nothing.
# Run twice: with the directory syncing every write to disk, where the disk's
# sync rate bounds the writes, and with dbnosync, where the client's and the
# server's own work do; the targets are judged on the second.
#   import_bench.sh <build> [users]   (default 10000)
set -euo pipefail
build=$1
users=${2:-10000}
source "$(dirname "$0")/slapd_env.sh"
trap stop_directory EXIT
# rate <count> <start> <end> <target>: judged only without syncs, where the
# disk does not set the pace.
rate() { awk -v n="$1" -v a="$2" -v b="$3" -v t="$4" -v judged="$DIR_NOSYNC" \
  'BEGIN { r = n / (b - a)
           if (judged == 1) printf "%.0f/s (target >= %d/s) %s\n", r, t, (r >= t ? "ok" : "MISSED")
           else printf "%.0f/s (the disk sets the pace: not judged)\n", r }'; }
for DIR_NOSYNC in 0 1; do
  start_directory "$build" "$users" people
  doc="$DIR_TMP/import.json"
  "$build/bench/zel_bench" document "$users" >"$doc"
  pw="$DIR_TMP/admin.pw"  # the manager's, written by start_directory
  import() {
    "$build/tools/zelctl/zelctl" -H "ldap://127.0.0.1:$DIR_PORT" -D "cn=Manager,o=acme" -y "$pw" \
      import "$doc" --quiet | tail -n 1 || true
  }
  if [ "$DIR_NOSYNC" = 1 ]; then echo "directory with dbnosync:"; else echo "directory syncing every write:"; fi
  t0=$(date +%s.%N); first=$(import); t1=$(date +%s.%N)
  second=$(import); t2=$(date +%s.%N)
  echo "  import of $users users with $users records into an empty database: $first"
  echo "    records: $(rate "$users" "$t0" "$t1" 500)"
  echo "  second import of the same document: $second"
  echo "    objects compared: $(rate "$((2 * users))" "$t1" "$t2" 5000)"
  stop_directory
done
