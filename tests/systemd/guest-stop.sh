#!/bin/sh
# Runs inside the container booted by stop_under_systemd.sh, as a oneshot
# unit of its systemd: starts the daemon through the shipped unit against
# the simulator, stops it with systemctl, and writes what it saw to /out.
# Then it powers the container off.
out=/out
build=/build
{
  mkdir -p /run/wpa_ctrl /www /home/qorun
  printf 'ctrl_interface=/run/wpa_ctrl\nupdate_config=1\n' >/run/wpa_supplicant.conf
  printf 'scan_delay_ms 50\nconnect_delay_ms 30\n' >/run/world
  printf 'ap 00:11:22:33:44:55 2437 -50 [WPA2-PSK-CCMP][ESS] key=secret123 wps=- ssid=home\n' \
    >>/run/world
  printf 'wifi_station_enable = true\nssid_1 = home\nsecurity_1 = wpa2\npasswd_1 = secret123\n' \
    >/www/nvram.wifista
  printf 'passwd_encode_1 = ascii\npriority_1 = 1\n' >>/www/nvram.wifista
  printf '#!/bin/sh\nexit 0\n' >/home/qorun/wifista_connected.sh
  cp /home/qorun/wifista_connected.sh /home/qorun/wifi_station.sh
  chmod +x /home/qorun/wifista_connected.sh /home/qorun/wifi_station.sh
  "$build/tests/wpa_sim/wpa_sim" -p /run/wpa_ctrl -i wlan0 -w /run/world \
    -c /run/wpa_supplicant.conf >/run/wpa_sim.out 2>&1 &

  # The shipped unit, with the program and its settings of this test.
  sed "s|^ExecStart=.*|ExecStart=$build/wifi_manager/wifi_manager -F -c /run/wpa_supplicant.conf -i wlan0 -m 10|" \
    /src/examples/init/wifi_manager.service >/etc/systemd/system/wifi_manager.service
  systemctl daemon-reload
  systemctl start wifi_manager.service
  i=0
  while [ $i -lt 300 ] && ! [ -S /tmp/wifi_manager.socket ]; do sleep 0.1; i=$((i + 1)); done
  "$build/wifi_manager/wifi_manager" -T 20 -C "function=GetWPSPin" >"$out/answer"
  sleep 2  # the worker's first pings and scans

  # The worker writes the profile file back on its way out: take the file
  # away, so that the write-back shows.
  rm -f /www/nvram.wifista
  systemctl stop wifi_manager.service
  echo "stop-exit=$?"
  systemctl show -p Result -p ExecMainStatus wifi_manager.service
  if [ -e /www/nvram.wifista ]; then echo "profile=written-back"; else echo "profile=missing"; fi
  if [ -e /tmp/wifi_manager.socket ]; then echo "socket=left"; else echo "socket=removed"; fi
  echo "program-close-lines=$(grep -c 'Program close' /tmp/wifi_manager.log)"
  echo "workers-left=$(pgrep -c -x wifi_manager)"
  cp /tmp/wifi_manager.log "$out/wifi_manager.log"
  journalctl -u wifi_manager.service --no-pager >"$out/journal" 2>&1
} >"$out/result" 2>&1
echo "done" >>"$out/result"
systemctl poweroff
