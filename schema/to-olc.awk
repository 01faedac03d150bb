# to-olc.awk -- writes zel-access.conf (slapd.conf form) as an LDIF change
# that puts the same rules, in the same order, in front of a cn=config
# database's own olcAccess values.
#
#   awk -f to-olc.awk zel-access.conf > zel-access.ldif

BEGIN {
    print "# zel-access.ldif -- who may read and write the Zel data on OpenLDAP,"
    print "# as olcAccess values for cn=config.  Generated from zel-access.conf by"
    print "# to-olc.awk; do not edit.  The roles and groups are described there."
    print "#"
    print "# Fill in the database entry and its suffix, then apply it as a user who"
    print "# may write cn=config (typically root over ldapi):"
    print "#   sed -e 's/@DATABASE@/olcDatabase={1}mdb,cn=config/' \\"
    print "#       -e 's/@SUFFIX@/dc=example,dc=com/g' zel-access.ldif > /tmp/zel-access.ldif"
    print "#   ldapmodify -Y EXTERNAL -H ldapi:/// -f /tmp/zel-access.ldif"
    print "# The numbered values go before the database's own, which keep their order."
    print "dn: @DATABASE@"
    print "changetype: modify"
    print "add: olcAccess"
    n = 0
}

/^[ \t]*#/ || /^[ \t]*$/ { next }

/^access to / {
    sub(/^access /, "")
    printf "olcAccess: {%d}%s\n", n++, $0
    next
}

/^[ \t]+by / {
    sub(/^[ \t]+/, "")
    print "  " $0
    next
}

{ print "to-olc.awk: unexpected line " NR ": " $0 > "/dev/stderr"; exit 1 }
