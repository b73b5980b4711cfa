# fish completion for sonivane(1).

# The cards of this machine (or of a list named by SONIVANE_CARDS, for trials) as device names, by
# number and by name.
function __sonivane_devices
    set -l cards /proc/asound/cards
    set -q SONIVANE_CARDS; and set cards $SONIVANE_CARDS
    sed -nE 's/^ *([0-9]+) \[([^ ]+) *\].*/hw:\1,0\nhw:CARD=\2,DEV=0/p' $cards 2>/dev/null
end

function __sonivane_files
    complete -C "'' "(commandline -ct) | string match -ri '.*(?:/|\.(?:wav|rf64|dsf|dff|wsd))(?:\t.*)?$'
end

complete -c sonivane -f -a '(__sonivane_files)'
complete -c sonivane -s D -x -a '(__sonivane_devices)' -d 'Play to this ALSA device'
complete -c sonivane -s B -x -a '2M 4M 16M 64M' -d 'Size of the ring in bytes'
complete -c sonivane -o os -d 'Oversample PCM to 352800 Hz'
complete -c sonivane -l short-filter -d 'Use the short filters of -os'
complete -c sonivane -l silent -d 'One plain line a second, for front-ends'
complete -c sonivane -l left-cut -d 'Keep the left channel silent'
complete -c sonivane -l right-cut -d 'Keep the right channel silent'
complete -c sonivane -l mode -x -a '1\tDoP 2\tBi-Naural' -d 'Label at the end of the status line'
complete -c sonivane -l events -x -d 'Write events for a front-end'
complete -c sonivane -l skip -x -d 'Take a value and ignore it'
complete -c sonivane -l version -d 'Print the version'
complete -c sonivane -l help -d 'Print the usage text'
complete -c sonivane -s '?' -d 'Print the usage text'
