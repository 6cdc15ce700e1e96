# Prints the options that the settings make, one a line. In the background or not is ours to say.
option_words() {
    local word found
    found=$(interface)
    for word in ${GWAD_RELAY:+-r $GWAD_RELAY} ${found:+-i $found} $GWAD_OPTIONS; do
        case $word in
            -b | --background) ;;
            *) printf '%s\n' "$word" ;;
        esac
    done
}

# Prints a place as fstab and /proc/mounts write it, with \040 for a blank; behind that may be a digit.
place_print() {
    local format='' rest=$1
    while [ "$rest" != "${rest#*%}" ]; do
        format=$format${rest%%\%*}%%
        rest=${rest#*%}
    done
    # shellcheck disable=SC2059
    printf "$format$rest"
}

# Whether the file system $1 is one that belongs at a folder which the home is in, and is not there.
is_missing() {
    local device place rest
    case $GWAD_HOME/ in "$1"/*) ;; *) return 1 ;; esac
    while read -r device place rest; do
        [ "$(place_print "$place")" != "$1" ] || return 1
    done </proc/mounts
}

# Fails unless the home is there, with the disk that it is on: a new folder in its place would hide that
# the disk is missing, and vanish beneath it later.
home_is_there() {
    local device place rest
    if [ -n "$GWAD_HOME" ] && [ ! -d "$GWAD_HOME" ]; then
        echo "${0##*/}: the home $GWAD_HOME is no directory that is there" >&2
        return 6
    fi
    [ -n "$GWAD_HOME" ] && [ -r "$fstab" ] || return 0
    while read -r device place rest || [ -n "$device" ]; do
        case $device in "#"* | "") continue ;; esac
        place=$(place_print "${place%/}")
        if [ -n "$place" ] && is_missing "$place"; then
            echo "${0##*/}: $place is not mounted, and the home is $GWAD_HOME" >&2
            return 6
        fi
    done <"$fstab"
}
