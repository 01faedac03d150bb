# to-389.awk -- writes zel.schema (slapd.conf form) as a schema file for a
# 389-style directory server (an LDIF entry cn=schema with attributeTypes and
# objectClasses values, as in the server's 99user.ldif).
#
#   awk -f to-389.awk -f schema-read.awk zel.schema > 99zel.ldif
#
# Object identifier macros are written out in full.  Attribute types the
# server already defines itself (its access-control attribute "aci") are left
# out; the object classes keep naming them.

BEGIN {
    skip["aci"] = 1
    print "# 99zel.ldif -- directory schema of zelmgmt for 389-style servers."
    print "# Generated from zel.schema by to-389.awk; do not edit."
    print "# Copy into the instance's schema folder (e.g."
    print "# /etc/dirsrv/slapd-INSTANCE/schema/) and restart the server."
    print "dn: cn=schema"
}

function flush(   name, text, i) {
    if (def == "") return
    text = def
    for (m in macro) gsub(m ":", macro[m] ".", text)
    gsub(/[ \t]+/, " ", text)
    if (kind == "attribute") {
        name = text
        sub(/^.*NAME '/, "", name)
        sub(/'.*$/, "", name)
        if (tolower(name) in skip) { def = ""; return }
    }
    print (kind == "attribute" ? "attributeTypes" : "objectClasses") ": " text
    def = ""
}

END { flush() }
