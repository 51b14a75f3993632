# Completion of osalctl for bash: source this file, or put it into the folder of completions as
# "osalctl". Keys of the registry are completed name by name, with slashes.

_osalctl_keys() {
    local typed=$1 parent=
    [[ $typed == */* ]] && parent=${typed%/*}
    "${COMP_WORDS[0]}" registry ls ${parent:+"$parent"} 2>/dev/null |
        sed -n "s|^\(.*\)\\\\\$|${parent:+$parent/}\1|p"
}

_osalctl() {
    local word=${COMP_WORDS[COMP_CWORD]} command=${COMP_WORDS[1]} action=${COMP_WORDS[2]} choices=
    local IFS=$'\n'
    if [[ ${COMP_WORDS[COMP_CWORD - 1]} == @(-t|--type) ]]; then
        choices=$'binary\nuint32\nuint64\nstring\nstrings'
    elif [[ $word == -* ]]; then
        choices=$'--help\n--json\n--recursive\n--type\n--key'
    elif ((COMP_CWORD == 1)); then
        choices=$'registry\nstatus\ncodepages\nlimits'
    elif [[ $command == registry ]] && ((COMP_CWORD == 2)); then
        choices=$'ls\nget\nset\ndelete\nexport\nimport'
    elif [[ $command == registry && $action == import ]]; then
        COMPREPLY=($(compgen -f -- "$word"))
        return
    elif [[ $command == registry ]] && ((COMP_CWORD == 3)); then
        choices=$(_osalctl_keys "$word")
    fi
    COMPREPLY=($(compgen -W "$choices" -- "$word"))
}

complete -F _osalctl osalctl
