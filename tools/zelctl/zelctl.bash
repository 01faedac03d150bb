# bash completion for zelctl.
# Commands and options always; service, domain and user names from the
# directory when the line already names a server (-H), a bind DN (-D) and a
# password file (-y).  A password is never read from the line for this.

_zelctl_query() {
    # The arguments: the command whose --json output lists the names (e.g. service list).
    local -a conn=()
    local i w uri="" dn="" pwfile="" api=""
    for ((i = 1; i < COMP_CWORD; i++)); do
        w=${COMP_WORDS[i]}
        case $w in
            -H) uri=${COMP_WORDS[i + 1]} ;;
            -D) dn=${COMP_WORDS[i + 1]} ;;
            -y) pwfile=${COMP_WORDS[i + 1]} ;;
            --api-version) api=${COMP_WORDS[i + 1]} ;;
        esac
    done
    [[ -n $dn && -n $pwfile && -r $pwfile ]] || return
    conn=(-D "$dn" -y "$pwfile")
    [[ -n $uri ]] && conn+=(-H "$uri")
    [[ -n $api ]] && conn+=(--api-version "$api")
    timeout 3 "${COMP_WORDS[0]}" "${conn[@]}" --json "$@" 2>/dev/null |
        grep -o '"name":"[^"]*"' | sed 's/^"name":"//; s/"$//'
}

_zelctl() {
    local cur prev
    cur=${COMP_WORDS[COMP_CWORD]}
    prev=${COMP_WORDS[COMP_CWORD - 1]}
    local commands="info service service-type user record credential domain db person key audit doctor export import help"
    local global_opts="-H -D -w -W -y -x --ca --domain --api-version --timeout --network-timeout --json --dry-run --help --version"

    case $prev in
        -y|--ca|--password-file|--admin-password-file|-o)
            COMPREPLY=($(compgen -f -- "$cur")); return ;;
        -H) COMPREPLY=($(compgen -W "ldap:// ldaps://" -- "$cur")); return ;;
        --passwords) COMPREPLY=($(compgen -W "omit sealed" -- "$cur")); return ;;
        -D|-w|--domain|--api-version|--timeout|--network-timeout|--description|--account|--cn|--sn|--uid|--admin|--admin-uid|--id)
            return ;;
        --type)
            COMPREPLY=()
            local IFS=$'\n'
            COMPREPLY=($(compgen -W $'Senior Admin\nMiddle Tier Server\nUser\nXR User\nWeb Resource' -- "$cur"))
            return ;;
        --service|--member)
            local IFS=$'\n'
            COMPREPLY=($(compgen -W "$(_zelctl_query service list)" -- "$cur")); return ;;
    esac

    # Find the command and its subcommand, skipping global options and their values.
    local i w cmd="" sub="" nargs=0
    for ((i = 1; i < COMP_CWORD; i++)); do
        w=${COMP_WORDS[i]}
        case $w in
            -H|-D|-w|-y|--ca|--domain|--api-version|--timeout|--network-timeout) ((i++)) ;;
            -*) ;;
            *) if [[ -z $cmd ]]; then cmd=$w
               elif [[ -z $sub ]]; then sub=$w
               else ((nargs++)); fi ;;
        esac
    done

    if [[ -z $cmd ]]; then
        if [[ $cur == -* ]]; then COMPREPLY=($(compgen -W "$global_opts" -- "$cur"))
        else COMPREPLY=($(compgen -W "$commands" -- "$cur")); fi
        return
    fi
    if [[ -z $sub ]]; then
        local subs=""
        case $cmd in
            service) subs="list get add remove" ;;
            service-type) subs="add remove" ;;
            user) subs="list add update verify remove regroup" ;;
            record) subs="list get add update remove rekey import-csv" ;;
            export) subs="--passwords -o --quiet --json" ;;
            import) COMPREPLY=($(compgen -f -- "$cur")); return ;;
            key) subs="generate" ;;
            audit) subs="verify head" ;;
            credential) subs="get explain" ;;
            domain) subs="list get add update remove add-member remove-member" ;;
            db) subs="create remove" ;;
            person) subs="add" ;;
            help) subs=$commands ;;
        esac
        COMPREPLY=($(compgen -W "$subs" -- "$cur"))
        return
    fi

    local opts=""
    case "$cmd $sub" in
        "service add") opts="--type --description --id --dry-run" ;;
        "service remove"|"service-type remove"|"user remove"|"user regroup"|"domain remove"|"record remove") opts="--dry-run" ;;
        "domain add-member"|"domain remove-member") opts="--dry-run" ;;
        "service-type add") opts="--id --dry-run" ;;
        "user add") opts="--type --person --description --disabled --dry-run" ;;
        "user update") opts="--person --description --enabled --disabled --dry-run" ;;
        "record get"|"record list"|"credential get") opts="--reveal" ;;
        "credential explain") opts="--json" ;;
        "record add"|"record update") opts="--service --type --account --description --password-file --password-stdin --dry-run" ;;
        "record rekey") opts="--all --quiet --dry-run" ;;
        "record import-csv") opts="--dry-run --quiet" ;;
        import\ *) opts="--dry-run --quiet" ;;
        "key generate") opts="--add --dry-run" ;;
        "audit verify") opts="--expect" ;;
        "domain add"|"domain update") opts="--description --member --dry-run" ;;
        "db create") opts="--admin --admin-uid --admin-password-file --create-suffix --default-types --extended --dry-run" ;;
        "db remove") opts="--yes --quiet --dry-run" ;;
        "person add") opts="--cn --sn --uid --description --password-file --type --dry-run" ;;
    esac
    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$opts --json" -- "$cur"))
        return
    fi
    local IFS=$'\n'
    case "$cmd $sub" in
        "user update"|"user remove")
            COMPREPLY=($(compgen -W "$(_zelctl_query user list)" -- "$cur")) ;;
        "record list"|"record get"|"record add"|"record update"|"record remove"|"record rekey")
            ((nargs == 0)) && COMPREPLY=($(compgen -W "$(_zelctl_query user list)" -- "$cur")) ;;
        "service get"|"service remove")
            COMPREPLY=($(compgen -W "$(_zelctl_query service list)" -- "$cur")) ;;
        "domain get"|"domain update"|"domain remove"|"domain add-member"|"domain remove-member")
            if ((nargs == 0)); then COMPREPLY=($(compgen -W "$(_zelctl_query domain list)" -- "$cur"))
            else COMPREPLY=($(compgen -W "$(_zelctl_query service list)" -- "$cur")); fi ;;
        "credential get"|"credential explain")
            if ((nargs == 0)); then COMPREPLY=($(compgen -W "$(_zelctl_query user list)" -- "$cur"))
            else COMPREPLY=($(compgen -W "$(_zelctl_query service list)" -- "$cur")); fi ;;
    esac
}
complete -F _zelctl zelctl
