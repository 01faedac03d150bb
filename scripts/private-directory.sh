# Sourced by the demo and the console: a throw-away slapd on a free loopback
# port with the Zel schema, a suffix and a security domain with its users'
# container, stopped and removed again when the sourcing script exits.
# Sets: here work port uri suffix admin password pwfile; defines ldap().
# With ZEL_ACCESS_RULES=1 the shipped access rules guard the Zel data, followed
# by a site's usual rules (binds by password, everything else for those signed on).
here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
work=$(mktemp -d "/tmp/${ZEL_WORK_PREFIX:-zeldemo}-XXXXXX")
pid=""
cleanup() {
  [ -n "$pid" ] && kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
uri="ldap://127.0.0.1:$port"
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
include $here/schema/zel-indexes.conf
CONF
if [ "${ZEL_ACCESS_RULES:-}" = 1 ]; then
  sed "s/@SUFFIX@/$suffix/g" "$here/schema/zel-access.conf" > "$work/zel-access.conf"
  cat >> "$work/slapd.conf" <<CONF
include $work/zel-access.conf
access to attrs=userPassword by self write by anonymous auth by * none
access to * by users read by * none
CONF
fi

echo "== starting a private directory on 127.0.0.1:$port"
slapd -f "$work/slapd.conf" -h "$uri/" -d 0 >"$work/slapd.log" 2>&1 &
pid=$!
for _ in $(seq 200); do
  ldapsearch -x -H "$uri" -b "" -s base >/dev/null 2>&1 && break
  kill -0 "$pid" 2>/dev/null || { cat "$work/slapd.log" >&2; exit 1; }
  sleep 0.05
done

# The password goes to the tools in a file (no newline: ldapadd -y reads it
# whole), never on a command line.
pwfile="$work/password"
( umask 077; printf '%s' "$password" > "$pwfile" )
ldap() { LDAPNOINIT=1 "$@" -x -H "$uri" -D "$admin" -y "$pwfile"; }

# Only the suffix and the security domain with its users' container: the
# domain belongs to the access-control product, not to the Zel library.
# Everything of the Zel database is written through zelctl.
ldap ldapadd >/dev/null <<LDIF
dn: $suffix
objectClass: organization
o: example

dn: secAuthority=Default,$suffix
objectClass: secAuthorityInfo
secAuthority: Default
version: 6

dn: cn=Users,secAuthority=Default,$suffix
objectClass: container
cn: Users
LDIF
