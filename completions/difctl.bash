# Bash completion of difctl: commands, options, the values of options that take one of a few, file names. What difctl
# knows is read from its --help.

# Completes `cur` to the words given.
_difctl_words() {
    mapfile -t COMPREPLY < <(compgen -W "$*" -- "$cur")
}

_difctl() {
    local tool=${1/#\~/$HOME} cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]} command="" help word
    COMPREPLY=()
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        [[ $word == -* ]] || { command=$word && break; }
    done
    # --option=value comes as three words.
    [[ $prev == = ]] && prev=${COMP_WORDS[COMP_CWORD - 2]}
    [[ $cur == = ]] && cur=""

    # An option's line in the help: its names, then the type of its value, with the values if they are few:
    #   --crc GUARD:{t10,crc32c}=t10 Guard: ...
    help=$("$tool" ${command:+"$command"} --help 2>/dev/null) || return
    if [[ $prev == -* && $'\n'$help =~ $'\n  '(-[^ ]*,)?"$prev"(,[^ ]*)?' '([A-Z]+)[^:=\ ]*(:\{([^\}]*)\}|[=\ ]) &&
        ${BASH_REMATCH[3]} != @(FILE|REPLICA) ]]; then
        _difctl_words "${BASH_REMATCH[5]//,/ }"
        return
    elif [[ $cur == -* ]]; then
        _difctl_words "$(sed -nE 's/^  (-[^ ]*).*/\1/p' <<<"$help" | tr , ' ')"
        return
    elif [[ ! $command ]]; then
        _difctl_words "$(sed -nE '1,/^Subcommands:/d; s/^  ([a-z-]+) .*/\1/p; /^$/q' <<<"$help")"
        return
    fi
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$cur")
}

complete -F _difctl difctl
