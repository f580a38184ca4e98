# Completion of shmnmctl for bash: commands, options, and what lives in the region at the moment.

_shmnmctl_keys() {
    shmnmctl --lock-timeout 200 list 2>/dev/null | cut -d ' ' -f 1
}

# _shmnmctl_names servers | hb | np [TYPE]: names, or the types of resources
_shmnmctl_names() {
    if [ "$1" = servers ]; then
        _shmnmctl_keys | sed -n 's,^servers/\([^/]*\)/pri$,\1,p'
    elif [ $# -eq 1 ]; then
        _shmnmctl_keys | sed -n "s,^$1/\([^/]*\)/[^/]*/pri\$,\1,p" | sort -u
    else
        _shmnmctl_keys | sed -n "s,^$1/$2/\([^/]*\)/pri\$,\1,p"
    fi
}

_shmnmctl() {
    local current=${COMP_WORDS[COMP_CWORD]} command=() word i
    COMPREPLY=()
    # The words so far without the options.
    for ((i = 1; i < COMP_CWORD; ++i)); do
        word=${COMP_WORDS[i]}
        case $word in
            --lock-timeout | --format | --file | -f | --timeout | --interval | --config) ((++i)) ;;
            -*) ;;
            *) command+=("$word") ;;
        esac
    done
    local choices="" before=${COMP_WORDS[COMP_CWORD - 1]}
    case $before in
        --format)
            COMPREPLY=($(compgen -W "text json" -- "$current"))
            return
            ;;
        --file | -f | --config)
            COMPREPLY=($(compgen -f -- "$current"))
            return
            ;;
    esac
    if [[ $current == -* ]]; then
        choices=$(shmnmctl "${command[@]:0:2}" --help 2>/dev/null || shmnmctl "${command[@]:0:1}" --help 2>/dev/null)
        COMPREPLY=($(compgen -W "$(grep -oE -- '(^|[ ,])--?[a-z][a-z-]*' <<<"$choices" | tr -d ' ,')" -- "$current"))
        return
    fi
    case "${command[*]}" in
        "") choices="status list get set add remove modify describe simulate clear query wait watch verify repair dump export diff apply holders lock serve" ;;
        add) choices="server hb np fst" ;;
        remove | modify) choices="server hb np" ;;
        describe) choices="hb np fst" ;;
        simulate) choices="on off" ;;
        "remove server" | "modify server" | "simulate on"*) choices=$(_shmnmctl_names servers) ;;
        "remove hb" | "modify hb" | "describe hb" | "remove np" | "modify np" | "describe np") choices=$(_shmnmctl_names "${command[1]}") ;;
        "remove hb "* | "modify hb "* | "describe hb "* | "remove np "* | "modify np "* | "describe np "*)
            [ ${#command[@]} -eq 3 ] && choices=$(_shmnmctl_names "${command[1]}" "${command[2]}")
            ;;
        get | set | list | watch | query | wait) choices=$(_shmnmctl_keys) ;;
        set*) [ $((${#command[@]} % 2)) -eq 1 ] && choices=$(_shmnmctl_keys) ;;
        status | verify | dump | diff* | apply)
            COMPREPLY=($(compgen -f -- "$current"))
            return
            ;;
    esac
    COMPREPLY=($(compgen -W "$choices" -- "$current"))
}

complete -F _shmnmctl shmnmctl
