# bash completion for sonivane(1), with the helpers of bash-completion.

# The cards of this machine (or of a list named by SONIVANE_CARDS, for trials) as device names, by
# number and by name.
_sonivane_devices()
{
    sed -nE 's/^ *([0-9]+) \[([^ ]+) *\].*/hw:\1,0\nhw:CARD=\2,DEV=0/p' \
        "${SONIVANE_CARDS:-/proc/asound/cards}" 2>/dev/null
}

_sonivane()
{
    local cur prev words cword split
    _init_completion -s -n : || return

    case $prev in
    -D)
        mapfile -t COMPREPLY < <(compgen -W "$(_sonivane_devices)" -- "$cur")
        # Readline puts the answer behind the last ":" or "=" of the word.
        local before=${cur%"${cur##*[:=]}"}
        COMPREPLY=("${COMPREPLY[@]#"$before"}")
        return
        ;;
    -B)
        mapfile -t COMPREPLY < <(compgen -W '2M 4M 16M 64M' -- "$cur")
        return
        ;;
    --mode)
        mapfile -t COMPREPLY < <(compgen -W '1 2' -- "$cur")
        return
        ;;
    --events | --skip)
        return
        ;;
    esac

    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W '-os -D -B --skip --version --help --mode= --silent
            --events= --short-filter --left-cut --right-cut -?' -- "$cur")
        [[ ${COMPREPLY[0]-} == *= ]] && compopt -o nospace
        return
    fi
    _filedir '@(wav|rf64|dsf|dff|wsd)'
} && complete -F _sonivane sonivane
