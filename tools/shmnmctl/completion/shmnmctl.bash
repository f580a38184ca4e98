# Completion of shmnmctl for bash: the command itself says what may follow.

_shmnmctl() {
    local rest=${COMP_LINE:0:COMP_POINT} words=() word i
    # Bash also breaks words at = and other characters; the command wants them as they would be passed to it.
    for ((i = 0; i <= COMP_CWORD; ++i)); do
        word=${COMP_WORDS[i]}
        if ((i > 0)) && [[ $rest != [[:blank:]]* ]]; then
            ((i < COMP_CWORD)) || word=$rest
            words[-1]+=$word
        else
            rest=${rest#"${rest%%[![:blank:]]*}"}
            ((i < COMP_CWORD)) || word=$rest
            words+=("$word")
        fi
        rest=${rest#"$word"}
    done
    words=("${words[@]//[\'\"\\]/}")
    local last=${words[-1]} current=${word//[\'\"\\]/} line choice
    [[ $current == [=:\<\>] ]] && current=""
    [[ ${last%"$current"} == *@ ]] && current=@$current
    COMPREPLY=()
    while IFS= read -r line; do
        choice=${line%%$'\t'*}
        case $line in
            $'\t'files)
                compopt -o filenames
                mapfile -t COMPREPLY < <(compgen -f -- "$current")
                ;;
            $'\t'commands) mapfile -t COMPREPLY < <(compgen -c -- "$current") ;;
            # Bash replaces the part of the word after its last break.
            *) COMPREPLY+=("${choice#"${last%"$current"}"}") ;;
        esac
    done < <("${words[0]}" __complete "${words[@]:1:${#words[@]}-2}" "=$last" 2>/dev/null)
    [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == *[/=] ]] && compopt -o nospace
    return 0
}

complete -F _shmnmctl shmnmctl
