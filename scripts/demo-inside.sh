#!/bin/bash
# Runs inside the private root made by tests/sandbox/run-isolated: starts the
# daemon in the foreground, sends it requests with its own client, shows the
# log, and stops it.
set -euo pipefail
bin=$(readlink -f "$1")

printf 'ctrl_interface=/tmp/wpa_supplicant\n' > /tmp/wpa_supplicant.conf
echo "== starting: $bin -F -c /tmp/wpa_supplicant.conf -i wlan0"
"$bin" -F -c /tmp/wpa_supplicant.conf -i wlan0 > /tmp/daemon.console 2>&1 &
daemon=$!
for _ in $(seq 100); do [ -S /tmp/wifi_manager.socket ] && break; sleep 0.05; done

for request in "function=GetNetSetting" "function=NoSuchFunction"; do
  echo
  echo "== $bin -C \"$request\""
  "$bin" -C "$request"
done

kill -TERM "$daemon"
wait "$daemon" || true
sleep 1
echo
echo "== /tmp/wifi_manager.log"
cat /tmp/wifi_manager.log
