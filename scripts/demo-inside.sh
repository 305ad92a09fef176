#!/bin/bash
# Runs inside the private root and network namespace made by
# tests/sandbox/run-isolated: starts the real wpa_supplicant (wired driver)
# on one end of a veth pair, the daemon in the foreground against it, and
# walks through the requests with the daemon's own client.
set -euo pipefail
bin=$(readlink -f "$1")
hold=${2:-}

ip link add wlan0 type veth peer name wlan0-peer
ip link set wlan0 up
ip link set wlan0-peer up
ip addr add 192.168.77.2/24 dev wlan0
ip route add default via 192.168.77.1 dev wlan0
printf 'nameserver 192.168.77.1\n#wifi_manager\nnameserver 10.9.9.9\n' > /etc/resolv.conf

mkdir -p /tmp/wpa_ctrl
printf 'ctrl_interface=/tmp/wpa_ctrl\nupdate_config=1\nap_scan=0\n' > /tmp/wpa_supplicant.conf
wpa_supplicant -B -D wired -i wlan0 -c /tmp/wpa_supplicant.conf > /tmp/wpa_supplicant.out 2>&1
printf '#!/bin/sh\necho "$(date +%%T) $0 $*" >> /tmp/station_scripts.log\nexit 0\n' > /home/qorun/wifista_connected.sh
cp /home/qorun/wifista_connected.sh /home/qorun/wifi_station.sh
chmod +x /home/qorun/*.sh

echo "== starting: $bin -F -c /tmp/wpa_supplicant.conf -i wlan0"
"$bin" -F -c /tmp/wpa_supplicant.conf -i wlan0 > /tmp/daemon.console 2>&1 &
daemon=$!
for _ in $(seq 100); do [ -S /tmp/wifi_manager.socket ] && break; sleep 0.05; done

ask() {
  echo
  echo "== $bin -C \"$(printf '%s' "$1" | tr '\n' ' ')\""
  "$bin" -C "$1"
}

ask "function=GetAPList"
ask "function=ConnectAP
ssid=wired-open
security=none"
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
ask "function=GetAPList"
ask "function=Disconnect"
ask "function=Remove
ssid=wired-open
security=none"
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
  echo "The daemon keeps running. Try, for example:"
  echo "  $bin -C \"function=GetAPList\""
  echo "Leave this shell to stop everything."
  bash -i || true
fi

kill -TERM "$daemon"
wait "$daemon" || true
sleep 2
echo
echo "== tail of /tmp/wifi_manager.log"
tail -n 25 /tmp/wifi_manager.log | cut -c1-200
