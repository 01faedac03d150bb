#!/usr/bin/env bash
# The main job against a private directory: start a throw-away slapd on a free
# loopback port, load the Zel schema, seed a suffix and a security domain,
# run zelctl against it, and stop it again whatever happens.
set -euo pipefail
build=${1:-build}
here=$(cd "$(dirname "$0")/.." && pwd)
zelctl="$here/$build/tools/zelctl/zelctl"
[ -x "$zelctl" ] || { echo "demo: build first (make demo does)" >&2; exit 1; }

work=$(mktemp -d /tmp/zeldemo-XXXXXX)
pid=""
cleanup() {
  [ -n "$pid" ] && kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
suffix="o=example"
admin="cn=Manager,$suffix"
password="demo-secret"
mkdir -p "$work/db"
cat > "$work/slapd.conf" <<CONF
include /etc/ldap/schema/core.schema
include /etc/ldap/schema/cosine.schema
include /etc/ldap/schema/inetorgperson.schema
include $here/schema/zel.schema
pidfile $work/slapd.pid
modulepath /usr/lib/ldap
moduleload back_mdb
database mdb
suffix "$suffix"
rootdn "$admin"
rootpw $password
directory $work/db
maxsize 33554432
CONF

echo "== starting a private directory on 127.0.0.1:$port"
slapd -f "$work/slapd.conf" -h "ldap://127.0.0.1:$port/" -d 0 >"$work/slapd.log" 2>&1 &
pid=$!
for _ in $(seq 200); do
  ldapsearch -x -H "ldap://127.0.0.1:$port" -b "" -s base >/dev/null 2>&1 && break
  kill -0 "$pid" 2>/dev/null || { cat "$work/slapd.log" >&2; exit 1; }
  sleep 0.05
done

LDAPNOINIT=1 ldapadd -x -H "ldap://127.0.0.1:$port" -D "$admin" -w "$password" >/dev/null <<LDIF
dn: $suffix
objectClass: organization
o: example

dn: secAuthority=Default,$suffix
objectClass: secAuthorityInfo
secAuthority: Default
version: 6
LDIF

pwfile="$work/password"
printf '%s\n' "$password" > "$pwfile"
z() { echo "\$ zelctl $*"; "$zelctl" -H "ldap://127.0.0.1:$port" -D "$admin" -y "$pwfile" "$@"; }

echo "== what the library learns at open"
z info
echo "== the same, for scripts"
z --json info
echo "== an unreachable server"
"$zelctl" -H "ldap://127.0.0.1:1" -D "$admin" -y "$pwfile" info || echo "(exit status $?)"
echo "== done; the private directory is stopped"
