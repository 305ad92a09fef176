#!/bin/sh
# Station start and stop for wifi_manager: install as /home/qorun/wifi_station.sh.
#
#   wifi_station.sh stop    stop wpa_supplicant and take the interface down
#   wifi_station.sh start   bring the interface up and start wpa_supplicant
#
# wifi_manager's supervisor runs "stop", waits 10 s and runs "start" when its
# worker stops answering, so that a hung radio or wpa_supplicant comes back
# fresh. Settings come from the environment (or edit the defaults here):
#   WIFI_IFACE      the wireless interface                 (wlan0)
#   WPA_CONF        wpa_supplicant's configuration file    (/etc/wpa_supplicant.conf)
#   WPA_DRIVER      wpa_supplicant's driver list           (nl80211,wext)
#   WPA_SUPPLICANT  the wpa_supplicant program             (wpa_supplicant)
set -u

iface=${WIFI_IFACE:-wlan0}
conf=${WPA_CONF:-/etc/wpa_supplicant.conf}
driver=${WPA_DRIVER:-nl80211,wext}
supplicant=${WPA_SUPPLICANT:-wpa_supplicant}
pidfile=/var/run/wpa_supplicant-$iface.pid

log() {
    echo "wifi_station: $*" >&2
}

supplicant_pid() {
    [ -f "$pidfile" ] || return 1
    pid=$(cat "$pidfile" 2>/dev/null) || return 1
    [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null && echo "$pid"
}

stop_station() {
    if pid=$(supplicant_pid); then
        kill "$pid" 2>/dev/null
        # wpa_supplicant removes its control socket on the way out.
        i=0
        while kill -0 "$pid" 2>/dev/null && [ $i -lt 50 ]; do
            sleep 0.1
            i=$((i + 1))
        done
        kill -9 "$pid" 2>/dev/null
    fi
    rm -f "$pidfile"
    ip link set "$iface" down 2>/dev/null
    return 0
}

start_station() {
    if supplicant_pid >/dev/null; then
        return 0
    fi
    if [ ! -f "$conf" ]; then
        log "no configuration file $conf"
        return 1
    fi
    if ! ip link set "$iface" up; then
        log "cannot bring $iface up"
        return 1
    fi
    if ! "$supplicant" -B -i "$iface" -c "$conf" -D "$driver" -P "$pidfile"; then
        log "wpa_supplicant did not start on $iface"
        return 1
    fi
    return 0
}

case "${1:-}" in
    start) start_station ;;
    stop) stop_station ;;
    restart)
        stop_station
        start_station
        ;;
    *)
        echo "usage: $0 start|stop|restart" >&2
        exit 2
        ;;
esac
