# Prints the interface to report where the options name none: gwad's own choice where it is there, else
# that of the default route. A name that gwad would cut is none.
interface() {
    local name destination mask
    case " $GWAD_OPTIONS" in *" -i"* | *" --i"*) return ;; esac
    if [ -d /sys/class/net/br-lan ]; then
        echo br-lan
        return
    fi
    # A tunnel may have 0.0.0.0/1, and a route that refuses has no interface but a star.
    while read -r name destination _ _ _ _ _ mask _; do
        if [ "$destination $mask" = "00000000 00000000" ] && [ "$name" != "*" ] && [ ${#name} -le 8 ]; then
            echo "$name"
            return
        fi
    done </proc/net/route
}
