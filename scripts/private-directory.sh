# Sourced by the demo and the console: a throw-away slapd on a free loopback
# port with the Zel schema, a suffix and a security domain with its users'
# container, stopped and removed again when the sourcing script exits.
# Sets: here work port uri suffix admin password pwfile; defines ldap().
# The server itself comes from scripts/slapd.sh.
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

suffix="o=example"
admin="cn=Manager,$suffix"
password="demo-secret"
# The password goes to slapd and the tools in a file (no newline: ldapadd -y
# reads it whole), never on a command line.
pwfile="$work/admin.pw"
( umask 077; printf '%s' "$password" > "$pwfile" )
# shellcheck source=scripts/slapd.sh
. "$here/scripts/slapd.sh"
echo "== starting a private directory on 127.0.0.1"
zel_slapd_start "$work" "$suffix" "$admin" || exit 1
pid=$zel_pid port=$zel_port uri=$zel_uri
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
