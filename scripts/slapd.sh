# The one starter of a throw-away slapd: a folder, free loopback ports, the
# Zel schema and indexes, a database a suffix, the first with its manager.
# The demo, the console, the bench, the Python tests and the C++ test harness
# all start theirs here.  (The harness's profiles, which play other server
# kinds with their own root DSE, TLS, size limits and rules written live
# through cn=config, give those as further global lines.)
#
# Sourced, it defines:
#   zel_slapd_conf <work> <manager dn> <suffix>...
#       writes <work>/slapd.conf; the manager's password is read from
#       <work>/admin.pw, never an argument.  From the environment:
#       ZEL_SLAPD_NOSYNC=1     no disk sync of each write, as for a bulk load
#       ZEL_SLAPD_MAXSIZE=n    each database's map size in bytes
#       ZEL_SLAPD_GLOBAL=<f>   further global lines, included before the databases
#       ZEL_ACCESS_RULES=1     the shipped access rules, then a site's usual
#                              ones (binds by password, the rest for those signed on)
#       ZEL_ACCESS_RULES=shipped  the shipped access rules alone
#   zel_slapd_start <work> <suffix> <manager dn>
#       writes the configuration, starts slapd on a free port and sets
#       zel_port, zel_uri and zel_pid.  ZEL_SLAPD_LOAD=<ldif> bulk-loads that
#       file (slapadd) before starting.
#   zel_slapd_stop   ends it (the folder stays: it is the caller's)
# Run as `slapd.sh start <work> <suffix> <manager dn>` it starts one, prints
# "<port> <pid>" and leaves it running.  Run as `slapd.sh run <work> <listen
# URLs> <manager dn> <suffix>...` it writes the configuration and becomes
# slapd in the foreground (same process: its caller stops it by its pid).
zel_source=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

zel_free_port() {
  python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'
}

zel_slapd_conf() {
  local work=$1 manager=$2 i=0 suffix db
  shift 2
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
CONF
    if [ -n "${ZEL_SLAPD_GLOBAL:-}" ]; then echo "include $ZEL_SLAPD_GLOBAL"; fi
    for suffix in "$@"; do
      db=$work/db
      if [ "$i" -gt 0 ]; then db=$work/db$i; fi
      mkdir -p "$db"
      printf 'database mdb\nsuffix "%s"\ndirectory %s\nmaxsize %s\ninclude %s\n' "$suffix" "$db" \
        "${ZEL_SLAPD_MAXSIZE:-33554432}" "$zel_source/schema/zel-indexes.conf"
      if [ "${ZEL_SLAPD_NOSYNC:-0}" = 1 ]; then echo dbnosync; fi
      if [ "$i" = 0 ]; then
        printf 'rootdn "%s"\nrootpw %s\n' "$manager" "$(cat "$work/admin.pw")"
        if [ -n "${ZEL_ACCESS_RULES:-}" ]; then
          sed "s/@SUFFIX@/$suffix/g" "$zel_source/schema/zel-access.conf" > "$work/zel-access.conf"
          echo "include $work/zel-access.conf"
        fi
        if [ "${ZEL_ACCESS_RULES:-}" = 1 ]; then
          echo "access to attrs=userPassword by self write by anonymous auth by * none"
          echo "access to * by users read by * none"
        fi
      fi
      i=$((i + 1))
    done
  } > "$work/slapd.conf"
  chmod 600 "$work/slapd.conf"
}

zel_slapd_start() {
  local work=$1 suffix=$2 manager=$3
  zel_slapd_conf "$work" "$manager" "$suffix" || return 1
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
elif [ "${BASH_SOURCE[0]}" = "$0" ] && [ "${1:-}" = run ]; then
  set -eu
  work=$2 urls=$3
  shift 3
  zel_slapd_conf "$work" "$@"
  exec slapd -f "$work/slapd.conf" -h "$urls" -d 0
fi
