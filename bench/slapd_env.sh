# Sourced by the bench drivers: a private slapd (scripts/slapd.sh) on a free
# loopback port, bulk-loaded with slapadd.  start_directory <build> <users>
# [ldif|people] sets DIR_PORT, DIR_TMP and LOAD_SECONDS; with DIR_NOSYNC=1 the
# database does not sync each write to disk (as for a bulk load).  The full
# directory's passwords are sealed under a key file of its own (or the one
# DIR_KEYFILE names, shared with another directory), which ZEL_KEYFILE names
# for the bench programs.  stop_directory ends it and
# removes its folder.
# shellcheck source=scripts/slapd.sh
. "$(dirname "${BASH_SOURCE[0]}")/../scripts/slapd.sh"

start_directory() {
  local build=$1 users=$2 content=${3:-ldif}
  DIR_TMP=$(mktemp -d /tmp/zelbench-XXXXXX)
  (umask 077; printf '%s' secret >"$DIR_TMP/admin.pw")
  local t0=$SECONDS
  unset ZEL_KEYFILE
  if [ "$content" = ldif ] && [ -n "${DIR_KEYFILE:-}" ]; then
    export ZEL_KEYFILE=$DIR_KEYFILE
  elif [ "$content" = ldif ]; then
    "$build/bench/zel_bench" key "$DIR_TMP/keys" || return 1
    export ZEL_KEYFILE="$DIR_TMP/keys"
  fi
  "$build/bench/zel_bench" "$content" "$users" >"$DIR_TMP/data.ldif"
  ZEL_SLAPD_LOAD="$DIR_TMP/data.ldif" ZEL_SLAPD_NOSYNC=${DIR_NOSYNC:-0} ZEL_SLAPD_MAXSIZE=8589934592 \
    zel_slapd_start "$DIR_TMP" o=acme cn=Manager,o=acme || return 1
  rm -f "$DIR_TMP/data.ldif"
  LOAD_SECONDS=$((SECONDS - t0))
  DIR_PORT=$zel_port
}

stop_directory() {
  zel_slapd_stop
  [ -n "${DIR_TMP:-}" ] && rm -rf "$DIR_TMP"
  DIR_TMP=
  unset ZEL_KEYFILE
}
