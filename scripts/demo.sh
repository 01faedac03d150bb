#!/usr/bin/env bash
# The main job against a private directory: start a throw-away slapd on a free
# loopback port, load the Zel schema, seed a suffix and a security domain,
# run zelctl against it, and stop it again whatever happens.
set -euo pipefail
build=${1:-build}
here=$(cd "$(dirname "$0")/.." && pwd)
zelctl="$here/$build/tools/zelctl/zelctl"
[ -x "$zelctl" ] || { echo "demo: build first (make demo does)" >&2; exit 1; }

# Who may read the Zel data: the shipped rules, before the site's own.
ZEL_ACCESS_RULES=1
# shellcheck source=scripts/private-directory.sh
. "$here/scripts/private-directory.sh"
dns() { ldap ldapsearch -LLL -o ldif-wrap=no -b "$suffix" dn | sed -n 's/^dn: //p' | sort; }
z() { printf '$ zelctl'; printf ' %q' "$@"; echo; "$zelctl" -H "ldap://127.0.0.1:$port" -D "$admin" -y "$pwfile" "$@"; }

echo "== the directory before: the suffix and the security domain"
dns | tee "$work/before"
echo "== a Zel database for the suffix, its first administrator and the default types"
adminpw="$work/admin-password"
( umask 077; printf '%s\n' "zel-admin-secret" > "$adminpw" )
z db create "$suffix" --admin-password-file "$adminpw" --default-types
echo "== a person for the demo user"
z person add "$suffix" --cn Jo --sn Example --uid jo
echo "== a sign-on agent: a person in the Middle Tier Servers group, by its first-generation profile"
agentpw="$work/agent-password"
( umask 077; printf '%s' "agent-secret" > "$agentpw" )
z --api-version 1 person add "$suffix" --cn Agent --sn Agent --uid agent --password-file "$agentpw" \
  --type "Middle Tier Server"
echo "== what the library learns at open"
z info
echo "== the same, for scripts"
z --json info
echo "== a service type and a service in the first-generation form"
z --api-version 1 service-type add "Web Application" --id url
z --api-version 1 service add payroll --type "Web Application" --description "Payroll portal" \
  --id url=https://payroll.example.com
z --api-version 1 --json service get payroll
echo "== a web resource in the security domain, then every service"
z service add intranet --type "Web Resource" --description "Intranet"
z service list
# --- resource groups ---
echo "== a resource group of two services, read back, a member removed and added again"
z domain add staff --description "Staff applications" --member payroll --member intranet
z domain get staff
z --json domain list
z domain remove-member staff payroll
z domain add-member staff payroll
z domain list
# --- end of resource groups ---
echo "== a user registered for a person"
z user add jo --person "cn=Jo,$suffix" --description "Demo user"
z user verify "cn=Jo,$suffix"
# ---- target records and the sign-on question --------------------------------
echo "== a Sales resource group, and the services records are kept for"
z service add mail --type "Web Resource" --description "Mail"
z domain add Sales --description "The sales team's resources" --member intranet --member mail
z service add Sales --type "Resource Group" --description "The sales team's resources"
echo "== jo's own account for the intranet, and the team account for the Sales group"
printf 'intranet-secret\n' | z record add jo T:intranet --service intranet --account jo.direct --password-stdin
printf 'team-secret\n' | z record add jo G:Sales --service Sales --account sales-team --password-stdin
z record list jo
echo "== the sign-on question: direct beats group, the group covers the rest"
z credential get jo intranet
z --json credential get jo mail --reveal
z credential get jo payroll || echo "(exit status $?)"
# ---- end of target records ----------------------------------------------------
# ---- who may read the passwords --------------------------------------------------
echo "== an anonymous search for stored passwords finds nothing under the shipped rules"
printf '$ ldapsearch -x -H ldap://127.0.0.1:%s -b %s "(|(secAuthnData=*)(secretKey=*))"\n' "$port" "$suffix"
found=$(ldapsearch -x -LLL -H "ldap://127.0.0.1:$port" -b "$suffix" "(|(secAuthnData=*)(secretKey=*))" dn \
  2>/dev/null | grep -c '^dn:' || true)
echo "entries found: $found (the site's own rules hide even the suffix from anonymous callers)"
echo "== the sign-on agent, bound as itself, gets jo's credential"
printf '$ zelctl -D cn=Agent,%s -y agent-password credential get jo mail --reveal\n' "$suffix"
"$zelctl" -H "ldap://127.0.0.1:$port" -D "cn=Agent,$suffix" -y "$agentpw" credential get jo mail --reveal
echo "== zelctl doctor: what a client of this deployment sees (exit status 3 if anything is dangerous)"
z doctor
# ---- end of who may read the passwords ---------------------------------------------
# ---- passwords encrypted under an operator's key ------------------------------
echo "== a key file; a record written under it reads back, and the directory holds ciphertext"
keys="$work/keys"
printf '$ zelctl key generate %q\n' "$keys"
"$zelctl" key generate "$keys"
printf 'vault-secret\n' | ZEL_KEYFILE="$keys" z record add jo T:mail --service mail --account jo.mail --password-stdin
ZEL_KEYFILE="$keys" z record get jo T:mail --reveal
(umask 077; printf '%s' "$password" > "$work/password.raw")
echo "stored: $(ldapsearch -x -LLL -o ldif-wrap=no -H "ldap://127.0.0.1:$port" -D "$admin" -y "$work/password.raw" \
  -b "$suffix" "(secResCredsID=T:mail)" secAuthnData | sed -n 's/^secAuthnData:: //p' | base64 -d | tr -d '\0')"
echo "== without the key file the value cannot be read"
z record get jo T:mail --reveal || echo "(exit status $?)"
echo "== the masked records of before, rewritten under the key; a second rekey finds nothing to do"
ZEL_KEYFILE="$keys" z record rekey --all
ZEL_KEYFILE="$keys" z record rekey jo
# ---- end of encrypted passwords -----------------------------------------------
echo "== everything exported, passwords sealed under the key; a second import of it changes nothing"
ZEL_KEYFILE="$keys" z export --passwords sealed -o "$work/export.json"
head -c 600 "$work/export.json"; echo " ..."
ZEL_KEYFILE="$keys" z import "$work/export.json" | tail -n 1
echo "== an unreachable server"
"$zelctl" -H "ldap://127.0.0.1:1" -D "$admin" -y "$pwfile" info || echo "(exit status $?)"
echo "== the security domain's Zel data removed again: records, groups, services, the user"
z record remove jo T:intranet
z record remove jo G:Sales
z domain remove Sales
z domain remove staff
for service in intranet mail Sales; do z service remove "$service"; done
z user remove jo
z --api-version 1 user remove agent
echo "== the Zel database removed again"
z db remove --yes
echo "== the directory after, beside the one before: the Zel data is gone; the persons"
echo "   (the demo's, the agent's and the first administrator), the domain's containers and its released user entry stay"
dns > "$work/after"
diff "$work/before" "$work/after" || true
echo "== done; the private directory is stopped"
