#!/bin/bash
# Runs inside the radio VM (chrooted into the host's root under a tmpfs
# overlay): builds the radio world, then runs the scenarios, the recorder or
# a shell, as radio.sh asked in $RADIO_OUT/guest.env.
#
# The world (six mac80211_hwsim radios, all access points on channels 1 and
# 6 so that a scan takes a fraction of a second):
#   wlan0  the camera's station, alone in network namespace "sta" so that its
#          IP traffic crosses the simulated air; wpa_supplicant (nl80211) is
#          started there by the example station script, as on the device
#   wlan1  channel 1: radio-wpa2 (WPA2-PSK CCMP, WPS), radio-tkip (WPA-PSK
#          TKIP only), radio-mixed (WPA-PSK and WPA2-PSK)
#   wlan2  channel 6: radio-open, radio-wep40 (key abcde), radio-wep104
#          (key abcdefghijklm)
#   wlan3  channel 1: radio-first (WPA2-PSK, WPS), one hostapd of its own so
#          that it can vanish and come back alone
#   wlan4  channel 6: radio-second (WPA2-PSK), likewise
#   wlan5  channel 1: radio-dhcp (open) with a DHCP server, 192.168.77.1/24
# The access points' control sockets are in /run/hostapd, the station's in
# /run/wpa_supplicant.
set -u
out=${RADIO_OUT:?}
# shellcheck disable=SC1091
. "$out/guest.env"
world=/run/radio
mkdir -p "$world" /run/hostapd /run/wpa_supplicant

say() { echo "radio: $*"; }

ap_header() { # interface ssid channel
    cat <<EOF
interface=$1
driver=nl80211
ctrl_interface=/run/hostapd
hw_mode=g
channel=$3
ssid=$2
EOF
}
wpa2_psk() { # passphrase
    printf 'wpa=2\nwpa_key_mgmt=WPA-PSK\nrsn_pairwise=CCMP\nwpa_passphrase=%s\n' "$1"
}
wps_on() { # uuid
    cat <<EOF
eap_server=1
wps_state=2
uuid=$1
device_name=radio-ap
manufacturer=radio
model_name=hwsim
model_number=1
serial_number=1
device_type=6-0050F204-1
os_version=01020300
config_methods=label display push_button keypad virtual_push_button
EOF
}

write_access_points() {
    {
        ap_header wlan1 radio-wpa2 1
        wpa2_psk correct-horse-battery
        wps_on 27ea801a-9e5c-4e73-bd82-f89cbcd10d71
        printf '\nbss=wlan1_1\nbssid=02:00:00:00:01:01\nctrl_interface=/run/hostapd\nssid=radio-tkip\n'
        printf 'wpa=1\nwpa_key_mgmt=WPA-PSK\nwpa_pairwise=TKIP\nwpa_passphrase=tkip-only-passphrase\n'
        printf '\nbss=wlan1_2\nbssid=02:00:00:00:01:02\nctrl_interface=/run/hostapd\nssid=radio-mixed\n'
        printf 'wpa=3\nwpa_key_mgmt=WPA-PSK\nwpa_pairwise=TKIP CCMP\nrsn_pairwise=CCMP\n'
        printf 'wpa_passphrase=mixed-mode-passphrase\n'
    } >"$world/ap-wlan1.conf"
    {
        ap_header wlan2 radio-open 6
        printf '\nbss=wlan2_1\nbssid=02:00:00:00:02:01\nctrl_interface=/run/hostapd\nssid=radio-wep40\n'
        printf 'auth_algs=1\nwep_default_key=0\nwep_key0="abcde"\n'
        printf '\nbss=wlan2_2\nbssid=02:00:00:00:02:02\nctrl_interface=/run/hostapd\nssid=radio-wep104\n'
        printf 'auth_algs=1\nwep_default_key=0\nwep_key0="abcdefghijklm"\n'
    } >"$world/ap-wlan2.conf"
    {
        ap_header wlan3 radio-first 1
        wpa2_psk first-passphrase
        wps_on 27ea801a-9e5c-4e73-bd82-f89cbcd10d73
    } >"$world/ap-wlan3.conf"
    {
        ap_header wlan4 radio-second 6
        wpa2_psk second-passphrase
    } >"$world/ap-wlan4.conf"
    ap_header wlan5 radio-dhcp 1 >"$world/ap-wlan5.conf"
}

start_access_points() {
    local i state
    for i in 1 2 3 4 5; do
        hostapd -B -t -f "$world/hostapd-wlan$i.log" -P "$world/hostapd-wlan$i.pid" \
            "$world/ap-wlan$i.conf" || return 1
    done
    for i in 1 2 3 4 5; do
        for _ in $(seq 100); do
            state=$(hostapd_cli -p /run/hostapd -i "wlan$i" status 2>/dev/null | grep '^state=')
            [ "$state" = state=ENABLED ] && break
            sleep 0.1
        done
        [ "$state" = state=ENABLED ] || { say "hostapd on wlan$i is not enabled: $state"; return 1; }
    done
}

start_dhcp_server() {
    ip addr add 192.168.77.1/24 dev wlan5
    cat >"$world/udhcpd.conf" <<EOF
interface wlan5
start 192.168.77.100
end 192.168.77.110
lease_file $world/udhcpd.leases
option subnet 255.255.255.0
option router 192.168.77.1
option dns 192.168.77.53 192.168.77.54
option lease 3600
EOF
    : >"$world/udhcpd.leases"
    busybox udhcpd "$world/udhcpd.conf"
}

