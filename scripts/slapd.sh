# The one starter of a throw-away slapd: a folder, a free loopback port, the
# Zel schema and indexes, one suffix with its manager.  The demo, the console,
# the bench and the Python tests all start theirs here.  (The C++ harness
# writes its own configuration: its profiles play other server kinds with
# their own root DSE, add TLS, several suffixes, size limits and rules written
# live through cn=config, beyond what one suffix here needs.)
#
# Sourced, it defines:
#   zel_slapd_start <work> <suffix> <manager dn>
#       the manager's password is read from <work>/admin.pw, never an argument;
#       sets zel_port, zel_uri and zel_pid.  From the environment:
#       ZEL_SLAPD_LOAD=<ldif>  bulk-loads that file (slapadd) before starting
#       ZEL_SLAPD_NOSYNC=1     no disk sync of each write, as for a bulk load
#       ZEL_SLAPD_MAXSIZE=n    the database's map size in bytes
#       ZEL_ACCESS_RULES=1     the shipped access rules, then a site's usual
#                              ones (binds by password, the rest for those signed on)
#   zel_slapd_stop   ends it (the folder stays: it is the caller's)
# Run as `slapd.sh start <work> <suffix> <manager dn>` it starts one, prints
# "<port> <pid>" and leaves it running.
zel_source=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

zel_free_port() {
  python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'
}

zel_slapd_start() {
  local work=$1 suffix=$2 manager=$3
  mkdir -p "$work/db"
  {
    cat <<CONF
include /etc/ldap/schema/core.schema
include /etc/ldap/schema/cosine.schema
include /etc/ldap/schema/inetorgperson.schema
include $zel_source/schema/zel.schema
pidfile $work/slapd.pid
argsfile $work/slapd.args
modulepath /usr/lib/ldap
moduleload back_mdb
database mdb
suffix "$suffix"
rootdn "$manager"
rootpw $(cat "$work/admin.pw")
directory $work/db
maxsize ${ZEL_SLAPD_MAXSIZE:-33554432}
include $zel_source/schema/zel-indexes.conf
CONF
    [ "${ZEL_SLAPD_NOSYNC:-0}" = 1 ] && echo dbnosync
    if [ "${ZEL_ACCESS_RULES:-}" = 1 ]; then
      sed "s/@SUFFIX@/$suffix/g" "$zel_source/schema/zel-access.conf" > "$work/zel-access.conf"
      echo "include $work/zel-access.conf"
      echo "access to attrs=userPassword by self write by anonymous auth by * none"
      echo "access to * by users read by * none"
    fi
  } > "$work/slapd.conf"
  chmod 600 "$work/slapd.conf"
  if [ -n "${ZEL_SLAPD_LOAD:-}" ]; then
    slapadd -q -f "$work/slapd.conf" -l "$ZEL_SLAPD_LOAD" 2>"$work/slapadd.log" ||
      { cat "$work/slapadd.log" >&2; return 1; }
  fi
  zel_port=$(zel_free_port)
  zel_uri="ldap://127.0.0.1:$zel_port"
  slapd -f "$work/slapd.conf" -h "$zel_uri/" -d 0 >"$work/slapd.log" 2>&1 &
  zel_pid=$!
  for _ in $(seq 400); do
    LDAPNOINIT=1 ldapsearch -x -H "$zel_uri" -b "" -s base >/dev/null 2>&1 && return 0
    kill -0 "$zel_pid" 2>/dev/null || break
    sleep 0.05
  done
  cat "$work/slapd.log" >&2
  return 1
}

zel_slapd_stop() {
  [ -n "${zel_pid:-}" ] && kill "$zel_pid" 2>/dev/null && wait "$zel_pid" 2>/dev/null
  zel_pid=
}

if [ "${BASH_SOURCE[0]}" = "$0" ] && [ "${1:-}" = start ]; then
  set -eu
  # The server must outlive this script: its output goes to its log only.
  zel_slapd_start "$2" "$3" "$4" </dev/null
  echo "$zel_port $zel_pid"
fi
