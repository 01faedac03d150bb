#!/usr/bin/env bash
# make console: the web console on 127.0.0.1 over a private directory holding
# sample data, until Ctrl-C; the directory goes with it.  The directory runs
# the shipped access rules, user names are placed through a look-up identity,
# and the library writes its audit trail, as a site would run it.
set -euo pipefail
build=${1:-build}
root=$(cd "$(dirname "$0")/.." && pwd)
zelctl="$root/$build/tools/zelctl/zelctl"
library=$(ls "$root/$build"/libzelmgmt.so.1 2>/dev/null || true)
[ -x "$zelctl" ] && [ -n "$library" ] || { echo "console: build first (make console does)" >&2; exit 1; }

ZEL_WORK_PREFIX=zelconsole
ZEL_ACCESS_RULES=1
# shellcheck source=scripts/private-directory.sh
. "$root/scripts/private-directory.sh"
z() { "$zelctl" -H "$uri" -D "$admin" -y "$pwfile" "$@" >/dev/null; }
secret() { ( umask 077; printf '%s\n' "$2" > "$work/$1" ); echo "$work/$1"; }

echo "== sample data: a Zel database, services, a resource group, a user with two records"
z db create "$suffix" --admin-password-file "$(secret admin-password zel-admin-secret)" --default-types
z person add "$suffix" --cn Jo --sn Example --uid jo --password-file "$(secret jo-password jo-secret)"
z service add intranet --type "Web Resource" --description "Intranet"
z service add mail --type "Web Resource" --description "Mail"
z service add payroll --type "Web Resource" --description "Payroll portal"
z domain add Sales --description "The sales team's resources" --member intranet --member mail
z service add Sales --type "Resource Group" --description "The sales team's resources"
z user add jo --person "cn=Jo,$suffix" --description "Demo user"
z record add jo T:intranet --service intranet --account jo.direct --password-file "$(secret r1 intranet-secret)"
z record add jo G:Sales --service Sales --account sales-team --password-file "$(secret r2 team-secret)"

echo "== a look-up identity that finds a user name's entry, and nothing more"
lookup="cn=console-lookup,$suffix"
lookup_pw=$(secret lookup-password lookup-secret)
ldap ldapadd >/dev/null <<LDIF
dn: $lookup
objectClass: person
cn: console-lookup
sn: lookup
userPassword: lookup-secret
LDIF

echo "== sign in as $admin (its password is in $pwfile),"
echo "   or as the user name jo (password in $work/jo-password); the audit trail is $work/audit.jsonl"
echo "   Ctrl-C stops console and directory"
ZEL_AUDIT="$work/audit.jsonl" ZELMGMT_LIBRARY="$library" PYTHONPATH="$root/python" \
  /usr/bin/python3 -m zelmgmt.console --uri "$uri" --port "${CONSOLE_PORT:-8080}" \
    --lookup-dn "$lookup" --lookup-password-file "$lookup_pw" --zelctl "$zelctl" || true
