#!/bin/bash
# ds389_pair.sh - two private 389 Directory Server instances replicating each other
# (multi-supplier: a replica of type supplier on each, one agreement each way) on
# 127.0.0.1 only, no systemd, no dscreate, every file under one directory.
#
# usage:
#   ds389_pair.sh start  DIR [P1 P2]   first time: create both instances, start them, add the
#                                   backend + suffix entry on s1, configure replication
#                                   (replica + changelog + manager + agreements), total
#                                   init s1 -> s2, wait until s2 holds the suffix; later: start both
#   ds389_pair.sh stop   DIR [1|2]     SIGTERM (after SIGCONT) that instance's own pid, wait for exit
#   ds389_pair.sh kill   DIR [1|2]     SIGKILL, remove the stats semaphore it leaves behind
#   ds389_pair.sh start1 DIR N         (re)start only instance N from its existing config
#   ds389_pair.sh status DIR           "sN running PID PORT" / "sN stopped PORT"; exit 3 if one is down
#   ds389_pair.sh uris   DIR           "ldap://127.0.0.1:P1 ldap://127.0.0.1:P2"
#   ds389_pair.sh pid    DIR N
#   ds389_pair.sh conflicts DIR N      entries with nsds5ReplConflict on instance N (both kinds)
#   ds389_pair.sh agreements DIR on|off  replication both ways on or off (a partition)
#   ds389_pair.sh destroy DIR          SIGKILL both, rm -rf DIR
# env (read at creation): SUFFIX (o=acme), ROOTPW (Manager-389), REPLPW (Repl-389-pw),
#   SCHEMA_LDIF (extra schema file copied into both schema dirs, e.g. 99zel.ldif),
#   DBCACHE (bytes, default 16 MiB),
#   REPL_WAIT_ASYNC (ms; nsds5ReplicaWaitForAsyncResults of the agreements, server default 100:
#   with it, changes less than ~130 ms apart reach the peer 30-130 ms late; 5 gives 3-10 ms).
# Layout: DIR/sN/{slapd-pair389-PORT/{dse.ldif,schema/},db,log,run/slapd.pid,...}, DIR/sN/port
set -uo pipefail
NS_SLAPD=${NS_SLAPD:-/usr/sbin/ns-slapd}
TEMPLATE=${TEMPLATE:-/usr/share/dirsrv/data/template-dse.ldif}
SYSCONF=${SYSCONF:-/etc/dirsrv}
SUFFIX=${SUFFIX:-o=acme}
ROOTDN="cn=Directory Manager"
ROOTPW=${ROOTPW:-Manager-389}
REPLDN="cn=replication manager,cn=config"
REPLPW=${REPLPW:-Repl-389-pw}
# keep the ldap* tools away from ~/.ldaprc, ./ldaprc, $LDAPURI ...
unset LDAPURI LDAPBASE LDAPBINDDN LDAPRC LDAPCONF LDAPTIMEOUT LDAPNETWORK_TIMEOUT
export LDAPNOINIT=1

die() { echo "ds389_pair: $*" >&2; exit 1; }
ms() { date +%s%3N; }
T0=$(ms)
say() { echo "ds389_pair: [+$(( $(ms) - T0 )) ms] $*"; }

freeports() {
  python3 - <<'EOF'
import socket
s=[socket.socket() for _ in range(2)]
for x in s: x.bind(("127.0.0.1",0))
print(*[x.getsockname()[1] for x in s]); [x.close() for x in s]
EOF
}
port_of() { cat "$DIR/s$1/port"; }
uri_of()  { echo "ldap://127.0.0.1:$(port_of "$1")"; }
cfg_of()  { echo "$DIR/s$1/slapd-pair389-$(port_of "$1")"; }
pid_of()  { [ -s "$DIR/s$1/run/slapd.pid" ] && cat "$DIR/s$1/run/slapd.pid"; }
running() { [ -r "/proc/$1/stat" ] && ! grep -q ') Z' "/proc/$1/stat" 2>/dev/null; }
alive()   { local p; p=$(pid_of "$1") && running "$p" && [ "$(cat "/proc/$p/comm" 2>/dev/null)" = ns-slapd ]; }
dm()      { local n=$1; shift; "$@" -x -H "$(uri_of "$n")" -D "$ROOTDN" -y "$DIR/rootpw"; }
lmod()    { dm "$1" ldapmodify -o nettimeout=5 >/dev/null; }   # LDIF on stdin
lsearch() { local n=$1; shift; dm "$n" ldapsearch -LLL -o ldif-wrap=no -o nettimeout=5 "$@"; }

