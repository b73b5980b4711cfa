# fish completion for sonivane(1).

# The cards of this machine (or of a list named by SONIVANE_CARDS, for trials) as device names, by
# number and by name.
function __sonivane_devices
    set -l cards /proc/asound/cards
    set -q SONIVANE_CARDS; and set cards $SONIVANE_CARDS
    sed -nE 's/^ *([0-9]+) \[([^ ]+) *\].*/hw:\1,0\nhw:CARD=\2,DEV=0/p' $cards 2>/dev/null
end

function __sonivane_files
    string match -q -- '-*' (commandline -ct); and return
    complete -C "'' "(commandline -ct) | string match -ri '.*(?:/|\.(?:wav|rf64|dsf|dff|wsd))(?:\t.*)?$'
end

# True until a name stands in front of the word that is being completed: no option may follow it.
function __sonivane_no_name
    set -l value no
    for word in (commandline -opc)[2..]
        if test $value = yes
            set value no
        else if contains -- $word -D -B --skip
            set value yes
        else if not string match -q -- '-*' $word
            return 1
        end
    end
end

# True if the current word begins an option. An option whose value can only follow a "=" is offered
# as a plain word: fish would offer a long option with a blank, too.
function __sonivane_option
    string match -q -- '-*' (commandline -ct); and __sonivane_no_name
end

complete -c sonivane -f -a '(__sonivane_files)'
complete -c sonivane -s D -x -a '(__sonivane_devices)' -n __sonivane_no_name -d 'Play to this ALSA device'
complete -c sonivane -s B -x -a '2M 4M 16M 64M' -n __sonivane_no_name -d 'Size of the ring in bytes'
complete -c sonivane -o os -n __sonivane_no_name -d 'Oversample PCM to 352800 Hz'
complete -c sonivane -l short-filter -n __sonivane_no_name -d 'Use the short filters of -os'
complete -c sonivane -l silent -n __sonivane_no_name -d 'One plain line a second, for front-ends'
complete -c sonivane -l left-cut -n __sonivane_no_name -d 'Keep the left channel silent'
complete -c sonivane -l right-cut -n __sonivane_no_name -d 'Keep the right channel silent'
complete -c sonivane -a '--mode=1\tDoP --mode=2\tBi-Naural' -n __sonivane_option
complete -c sonivane -a '--events=\t"Write events for a front-end"' -n __sonivane_option
complete -c sonivane -a '--list=\t"Play the names of this file, in its order"' -n __sonivane_option
complete -c sonivane -a '--start=\t"Begin the first file at this time in seconds"' -n __sonivane_option
complete -c sonivane -l reopen -n __sonivane_no_name -d 'Open the device anew for files of another form'
complete -c sonivane -a '--prime=\t"Begin with this much of the ring filled"' -n __sonivane_option
complete -c sonivane -l keep-going -n __sonivane_no_name -d 'Go on after the device ran empty or slept'
complete -c sonivane -l strict -n __sonivane_no_name -d 'A sound that ends early is a failure'
complete -c sonivane -l skip -x -n __sonivane_no_name -d 'Take a value and ignore it'
complete -c sonivane -l version -n __sonivane_no_name -d 'Print the version'
complete -c sonivane -l help -n __sonivane_no_name -d 'Print the usage text'
complete -c sonivane -s '?' -n __sonivane_no_name -d 'Print the usage text'
