# schema-read.awk -- reads zel.schema (slapd.conf form) for the writers
# to-389.awk and to-ad.awk, given after them:
#
#   awk -f to-389.awk -f schema-read.awk zel.schema
#
# Object identifier macros go to macro[]; each attribute type or object
# class is handed to the writer's flush() once read whole, with `kind`
# "attribute" or "class" and `def` its definition on one line.

/^[ \t]*#/ || /^[ \t]*$/ { flush(); next }

tolower($1) == "objectidentifier" { flush(); macro[$2] = $3; next }

tolower($1) == "attributetype" || tolower($1) == "objectclass" {
    flush()
    kind = tolower($1) == "attributetype" ? "attribute" : "class"
    $1 = ""
    def = $0
    sub(/^[ \t]+/, "", def)
    next
}

/^[ \t]/ { def = def " " $0; next }

{ flush() }