create_one() { # N PORT
  local n=$1 port=$2 d="$DIR/s$1" cfg user
  mkdir -p "$d"; echo "$port" > "$d/port"
  cfg=$(cfg_of "$n")   # its name must be unique: ns-slapd names /dev/shm/sem.<name>.stats after it
  user=$(id -un)
  mkdir -p "$cfg/schema" "$d"/{db,bak,ldif,run,lock,log,tmp}
  cp "$SYSCONF/config/slapd-collations.conf" "$SYSCONF/config/certmap.conf" "$cfg/"
  cp "$SYSCONF/schema/99user.ldif" "$cfg/schema/"
  [ -n "${SCHEMA_LDIF:-}" ] && cp "$SCHEMA_LDIF" "$cfg/schema/"
  sed -e "s|%schema_dir%|$cfg/schema|g"   -e "s|%config_dir%|$cfg|g" \
      -e "s|%cert_dir%|$cfg|g"            -e "s|%lock_dir%|$d/lock|g" \
      -e "s|%tmp_dir%|$d/tmp|g"           -e "s|%ldif_dir%|$d/ldif|g" \
      -e "s|%bak_dir%|$d/bak|g"           -e "s|%run_dir%|$d/run|g" \
      -e "s|%inst_dir%|$d|g"              -e "s|%log_dir%|$d/log|g" \
      -e "s|%db_dir%|$d/db|g"             -e "s|%db_home_dir%|$d/db|g" \
      -e "s|%db_lib%|bdb|g"               -e "s|%ldapi%|$d/run/ldapi|g" \
      -e "s|%ldapi_enabled%|off|g"        -e "s|%ldapi_autobind%|off|g" \
      -e "s|%fqdn%|localhost|g"           -e "s|%ds_port%|$port|g" \
      -e "s|%ds_user%|$user|g"            -e "s|%ds_suffix%|$SUFFIX|g" \
      -e "s|%rootdn%|$ROOTDN|g" "$TEMPLATE" |
  PW=$(pwdhash "$ROOTPW") DBCACHE=${DBCACHE:-16777216} awk '
      /^nsslapd-rootpw: %ds_passwd%$/ { print "nsslapd-rootpw: " ENVIRON["PW"]; next }
      { print }
      /^nsslapd-port: / && !done { print "nsslapd-listenhost: 127.0.0.1"
                                   print "nsslapd-accesslog-logbuffering: off"; done = 1 }
      /^nsslapd-db-home-directory: / {
          print "nsslapd-cache-autosize: 0"; print "nsslapd-dbcachesize: " ENVIRON["DBCACHE"] }
  ' > "$cfg/dse.ldif"
  chmod 600 "$cfg/dse.ldif"
}

start_one() { # N
  local n=$1 d="$DIR/s$1" i
  alive "$n" && { echo "s$n already running (pid $(pid_of "$n"))" >&2; return 0; }
  rm -f "$d/run/slapd.pid"
  # daemon mode: ns-slapd binds, forks, the child writes its pid to -i (always pass -i:
  # without it a root ns-slapd -d uses /dev/null as pid file and chmods it 0644)
  "$NS_SLAPD" -D "$(cfg_of "$n")" -i "$d/run/slapd.pid" >"$d/log/ns-slapd.out" 2>&1 \
    || { cat "$d/log/ns-slapd.out" >&2; tail -20 "$d/log/errors" >&2; die "s$n: ns-slapd failed"; }
  for i in $(seq 1 600); do
    ldapsearch -x -LLL -o nettimeout=1 -l 2 -H "$(uri_of "$n")" -b "" -s base vendorVersion \
      >/dev/null 2>&1 && return 0
    if [ -s "$d/run/slapd.pid" ] && ! alive "$n"; then break; fi
    sleep 0.05
  done
  tail -20 "$d/log/errors" >&2; die "s$n did not answer"
}

