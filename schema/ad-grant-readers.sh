#!/bin/bash
# ad-grant-readers.sh: let one Active Directory security group (the sign-on
# agents) read a Zel entry and everything below it, and nobody else through it.
#
#   ad-grant-readers.sh [-H URI] -D BINDDN -y PWFILE GROUP_DN ENTRY_DN...
#
# Adds to each ENTRY_DN's DACL one explicit, inheritable ACE
# (SDDL "(A;CI;RPLCLORC;;;<the group's SID>)": read property, list contents,
# list object, read control) and keeps every explicit ACE already there; the
# inherited ones the directory computes again.  Only the DACL is written (the
# LDAP_SERVER_SD_FLAGS control with DACL_SECURITY_INFORMATION), so owner,
# group and audit settings stay.  An entry that already holds the ACE is
# left alone.  Needs ldapsearch and ldapmodify (ldap-utils), base64 and od.
# The password is read from PWFILE, never from the command line; for LDAPS
# name the CA in LDAPTLS_CACERT.
#
# ENTRY_DN: the security domain entry (secAuthority=<name>,<domain>); for the
# first storage form also the Zel database entry (systemName=ORVZEL,<suffix>)
# and the containers of the people with a Zel profile (their profiles and
# records sit below them), which lets the group read those people's ordinary
# attributes too.
set -euo pipefail

usage() {
    echo "usage: ${0##*/} [-H URI] -D BINDDN -y PWFILE GROUP_DN ENTRY_DN..." >&2
    exit 2
}

uri=() bind_dn="" pw_file=""
while getopts "H:D:y:" opt; do
    case $opt in
        H) uri=(-H "$OPTARG") ;;
        D) bind_dn=$OPTARG ;;
        y) pw_file=$OPTARG ;;
        *) usage ;;
    esac
done
shift $((OPTIND - 1))
if [ -z "$bind_dn" ] || [ -z "$pw_file" ] || [ $# -lt 2 ]; then usage; fi
group_dn=$1
shift

# LDAP_SERVER_SD_FLAGS with DACL_SECURITY_INFORMATION (4): its BER value is
# SEQUENCE { INTEGER 4 }.  A search takes it with -E; a modify in its LDIF.
sd_flags_oid=1.2.840.113556.1.4.801 sd_flags_value=MAMCAQQ=
tool_args=(-x "${uri[@]}" -D "$bind_dn" -y "$pw_file")

# The base64 value of one binary attribute of one entry.
read_binary() {  # DN ATTRIBUTE [ldapsearch options...]
    local dn=$1 attr=$2 out
    shift 2
    out=$(ldapsearch "${tool_args[@]}" -LLL -o ldif-wrap=no "$@" -s base -b "$dn" "(objectClass=*)" "$attr") || return 1
    printf '%s\n' "$out" | sed -n "s/^$attr:: //Ip" | head -n 1
}

bytes_of() { printf '%s' "$1" | base64 -d | od -An -v -tu1; }
le16() { echo $(($1 + 256 * $2)); }
hex_le16() { printf '\\x%02x\\x%02x' $(($1 & 255)) $(($1 >> 8 & 255)); }
hex_bytes() { local b; for b in "$@"; do printf '\\x%02x' "$b"; done; }

# Only a security group's members get rights from an ACE naming it: a
# distribution group has a SID too, and its members would read nothing.
# groupType's security bit is 0x80000000 (the value reads as negative).
group_type=$(ldapsearch "${tool_args[@]}" -LLL -o ldif-wrap=no -s base -b "$group_dn" "(objectClass=group)" groupType \
    | sed -n 's/^groupType: //Ip' | head -n 1) || group_type=""
case $group_type in
    '' | *[!0-9-]*) echo "${0##*/}: $group_dn: not a group, or not readable" >&2; exit 1 ;;
esac
if (((group_type & 0x80000000) == 0)); then
    echo "${0##*/}: $group_dn: a distribution group, not a security group: its members would read nothing" >&2
    exit 1
fi
sid_b64=$(read_binary "$group_dn" objectSid)
[ -n "$sid_b64" ] || { echo "${0##*/}: $group_dn: no objectSid (not a security group, or not readable)" >&2; exit 1; }
read -r -a sid <<< "$(bytes_of "$sid_b64" | tr '\n' ' ')"
# ACCESS_ALLOWED, CONTAINER_INHERIT, mask RP|LC|LO|RC = 0x00020094, the SID.
ace=(0 2 $(((8 + ${#sid[@]}) & 255)) $(((8 + ${#sid[@]}) >> 8)) 148 0 2 0 "${sid[@]}")

status=0
for entry in "$@"; do
    sd_b64=$(read_binary "$entry" nTSecurityDescriptor -E "!$sd_flags_oid=::$sd_flags_value") || sd_b64=""
    [ -n "$sd_b64" ] || { echo "${0##*/}: $entry: its security descriptor is not readable" >&2; status=1; continue; }
    read -r -a sd <<< "$(bytes_of "$sd_b64" | tr '\n' ' ')"
    control=$(le16 "${sd[2]}" "${sd[3]}")
    dacl=$((sd[16] + 256 * sd[17] + 65536 * sd[18] + 16777216 * sd[19]))
    revision=2 kept=() count=0 present=0
    if [ "$dacl" -ne 0 ]; then
        revision=${sd[dacl]}
        n=$(le16 "${sd[dacl + 4]}" "${sd[dacl + 5]}")
        at=$((dacl + 8))
        for ((i = 0; i < n; i++)); do
            size=$(le16 "${sd[at + 2]}" "${sd[at + 3]}")
            one=("${sd[@]:at:size}")
            if (((one[1] & 16) == 0)); then  # explicit; inherited ones are computed anew
                kept+=("${one[@]}")
                count=$((count + 1))
                [ "${one[*]}" = "${ace[*]}" ] && present=1
            fi
            at=$((at + size))
        done
    fi
    if [ "$present" -eq 1 ]; then
        echo "$entry: already granted"
        continue
    fi
    kept+=("${ace[@]}")
    count=$((count + 1))
    acl_size=$((8 + ${#kept[@]}))
    # Self-relative, DACL present; the DACL's inheritance flags stay as they were.
    new_control=$(((control & 0x1500) | 0x8004))
    value=$(printf '%b' "\\x01\\x00$(hex_le16 $new_control)$(hex_bytes 0 0 0 0 0 0 0 0 0 0 0 0 20 0 0 0)$(hex_bytes "$revision" 0)$(hex_le16 $acl_size)$(hex_le16 $count)\\x00\\x00$(hex_bytes "${kept[@]}")" | base64 -w0)
    if printf 'dn: %s\ncontrol: %s true:: %s\nchangetype: modify\nreplace: nTSecurityDescriptor\nnTSecurityDescriptor:: %s\n' \
        "$entry" "$sd_flags_oid" "$sd_flags_value" "$value" | ldapmodify "${tool_args[@]}" > /dev/null; then
        echo "$entry: granted to $group_dn"
    else
        echo "${0##*/}: $entry: the directory refused the new DACL" >&2
        status=1
    fi
done
exit $status
