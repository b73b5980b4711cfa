# bash completion for sonivane(1), with the helpers of bash-completion.

# The cards of this machine (or of a list named by SONIVANE_CARDS, for trials) as device names, by
# number and by name.
_sonivane_devices()
{
    sed -nE 's/^ *([0-9]+) \[([^ ]+) *\].*/hw:\1,0\nhw:CARD=\2,DEV=0/p' \
        "${SONIVANE_CARDS:-/proc/asound/cards}" 2>/dev/null
}

# Whether a name stands in front of the word that is being completed: no option may follow it.
_sonivane_has_name()
{
    local i
    for ((i = 1; i < cword; ++i)); do
        case ${words[i]} in
        -D | -B | --skip) ((++i)) ;;
        -*) ;;
        *) return 0 ;;
        esac
    done
    return 1
}

_sonivane()
{
    local cur prev words cword split
    _init_completion -s -n : || return

    case $prev in
    -D)
        mapfile -t COMPREPLY < <(compgen -W "$(_sonivane_devices)" -- "$cur")
        # Readline puts the answer after the last ":" or "=" of the word.
        local before=${cur%"${cur##*[:=]}"}
        COMPREPLY=("${COMPREPLY[@]#"$before"}")
        return
        ;;
    -B)
        mapfile -t COMPREPLY < <(compgen -W '2M 4M 16M 64M' -- "$cur")
        return
        ;;
    --prime)
        mapfile -t COMPREPLY < <(compgen -W '500K 1500K 4M' -- "$cur")
        return
        ;;
    --mode)
        mapfile -t COMPREPLY < <(compgen -W '1 2' -- "$cur")
        return
        ;;
    --list)
        _filedir '@(m3u|m3u8)'
        return
        ;;
    --events | --start | --skip)
        return
        ;;
    esac

    if [[ $cur == -* ]]; then
        _sonivane_has_name && return
        mapfile -t COMPREPLY < <(compgen -W '-os -D -B --skip --version --help --mode= --silent
            --events= --strict --reopen --keep-going --list= --start= --prime= --short-filter
            --left-cut --right-cut -?' -- "$cur")
        [[ ${COMPREPLY[0]-} == *= ]] && compopt -o nospace
        return
    fi
    _filedir '@(wav|rf64|dsf|dff|wsd)'
} && complete -F _sonivane sonivane