stop_one() { # N SIG
  local n=$1 sig=${2:-TERM} p i cfg
  if ! alive "$n"; then rm -f "$DIR/s$n/run/slapd.pid"; return 0; fi
  p=$(pid_of "$n")
  kill -CONT "$p" 2>/dev/null       # a test may have left it SIGSTOPped
  kill "-$sig" "$p"
  for i in $(seq 1 600); do running "$p" || break; sleep 0.05; done
  if running "$p"; then echo "s$n: pid $p ignored SIG$sig, SIGKILL" >&2; kill -KILL "$p"; sig=KILL
    for i in $(seq 1 100); do running "$p" || break; sleep 0.05; done; fi
  rm -f "$DIR/s$n/run/slapd.pid"
  if [ "$sig" = KILL ]; then
    # A killed ns-slapd leaves its stats semaphore and lock/server/<pid> behind.  Its
    # parent is init here (ns-slapd daemonizes), which reaps it a while later; until
    # then kill(pid, 0) succeeds on the zombie and a new ns-slapd refuses to start
    # ("Unable to start slapd because it is already running as process <pid>").
    cfg=$(cfg_of "$n"); rm -f "/dev/shm/sem.${cfg##*/}.stats" "$DIR/s$n/lock/server/$p"
  fi
}

add_backend() { # N [with suffix entry]
  local n=$1 rdnval=${SUFFIX#*=}; rdnval=${rdnval%%,*}
  { cat <<EOF
dn: cn=userRoot,cn=ldbm database,cn=plugins,cn=config
changetype: add
objectClass: top
objectClass: extensibleObject
objectClass: nsBackendInstance
cn: userRoot
nsslapd-suffix: $SUFFIX
nsslapd-cachememsize: 33554432
nsslapd-dncachememsize: 16777216

dn: cn="$SUFFIX",cn=mapping tree,cn=config
changetype: add
objectClass: top
objectClass: extensibleObject
objectClass: nsMappingTree
cn: $SUFFIX
nsslapd-state: backend
nsslapd-backend: userRoot

EOF
    if [ "${2:-}" = entry ]; then cat <<EOF
dn: $SUFFIX
changetype: add
objectClass: top
objectClass: organization
o: $rdnval
aci: (targetattr = "objectClass || cn || sn || uid")(version 3.0; acl "Find people"; allow (read, search, compare) userdn = "ldap:///all";)

EOF
    fi; } | lmod "$n" || die "s$n: backend failed"
}

# --- replication by plain LDIF (what dsconf replication enable / repl-agmt create write).
# Manager and replica on BOTH servers first, agreements after: an agreement starts at
# once, and one created before the peer has its manager gets error 49 and retries later.
repl_ldif_replica() { # N RID
  local n=$1 rid=$2 mt="cn=\"$SUFFIX\",cn=mapping tree,cn=config"
  # the changelog (cn=changelog,cn=userRoot,cn=ldbm database,...) is made by the server
  lmod "$n" <<EOF || die "s$n: replica config failed"
dn: $REPLDN
changetype: add
objectClass: top
objectClass: netscapeServer
objectClass: nsAccount
cn: replication manager
userPassword: $REPLPW

dn: cn=replica,$mt
changetype: add
objectClass: top
objectClass: nsds5Replica
cn: replica
nsDS5ReplicaRoot: $SUFFIX
nsDS5ReplicaId: $rid
nsDS5ReplicaType: 3
nsDS5Flags: 1
nsDS5ReplicaBindDN: $REPLDN

EOF
}
repl_ldif_agmt() { # N PEER_PORT
  local n=$1 peer=$2
  lmod "$n" <<EOF || die "s$n: agreement failed"
dn: $(agmt_dn "$n")
changetype: add
objectClass: top
objectClass: nsds5replicationagreement
cn: to-s$((3 - n))
nsDS5ReplicaRoot: $SUFFIX
nsDS5ReplicaHost: 127.0.0.1
nsDS5ReplicaPort: $peer
nsDS5ReplicaTransportInfo: LDAP
nsDS5ReplicaBindMethod: SIMPLE
nsDS5ReplicaBindDN: $REPLDN
nsDS5ReplicaCredentials: $REPLPW
${REPL_WAIT_ASYNC:+nsds5ReplicaWaitForAsyncResults: $REPL_WAIT_ASYNC}

EOF
}

agmt_dn() { echo "cn=to-s$((3 - $1)),cn=replica,cn=\"$SUFFIX\",cn=mapping tree,cn=config"; }

total_init() { # FROM: total update of the peer over FROM's agreement, wait for the end
  local n=$1 i st
  lmod "$n" <<EOF || die "s$n: init start failed"
dn: $(agmt_dn "$n")
changetype: modify
replace: nsds5BeginReplicaRefresh
nsds5BeginReplicaRefresh: start
EOF
  for i in $(seq 1 600); do
    st=$(lsearch "$n" -b "$(agmt_dn "$n")" -s base nsds5BeginReplicaRefresh nsds5ReplicaLastInitStatus)
    if ! grep -q '^nsds5BeginReplicaRefresh' <<<"$st"; then
      grep -q 'Total update succeeded' <<<"$st" && return 0
      grep -qi 'error\|fail' <<<"$st" && { echo "$st" >&2; die "init failed"; }
    fi
    sleep 0.05
  done
  echo "$st" >&2; die "init did not finish in 30 s"
}

wait_entry() { # N DN TRIES(x~25 ms)
  local i
  for i in $(seq 1 "$3"); do lsearch "$1" -b "$2" -s base 1.1 >/dev/null 2>&1 && return 0; sleep 0.02; done
  return 1
}

cmd=${1:-}; DIR=${2:-}
[ -n "$cmd" ] && [ -n "$DIR" ] || { sed -n '2,25p' "$0"; exit 2; }
mkdir -p "$DIR"; DIR=$(cd "$DIR" && pwd -P)

case $cmd in
start)
  if [ ! -f "$DIR/s1/port" ]; then
    if [ $# -ge 4 ]; then P1=$3; P2=$4; else read -r P1 P2 < <(freeports); fi
    printf '%s' "$ROOTPW" > "$DIR/rootpw"; chmod 600 "$DIR/rootpw"   # -y: no newline
    create_one 1 "$P1"; create_one 2 "$P2"; say "configs written"
    start_one 1; say "s1 up (pid $(pid_of 1))"
    start_one 2; say "s2 up (pid $(pid_of 2))"
    add_backend 1 entry; add_backend 2; say "backends added"
    repl_ldif_replica 1 1; repl_ldif_replica 2 2
    repl_ldif_agmt 1 "$P2"; repl_ldif_agmt 2 "$P1"
    say "replication configured"
    total_init 1; say "total init s1 -> s2 done"
    wait_entry 2 "$SUFFIX" 400 || die "$SUFFIX not on s2"
    say "s2 holds $SUFFIX"
  else
    start_one 1; start_one 2; say "both up"
  fi
  echo "$(uri_of 1) $(uri_of 2)" ;;
start1) start_one "${3:?N}"; say "s$3 up (pid $(pid_of "$3"))" ;;
stop|kill)
  sig=TERM; [ "$cmd" = kill ] && sig=KILL
  if [ -n "${3:-}" ]; then stop_one "$3" $sig; say "s$3 stopped (SIG$sig)"
  else stop_one 2 $sig; say "s2 stopped (SIG$sig)"; stop_one 1 $sig; say "s1 stopped (SIG$sig)"; fi ;;
