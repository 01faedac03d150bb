# to-ad.awk -- writes zel.schema (slapd.conf form) as an Active Directory
# schema extension: attributeSchema and classSchema entries for ldapmodify.
#
#   awk -f to-ad.awk -f schema-read.awk zel-indexes.conf zel.schema > zel-ad.ldif
#
# The entries live under CN=Schema,CN=Configuration,DC=X: replace DC=X by the
# forest root domain's DN before loading.  Names the directory already
# defines (cn, description, member, owner, uid, associatedName,
# altSecurityIdentities and the class container) are reused, not redefined;
# the directory's container class is allowed below the classes whose entries
# hold containers.  Attributes indexed in zel-indexes.conf are indexed here
# too.  A schema cache refresh (schemaUpdateNow) follows the attributes, the
# classes and the change to container.

BEGIN {
    base = "CN=Schema,CN=Configuration,DC=X"
    reused["altsecurityidentities"] = 1
    reused["container"] = 1
    # Where each structural class's entries are written.
    top_level = "domainDNS organizationalUnit organization container"
    parents["eApplicationSystem"] = top_level
    parents["secAuthorityInfo"] = top_level
    parents["krbRealm"] = top_level
    parents["eZelUser"] = "person"
    parents["eTargetRecord"] = "eZelUser"
    parents["eTargetServiceType"] = "container"
    parents["eTargetService"] = "eTargetServiceType"
    parents["eZelDomain"] = "container"
    parents["accessGroup"] = "container"
    parents["secUser"] = "container"
    parents["secResource"] = "container"
    parents["secResGroup"] = "container"
    parents["secResCreds"] = "container"   # below the user's cn=ResCreds
    # The directory's containers also sit below these.
    container_parents = "eApplicationSystem secAuthorityInfo secUser"

    syntax["1.3.6.1.4.1.1466.115.121.1.15"] = "2.5.5.12 64"
    syntax["1.3.6.1.4.1.1466.115.121.1.40"] = "2.5.5.10 4"
    syntax["1.3.6.1.4.1.1466.115.121.1.27"] = "2.5.5.9 2"
    syntax["1.3.6.1.4.1.1466.115.121.1.12"] = "2.5.5.1 127"
    category["STRUCTURAL"] = 1
    category["ABSTRACT"] = 2
    category["AUXILIARY"] = 3

    print "# zel-ad.ldif -- directory schema of zelmgmt for Active Directory."
    print "# Generated from zel.schema by to-ad.awk; do not edit."
    print "# Replace DC=X by the forest root domain's DN, then load it as a schema"
    print "# administrator, e.g.:"
    print "#   sed 's/DC=X$/DC=example,DC=com/' zel-ad.ldif |"
    print "#     ldapmodify -H ldaps://dc.example.com -D ADMIN-DN -y PASSWORD-FILE"
    print ""
}

# zel-indexes.conf: "index a,b,c eq"
FNR == NR {
    if ($1 == "index") {
        n = split($2, names, ",")
        for (i = 1; i <= n; i++) indexed[tolower(names[i])] = 1
    }
    next
}

function update_now() {
    print "dn:"
    print "changetype: modify"
    print "add: schemaUpdateNow"
    print "schemaUpdateNow: 1"
    print "-"
    print ""
}

# Words of a definition after keyword, up to the next keyword: one name, or
# the names of a ( a $ b ) list.
function list_after(text, keyword,   rest, out) {
    if (!match(text, " " keyword " ")) return ""
    rest = substr(text, RSTART + RLENGTH)
    if (substr(rest, 1, 1) == "(") {
        rest = substr(rest, 2)
        sub(/\).*$/, "", rest)
        gsub(/\$/, " ", rest)
    } else {
        sub(/ .*$/, "", rest)
    }
    gsub(/^ +| +$/, "", rest)
    gsub(/ +/, " ", rest)
    return rest
}

function values(attr, list,   n, i, w) {
    n = split(list, w, " ")
    for (i = 1; i <= n; i++) print attr ": " w[i]
}

function header(name, oid_attr, oid, desc, schema_class) {
    print "dn: CN=" name "," base
    print "changetype: add"
    print "objectClass: top"
    print "objectClass: " schema_class
    print "cn: " name
    print "lDAPDisplayName: " name
    print oid_attr ": " oid
    if (desc != "") print "adminDescription: " desc
}

function flush(   text, oid, name, desc, s, kind_word, must) {
    if (def == "") return
    text = def
    def = ""
    for (m in macro) gsub(m ":", macro[m] ".", text)
    gsub(/[ \t]+/, " ", text)
    desc = ""
    if (match(text, / DESC '[^']*'/)) {
        desc = substr(text, RSTART + 7, RLENGTH - 8)
        text = substr(text, 1, RSTART - 1) substr(text, RSTART + RLENGTH)
    }
    oid = text
    sub(/^\( */, "", oid)
    sub(/ .*$/, "", oid)
    name = text
    sub(/^.*NAME '/, "", name)
    sub(/'.*$/, "", name)
    if (tolower(name) in reused) return

    if (kind == "attribute") {
        s = list_after(text, "SYNTAX")
        if (!(s in syntax)) { print "to-ad.awk: no AD syntax for " name > "/dev/stderr"; failed = 1; exit 1 }
        split(syntax[s], ad, " ")
        header(name, "attributeID", oid, desc, "attributeSchema")
        print "attributeSyntax: " ad[1]
        print "oMSyntax: " ad[2]
        if (ad[2] == 127) print "oMObjectClass:: KwwCh3McAIVK"
        print "isSingleValued: " (text ~ / SINGLE-VALUE/ ? "TRUE" : "FALSE")
        if (tolower(name) in indexed) print "searchFlags: 1"
        print ""
        return
    }
    if (!attributes_done) { update_now(); attributes_done = 1 }
    kind_word = text ~ / ABSTRACT/ ? "ABSTRACT" : text ~ / AUXILIARY/ ? "AUXILIARY" : "STRUCTURAL"
    header(name, "governsID", oid, desc, "classSchema")
    print "subClassOf: " list_after(text, "SUP")
    print "objectClassCategory: " category[kind_word]
    must = list_after(text, "MUST")
    if (kind_word == "STRUCTURAL") {
        split(must, first, " ")
        print "rDNAttID: " first[1]
        if (!(name in parents)) { print "to-ad.awk: no parent classes for " name > "/dev/stderr"; failed = 1; exit 1 }
        values("possSuperiors", parents[name])
    }
    values("mustContain", must)
    values("mayContain", list_after(text, "MAY"))
    print ""
}

END {
    if (failed) exit 1
    flush()
    update_now()
    print "dn: CN=Container," base
    print "changetype: modify"
    print "add: possSuperiors"
    values("possSuperiors", container_parents)
    print "-"
    print ""
    update_now()
}
