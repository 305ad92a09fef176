#!/bin/sh
# Applies the station's IP settings once wifi_manager has connected: install
# as /home/qorun/wifista_connected.sh. wifi_manager runs it after every
# connection (and after "SetNetSetting"); it exits 0 only when the interface
# has an IPv4 address.
#
# The settings are read from the profile file /www/nvram.wifista, with the
# daemon's own defaults: wifi_dhcp and wifi_dns_dhcp (1 unless 0), wifi_ip,
# wifi_netmask, wifi_gateway, wifi_dns1, wifi_dns2. With DHCP the address
# comes from udhcpc or dhclient (whichever is found); otherwise the static
# address, netmask and default gateway are set. Unless both come from DHCP,
# the two name servers are written at the top of /etc/resolv.conf,
# followed by a "#wifi_manager" line and what the file held before; the
# daemon reports only the name servers above that line.
#   WIFI_IFACE   the wireless interface   (wlan0)
set -u

iface=${WIFI_IFACE:-wlan0}
profile=/www/nvram.wifista
resolv=/etc/resolv.conf
marker='#wifi_manager'

log() {
    echo "wifista_connected: $*" >&2
}

# The value of a key of the profile file ("key = value" before any section
# header, the key in any case, the last one winning), or $2 when missing.
setting() {
    awk -v key="$1" -v fallback="${2:-}" '
        /^[ \t]*\[/ { exit }
        {
            eq = index($0, "=")
            if (eq == 0) next
            name = substr($0, 1, eq - 1)
            gsub(/^[ \t]+|[ \t]+$/, "", name)
            if (tolower(name) != key) next
            value = substr($0, eq + 1)
            gsub(/^[ \t]+|[ \t]+$/, "", value)
            found = 1
        }
        END { print (found ? value : fallback) }' "$profile" 2>/dev/null || echo "${2:-}"
}

# Whether a switch of the file is off: a number equal to zero.
is_off() {
    case "$1" in
        '' | *[!0-9]*) return 1 ;;
        *) [ "$1" -eq 0 ] ;;
    esac
}

# Prefix length of a dotted netmask (255.255.255.0 -> 24).
prefix_of() {
    bits=0
    old_ifs=$IFS
    IFS=.
    # shellcheck disable=SC2086 # the octets are meant to be split
    set -- $1
    IFS=$old_ifs
    for octet in "$@"; do
        case "$octet" in
            255) bits=$((bits + 8)) ;;
            254) bits=$((bits + 7)) ;;
            252) bits=$((bits + 6)) ;;
            248) bits=$((bits + 5)) ;;
            240) bits=$((bits + 4)) ;;
            224) bits=$((bits + 3)) ;;
            192) bits=$((bits + 2)) ;;
            128) bits=$((bits + 1)) ;;
            *) ;;
        esac
    done
    echo "$bits"
}

run_dhcp() {
    if command -v udhcpc >/dev/null 2>&1; then
        udhcpc -i "$iface" -n -q -t 5
    elif command -v dhclient >/dev/null 2>&1; then
        dhclient -1 "$iface"
    else
        log "neither udhcpc nor dhclient is installed"
        return 1
    fi
}

apply_static() {
    ip_addr=$(setting wifi_ip 192.168.0.201)
    netmask=$(setting wifi_netmask 255.255.255.0)
    gateway=$(setting wifi_gateway 192.168.0.1)
    if [ -z "$ip_addr" ] || [ -z "$netmask" ]; then
        log "static address or netmask missing in $profile"
        return 1
    fi
    ip -4 addr flush dev "$iface"
    ip addr add "$ip_addr/$(prefix_of "$netmask")" dev "$iface" || return 1
    if [ -n "$gateway" ]; then
        ip route replace default via "$gateway" dev "$iface" || return 1
    fi
}

write_name_servers() {
    # What the file held before: below an earlier marker line (compared as
    # the daemon does, blanks dropped and case ignored), or all of it.
    old=$(awk '{ l = tolower($0); gsub(/[ \t]/, "", l) }
        found { print; next }
        l ~ /^#wifi_manager/ { found = 1; next }
        { kept = kept $0 "\n" }
        END { if (!found) printf "%s", kept }' "$resolv" 2>/dev/null)
    text=
    for server in "$(setting wifi_dns1 8.8.8.8)" "$(setting wifi_dns2 8.8.8.8)"; do
        if [ -n "$server" ]; then
            text="${text}nameserver $server
"
        fi
    done
    text="$text$marker"
    if [ -n "$old" ]; then
        text="$text
$old"
    fi
    # Written in place: /etc/resolv.conf may be a bind mount or a link.
    printf '%s\n' "$text" >"$resolv"
}

dhcp=$(setting wifi_dhcp 1)
dns_dhcp=$(setting wifi_dns_dhcp 1)
if is_off "$dhcp"; then
    apply_static || log "static settings not applied"
else
    run_dhcp || log "no address from DHCP"
fi
if is_off "$dhcp" || is_off "$dns_dhcp"; then
    write_name_servers || log "name servers not written"
fi

ip -4 addr show dev "$iface" | grep -q 'inet '