status)
  rc=0
  for n in 1 2; do
    if alive $n; then echo "s$n running $(pid_of $n) $(port_of $n)"; else echo "s$n stopped $(port_of $n)"; rc=3; fi
  done; exit $rc ;;
uris) echo "$(uri_of 1) $(uri_of 2)" ;;
pid) pid_of "${3:?N}" ;;
conflicts)
  lsearch "${3:?N}" -b "$SUFFIX" \
    "(|(nsds5ReplConflict=*)(&(objectClass=ldapsubentry)(nsds5ReplConflict=*)))" \
    dn nsds5ReplConflict ;;
agreements)
  case ${3:-} in on|off) ;; *) die "agreements: on or off" ;; esac
  for n in 1 2; do lmod "$n" <<EOF || die "s$n: agreement $3 failed"
dn: $(agmt_dn "$n")
changetype: modify
replace: nsds5ReplicaEnabled
nsds5ReplicaEnabled: $3
EOF
  done ;;
destroy)   # SIGKILL: a throw-away pair needs no clean shutdown (SIGTERM takes ~5 s each)
  if [ -f "$DIR/s1/port" ]; then stop_one 2 KILL; stop_one 1 KILL; fi
  rm -rf "$DIR"; echo "ds389_pair: removed $DIR" ;;
*) die "unknown command $cmd" ;;
esac