# The camera: its configuration where the daemon looks by default, the
# example station scripts where the supervisor and the hook run them.
set_up_station() {
    cat >/etc/wpa_supplicant.conf <<EOF
ctrl_interface=/run/wpa_supplicant
update_config=1
ap_scan=1
freq_list=2412 2437
device_name=camera
manufacturer=radio
model_name=camera
model_number=1
serial_number=2
device_type=7-0050F204-1
config_methods=virtual_display virtual_push_button keypad
EOF
    mkdir -p /home/qorun /www
    install -m 755 "$RADIO_SRC/examples/wifi_station.sh" /home/qorun/wifi_station.sh
    install -m 755 "$RADIO_SRC/examples/wifista_connected.sh" /home/qorun/wifista_connected.sh
    rm -f /etc/resolv.conf
    printf 'nameserver 10.0.2.3\n' >/etc/resolv.conf
    # Addresses of the WEP access points, so that the station can prove its
    # key by reaching them: a wrong WEP key still associates.
    ip addr add 192.168.78.1/24 dev wlan2_1
    ip addr add 192.168.79.1/24 dev wlan2_2
    ip netns add sta || return 1
    iw phy "$(cat /sys/class/net/wlan0/phy80211/name)" set netns name sta || return 1
    ip netns exec sta ip link set lo up
}

# ---------------------------------------------------------------- network names
# Open access points whose names are not plain ASCII, set with hostapd's
# ssid2=P"..." (printf escapes): one hostapd on an interface of its own on
# wlan5's radio (channel 1), names0..names6, BSSIDs 02:00:00:00:06:0N. It is
# left disabled: only the NetworkNames scenarios enable it, so that every
# other scenario sees the world as it was.
#   names0 Café Crème         names4 back\slash
#   names1 咖啡馆               names5 Caf\xe9 (Latin-1, not UTF-8)
#   names2 📷 camera           names6 Café "咖啡" \ 📷
#   names3 say "cheese"
write_named_access_points() {
    local names=(
        'P"Caf\xc3\xa9 Cr\xc3\xa8me"'
        'P"\xe5\x92\x96\xe5\x95\xa1\xe9\xa6\x86"'
        'P"\xf0\x9f\x93\xb7 camera"'
        'P"say \"cheese\""'
        'P"back\\slash"'
        'P"Caf\xe9"'
        'P"Caf\xc3\xa9 \"\xe5\x92\x96\xe5\x95\xa1\" \\ \xf0\x9f\x93\xb7"'
    )
    local i
    {
        printf 'interface=names0\ndriver=nl80211\nctrl_interface=/run/hostapd\nhw_mode=g\nchannel=1\n'
        printf 'ssid2=%s\n' "${names[0]}"
        for i in 1 2 3 4 5 6; do
            printf '\nbss=names%s\nbssid=02:00:00:00:06:0%s\nctrl_interface=/run/hostapd\n' "$i" "$i"
            printf 'ssid2=%s\n' "${names[$i]}"
        done
    } >"$world/ap-names.conf"
}

start_named_access_points() {
    local state
    iw phy "$(cat /sys/class/net/wlan5/phy80211/name)" interface add names0 type managed || return 1
    ip link set dev names0 address 02:00:00:00:06:00 || return 1
    hostapd -B -t -f "$world/hostapd-names.log" -P "$world/hostapd-names.pid" \
        "$world/ap-names.conf" || return 1
    for _ in $(seq 100); do
        state=$(hostapd_cli -p /run/hostapd -i names0 status 2>/dev/null | grep '^state=')
        [ "$state" = state=ENABLED ] && break
        sleep 0.1
    done
    [ "$state" = state=ENABLED ] || { say "hostapd on names0 is not enabled: $state"; return 1; }
    hostapd_cli -p /run/hostapd -i names0 disable >/dev/null
}

setup_started=$SECONDS
write_access_points
if ! start_access_points || ! start_dhcp_server || ! set_up_station; then
    say "the radio world could not be built"
    cat "$world"/hostapd-*.log 2>/dev/null | tail -20
    exit 1
fi
write_named_access_points
# Only the NetworkNames scenarios need them: the rest run without.
start_named_access_points || say "the named access points could not be started"
say "world ready in $((SECONDS - setup_started)) s"

case "$RADIO_MODE" in
    shell)
        ip netns exec sta /home/qorun/wifi_station.sh start
        say "station in netns sta (ip netns exec sta ...); access points: hostapd_cli -p /run/hostapd -i wlanN"
        say "daemon: ip netns exec sta $RADIO_BUILD/wifi_manager/wifi_manager -F; exit ends the VM"
        cd "$RADIO_BUILD" && bash -i
        ;;
    record)
        mkdir -p "$out/transcripts"
        "$RADIO_BUILD/tests/radio/radio_record" "$out/transcripts"
        ;;
    *)
        "$RADIO_BUILD/tests/radio/radio_scenarios" --gtest_filter="$RADIO_FILTER" \
            --gtest_output="json:$out/results.json" 2>&1 | tee "$out/scenarios.log"
        status=${PIPESTATUS[0]}
        echo "$status" >"$out/scenarios.status"
        mkdir -p "$out/world"
        cp "$world"/*.log "$world"/*.conf "$out/world/" 2>/dev/null
        # The run counts when gtest wrote its report; the scenarios' own
        # outcomes are read from it test by test.
        [ -s "$out/results.json" ] || { say "the scenarios left no report"; exit 1; }
        ;;
esac
