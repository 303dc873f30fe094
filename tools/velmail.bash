# Completion of velmail's options and properties for bash. The properties are those that the program itself lists.
_velmail()
{
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} properties
    if [[ $word == "=" || $before == "=" ]]; then # bash takes Name=Value for three words
        [[ $word == "=" ]] && word=
        if [[ $word == @* ]]; then
            mapfile -t COMPREPLY < <(compgen -P @ -f -- "${word#@}")
        else
            mapfile -t COMPREPLY < <(compgen -f -- "$word")
        fi
        compopt -o filenames 2>/dev/null
        return
    fi
    case $before in
    --library | --trace)
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        compopt -o filenames 2>/dev/null
        return
        ;;
    esac
    if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "--get --help --library --quiet --trace --version" -- "$word")
        return
    fi
    properties=$("${COMP_WORDS[0]}" --help 2>/dev/null | sed -nE 's/^  ((Mail|Use)[A-Za-z]+) .*/\1/p')
    mapfile -t COMPREPLY < <(compgen -W "$properties" -- "$word")
    if [[ $before != --get ]]; then
        COMPREPLY=("${COMPREPLY[@]/%/=}")
        compopt -o nospace 2>/dev/null
    fi
} && complete -F _velmail velmail
