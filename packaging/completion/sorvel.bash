# bash completion for sorvel. Commands and options are read from the
# program's own --help, so they follow the installed version.

_sorvel_help_words() {
    # The option names (and, for "shell", the actions) of `sorvel $1 --help`.
    "$2" "$1" --help 2>/dev/null | awk -v cmd="$1" '
        /^[^ ].*:$/ { list = 1; next }
        /^$/ { list = 0 }
        {
            for (i = 1; i <= NF; i++) {
                w = $i; gsub(/[],|[]/, " ", w); n = split(w, parts, " ")
                for (j = 1; j <= n; j++) if (parts[j] ~ /^--?[a-z]/) print parts[j]
            }
            if (cmd == "shell" && list && /^  [a-z]/) print $1
        }' | sort -u
}

_sorvel() {
    local cur prev words cword
    _init_completion || return
    local sorvel=${words[0]}

    if ((cword == 1)); then
        local commands
        commands=$("$sorvel" --help 2>/dev/null | awk '/^commands:/ { c = 1; next } c && /^  [a-z]/ { print $1 }')
        COMPREPLY=($(compgen -W "$commands --help" -- "$cur"))
        return
    fi
    local command=${words[1]}
    case $prev in
        -o | --output) _filedir; return ;;
        --runtime-dir | --home) _filedir -d; return ;;
        --answer) COMPREPLY=($(compgen -W "accept accept-without-mic decline" -- "$cur")); return ;;
        --duration | --trim-start | --trim-end | --start | --end | --size | --layer | \
            --urgency | --amount | --pid) return ;;
        orientation)
            COMPREPLY=($(compgen -W "portrait landscape-left portrait-upside-down landscape-right" -- "$cur"))
            return ;;
        fail) COMPREPLY=($(compgen -W "failed preempted reset" -- "$cur")); return ;;
    esac
    if [[ $cur == -* || $command == shell ]]; then
        COMPREPLY=($(compgen -W "$(_sorvel_help_words "$command" "$sorvel")" -- "$cur"))
        return
    fi
    case $command in
        inspect | trim) _filedir '@(mp4|m4v|mov)' ;;
    esac
}
complete -F _sorvel sorvel
