# Completion of shmnmctl for fish: the command itself says what may follow.

function __shmnmctl_complete
    set -l words (commandline -opc)
    set -l last (commandline -ct | string replace -ra '[\'"\\\\]' '')
    set -l lines ($words[1] __complete $words[2..-1] "=$last" 2>/dev/null)
    switch "$lines[1]"
        case \tfiles
            __fish_complete_path "$last"
        case \tcommands
            complete -C "$last"
        case '*'
            string join \n -- $lines
    end
end

complete -c shmnmctl -f -a '(__shmnmctl_complete)'
