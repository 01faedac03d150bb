# Sourced by the bench drivers: a private slapd on a free loopback port,
# bulk-loaded with slapadd.  start_directory <build> <users> [ldif|people]
# sets DIR_PORT; with DIR_NOSYNC=1 the database does not sync each write to
# disk (slapd's dbnosync, as for a bulk load);
# stop_directory ends it and removes its folder.
SRC=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

free_port() {
  python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'
}

start_directory() {
  local build=$1 users=$2 content=${3:-ldif}
  DIR_TMP=$(mktemp -d /tmp/zelbench-XXXXXX)
  mkdir "$DIR_TMP/db"
  cat >"$DIR_TMP/slapd.conf" <<CONF
include /etc/ldap/schema/core.schema
include /etc/ldap/schema/cosine.schema
include /etc/ldap/schema/inetorgperson.schema
include $SRC/schema/zel.schema
pidfile $DIR_TMP/slapd.pid
argsfile $DIR_TMP/slapd.args
modulepath /usr/lib/ldap
moduleload back_mdb
access to * by dn.exact="cn=Manager,o=acme" manage by * read
database mdb
suffix "o=acme"
directory $DIR_TMP/db
maxsize 8589934592
$( [ "${DIR_NOSYNC:-0}" = 1 ] && echo dbnosync )
include $SRC/schema/zel-indexes.conf
rootdn "cn=Manager,o=acme"
rootpw secret
CONF
  local t0=$SECONDS
  "$build/bench/zel_bench" "$content" "$users" >"$DIR_TMP/data.ldif"
  slapadd -q -f "$DIR_TMP/slapd.conf" -l "$DIR_TMP/data.ldif" 2>"$DIR_TMP/slapadd.log" ||
    { cat "$DIR_TMP/slapadd.log"; return 1; }
  rm -f "$DIR_TMP/data.ldif"
  LOAD_SECONDS=$((SECONDS - t0))
  DIR_PORT=$(free_port)
  slapd -f "$DIR_TMP/slapd.conf" -h "ldap://127.0.0.1:$DIR_PORT/" -d 0 >"$DIR_TMP/slapd.log" 2>&1 &
  DIR_PID=$!
  for _ in $(seq 200); do
    (exec 3<>"/dev/tcp/127.0.0.1/$DIR_PORT") 2>/dev/null && return 0
    sleep 0.05
  done
  cat "$DIR_TMP/slapd.log"
  return 1
}

stop_directory() {
  [ -n "${DIR_PID:-}" ] && kill "$DIR_PID" 2>/dev/null && wait "$DIR_PID" 2>/dev/null
  DIR_PID=
  [ -n "${DIR_TMP:-}" ] && rm -rf "$DIR_TMP"
  DIR_TMP=
}
