#!/bin/bash
# Runs inside the private root and network namespace made by
# tests/sandbox/run-isolated: starts the wpa_supplicant simulator with a small
# radio world, the daemon in the foreground against it, and walks through the
# requests with the daemon's own client.
set -euo pipefail
bin=$(readlink -f "$1")
sim=$(readlink -f "$2")
hold=${3:-}

# The station interface, with an address, a default route and name servers,
# so that GetConnected reports real values.
ip link add wlan0 type veth peer name wlan0-peer
ip link set wlan0 up
ip link set wlan0-peer up
ip addr add 192.168.77.2/24 dev wlan0
ip route add default via 192.168.77.1 dev wlan0
printf 'nameserver 192.168.77.1\n#wifi_manager\nnameserver 10.9.9.9\n' > /etc/resolv.conf

cat > /tmp/world <<'W'
scan_delay_ms 300
connect_delay_ms 200
wps_delay_ms 300
wps_reassoc_ms 0
ap 00:11:22:33:44:55 2437 -48 [WPA2-PSK-CCMP][ESS] key=secret123 wps=- ssid=home net
ap 00:11:22:33:44:66 2412 -71 [ESS] key=- wps=- ssid=cafe
ap 00:11:22:33:44:77 2462 -60 [WPA2-PSK-CCMP][WPS][ESS] key=wps-key-42 wps=pbc ssid=office
ap 00:11:22:33:44:88 2422 -85 [WEP][ESS] key=12345 wps=- ssid=old
W
mkdir -p /tmp/wpa_ctrl
printf 'ctrl_interface=/tmp/wpa_ctrl\nupdate_config=1\n' > /tmp/wpa_supplicant.conf
"$sim" -p /tmp/wpa_ctrl -i wlan0 -w /tmp/world -c /tmp/wpa_supplicant.conf -l /tmp/wpa_sim.log &
printf '#!/bin/sh\necho "$(date +%%T) $0 $*" >> /tmp/station_scripts.log\nexit 0\n' > /home/qorun/wifista_connected.sh
cp /home/qorun/wifista_connected.sh /home/qorun/wifi_station.sh
chmod +x /home/qorun/*.sh
sleep 0.3

echo "== starting: $bin -F -c /tmp/wpa_supplicant.conf -i wlan0"
"$bin" -F -c /tmp/wpa_supplicant.conf -i wlan0 > /tmp/daemon.console 2>&1 &
daemon=$!
for _ in $(seq 100); do [ -S /tmp/wifi_manager.socket ] && break; sleep 0.05; done
sleep 2  # the first scans

ask() {
  echo
  [ -n "${2:-}" ] && echo "   ($2)"
  echo "== $bin -T 0 -C \"$(printf '%s' "$1" | tr '\n' ' ')\""
  "$bin" -T 0 -C "$1"
}

ask "function=GetAPList"
ask "function=ConnectAP
ssid=home net
security=wpa2
password=not-the-key" "a wrong key is known when the 40 s attempt is over"
ask "function=ConnectAP
ssid=home net
security=wpa2
password=secret123"
ask "function=GetConnected"
ask "function=SetNetSetting
dhcp=0
dns_dhcp=0
ip_addr=192.168.77.2
netmask=255.255.255.0
gateway=192.168.77.1
dns_server1=192.168.77.1"
ask "function=GetNetSetting"
ask "function=GetWPSPin"
ask "function=WPS
wps_pbc=1" "push button: the office access point has WPS active"
ask "function=GetAPList"
ask "function=Disconnect"
ask "function=Remove
ssid=office
security=wpa2"
ask "function=Enable
enable=0"
ask "function=Enable
enable=1"
ask "function=NoSuchFunction"

echo
echo "== /www/nvram.wifista"
cat /www/nvram.wifista

if [ "$hold" = "--hold" ]; then
  echo
  echo "The daemon keeps running against the simulator. Try, for example:"
  echo "  $bin -C \"function=GetAPList\""
  echo "Leave this shell (exit) to stop everything."
  bash -i || true
fi

kill -TERM "$daemon"
wait "$daemon" || true
sleep 2
echo
echo "== tail of /tmp/wifi_manager.log"
tail -n 20 /tmp/wifi_manager.log | cut -c1-200
