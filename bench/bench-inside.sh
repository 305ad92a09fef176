#!/bin/bash
# Runs inside the sandbox made by scripts/bench.sh (private /tmp, /www,
# /home/qorun, network namespace). Argument: the build directory.
set -euo pipefail
build=$(readlink -f "$1")
bin=$build/wifi_manager/wifi_manager
sim=$build/tests/wpa_sim/wpa_sim
bench=$build/bench/wifim_bench
requests=${BENCH_REQUESTS:-10000}
idle_s=${BENCH_IDLE_S:-60}
mixed=${BENCH_MIXED:-10000}
# Each of the five service threads is replaced after 101 connections; the
# first replacements run the C library's thread-exit code for the first time
# (about 256 KiB of its shared text mapped in once). A warm-up of 1000
# requests replaces every thread once, so the growth that follows is the
# worker's own.
warm_up=${BENCH_WARMUP:-1000}
armhf_build=${BENCH_ARMHF_BUILD:-}
# Requests of the long 20-client run that counts the log lines lost.
log_requests=${BENCH_LOG_REQUESTS:-100000}
# 1: only the load measures (throughput and log lines lost), then stop.
load_only=${BENCH_LOAD_ONLY:-0}
socket=/tmp/wifi_manager.socket

# --- the simulated world: 30 networks in range, 10 of them registered
ip link add wlan0 type veth peer name wlan0-peer
ip link set wlan0 up
ip link set wlan0-peer up
ip addr add 192.168.77.2/24 dev wlan0
ip route add default via 192.168.77.1 dev wlan0
printf 'nameserver 192.168.77.1\n#wifi_manager\n' >/etc/resolv.conf
{
  echo "scan_delay_ms 50"
  echo "connect_delay_ms 0"
  echo "ap 00:11:22:33:44:00 2412 -40 [ESS] key=- wps=- ssid=cafe"
  for i in $(seq 1 29); do
    printf 'ap 00:11:22:33:44:%02x %d -%d [WPA2-PSK-CCMP][ESS] key=secret%03d wps=- ssid=net %d\n' \
      "$i" $((2412 + 5 * (i % 13))) $((41 + i)) "$i" "$i"
  done
} >/tmp/world
{
  printf 'wifi_station_enable = 1\nwifi_dhcp = 1\nwifi_dns_dhcp = 1\n'
  for i in $(seq 1 10); do
    printf 'ssid_%d = net %d\nsecurity_%d = wpa2\npasswd_%d = secret%03d\npasswd_encode_%d = ascii\npriority_%d = %d\n' \
      "$i" "$i" "$i" "$i" "$i" "$i" "$i" "$i"
  done
} >/www/nvram.wifista
mkdir -p /tmp/wpa_ctrl
printf 'ctrl_interface=/tmp/wpa_ctrl\nupdate_config=1\n' >/tmp/wpa_supplicant.conf
printf '#!/bin/sh\nexit 0\n' >/home/qorun/wifista_connected.sh
cp /home/qorun/wifista_connected.sh /home/qorun/wifi_station.sh
chmod +x /home/qorun/*.sh
"$sim" -p /tmp/wpa_ctrl -i wlan0 -w /tmp/world -c /tmp/wpa_supplicant.conf >/dev/null 2>&1 &
sleep 0.3

supervisor_of() {  # the daemon's supervisor: a wifi_manager whose parent is not one
  for d in /proc/[0-9]*; do
    [ "$(cat "$d/comm" 2>/dev/null)" = wifi_manager ] || continue
    p=$(sed -n 's/^PPid:\t//p' "$d/status")
    [ "$(cat "/proc/$p/comm" 2>/dev/null)" = wifi_manager ] || { echo "${d#/proc/}"; return; }
  done
}
child_of() { grep -l "^PPid:[[:space:]]*$1\$" /proc/[0-9]*/status | head -n 1 | cut -d/ -f3; }
rss_kib() { sed -n 's/^VmRSS:[[:space:]]*\([0-9]*\).*/\1/p' "/proc/$1/status"; }
anon_kib() { sed -n 's/^RssAnon:[[:space:]]*\([0-9]*\).*/\1/p' "/proc/$1/status"; }
pss_kib() { sed -n 's/^Pss:[[:space:]]*\([0-9]*\).*/\1/p' "/proc/$1/smaps_rollup"; }
threads() { sed -n 's/^Threads:[[:space:]]*//p' "/proc/$1/status"; }
cpu_ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }
switches() {  # context switches of every thread of a process
  cat /proc/"$1"/task/*/status | awk '/ctxt_switches/ {n += $2} END {print n}'
}
field() {  # field JSON NAME KEY: a number from {"NAME":{..."KEY":n...}}
  echo "$1" | sed -n "s/.*\"$2\":{[^}]*\"$3\":\\([0-9.]*\\).*/\\1/p"
}
top() {  # top JSON KEY: a number from a flat object
  echo "$1" | sed -n "s/.*\"$2\":\\([-0-9.]*\\).*/\\1/p"
}

# --- against the simulator
"$bin" -c /tmp/wpa_supplicant.conf -i wlan0 -m 10
for _ in $(seq 100); do [ -S $socket ] && break; sleep 0.05; done
sleep 3  # the first scans

# Throughput from 1, 5 and 20 clients at once, with the log lines the daemon
# lost meanwhile (its own counts, kept by the benchmark build).
load_table() {
  echo "throughput: GetAPList (30 networks) and GetWPSPin..." >&2
  thr=$("$bench" throughput $socket 6000 function=GetAPList)
  thr_light=$("$bench" throughput $socket 6000 function=GetWPSPin)
  echo "log lines: $log_requests GetAPList from 20 clients..." >&2
  logl=$("$bench" loglines $socket "$log_requests")
}
load_row() {  # load_row LABEL JSON CLIENTS
  printf '| %-36s | %8s/s | %8s µs | %8s µs | %9s | %9s |\n' "$1" \
    "$(field "$2" "$3" requests_per_s)" "$(field "$2" "$3" median_us)" \
    "$(field "$2" "$3" p99_us)" "$(field "$2" "$3" log_lines)" "$(field "$2" "$3" log_lost)"
}
scaling() {  # scaling NAME JSON: 5 clients' requests/s over 1 client's
  printf '%s: 5 clients / 1 client, requests/s: %s\n' "$1" \
    "$(awk -v a="$(field "$2" 5 requests_per_s)" -v b="$(field "$2" 1 requests_per_s)" \
       'BEGIN {printf "%.2f", a / b}')"
}
print_load_table() {
  printf '| %-36s | %10s | %11s | %11s | %9s | %9s |\n' "Load" "requests/s" "median" "p99" \
    "log lines" "lost"
  printf '|%s|%s|%s|%s|%s|%s|\n' "--------------------------------------" "------------" \
    "-------------" "-------------" "-----------" "-----------"
  for c in 1 5 20; do load_row "GetAPList, $c client(s)" "$thr" "$c"; done
  for c in 1 5 20; do load_row "GetWPSPin, $c client(s)" "$thr_light" "$c"; done
  load_row "GetAPList, 20 clients, $log_requests requests" "$logl" 20
  scaling GetAPList "$thr"
  scaling GetWPSPin "$thr_light"
}
if [ "$load_only" = 1 ]; then
  load_table
  echo
  print_load_table
  exit 0
fi
sup=$(supervisor_of)
worker=$(child_of "$sup")
sup_rss0=$(rss_kib "$sup"); sup_pss0=$(pss_kib "$sup")
rss0=$(rss_kib "$worker"); pss0=$(pss_kib "$worker"); threads0=$(threads "$worker")

# Memory over a long run: GetAPList and GetNetSetting by turns, measured
# after the warm-up, once the station has joined its first network (the
# connected hook and its address check run once then).
for _ in $(seq 600); do [ -e /tmp/wifista_connected ] && break; sleep 0.1; done
echo "memory: $warm_up requests of warm-up, then $mixed mixed requests..." >&2
"$bench" mixed $socket "$warm_up" >/dev/null
sim_rss_warm=$(rss_kib "$worker"); sim_anon_warm=$(anon_kib "$worker")
"$bench" mixed $socket "$mixed" >/dev/null
sim_rss_mixed=$(rss_kib "$worker"); sim_anon_mixed=$(anon_kib "$worker")

echo "round trips: $requests requests of each kind..." >&2
req=$("$bench" requests $socket "$requests")
sup_rss1=$(rss_kib "$sup"); sup_pss1=$(pss_kib "$sup")
rss1=$(rss_kib "$worker"); pss1=$(pss_kib "$worker"); threads1=$(threads "$worker")
load_table
echo "connect..." >&2
con=$("$bench" connect $socket 10)

echo "idle, connected, for ${idle_s} s..." >&2
ticks0=$(( $(cpu_ticks "$worker") + $(cpu_ticks "$sup") ))
sw0=$(( $(switches "$worker") + $(switches "$sup") ))
sleep "$idle_s"
ticks1=$(( $(cpu_ticks "$worker") + $(cpu_ticks "$sup") ))
sw1=$(( $(switches "$worker") + $(switches "$sup") ))
hz=$(getconf CLK_TCK)
idle_cpu_pct=$(awk -v t=$((ticks1 - ticks0)) -v hz="$hz" -v s="$idle_s" 'BEGIN {printf "%.3f", 100 * t / hz / s}')
wakeups=$(awk -v n=$((sw1 - sw0)) -v s="$idle_s" 'BEGIN {printf "%.2f", n / s}')
kill "$sup"
for _ in $(seq 100); do [ -S $socket ] || break; sleep 0.1; done

# --- against the real wpa_supplicant: the client beside wpa_cli
ip link add wlan1 type veth peer name wlan1-peer
ip link set wlan1 up
ip link set wlan1-peer up
mkdir -p /tmp/wpa_real
printf 'ctrl_interface=/tmp/wpa_real\nupdate_config=1\nap_scan=0\n' >/tmp/wpa_real.conf
/usr/sbin/wpa_supplicant -B -D wired -i wlan1 -c /tmp/wpa_real.conf -P /tmp/wpa_real.pid >/dev/null
sleep 0.5
"$bin" -c /tmp/wpa_real.conf -i wlan1 -m 10
for _ in $(seq 100); do [ -S $socket ] && break; sleep 0.05; done
sleep 1
echo "memory beside wpa_supplicant: $warm_up requests of warm-up, then $mixed mixed..." >&2
real_worker=$(child_of "$(supervisor_of)")
"$bench" mixed $socket "$warm_up" >/dev/null
real_rss_warm=$(rss_kib "$real_worker"); real_anon_warm=$(anon_kib "$real_worker")
"$bench" mixed $socket "$mixed" >/dev/null
real_worker_rss=$(rss_kib "$real_worker"); real_anon_mixed=$(anon_kib "$real_worker")
wpa_rss=$(rss_kib "$(cat /tmp/wpa_real.pid)")
echo "the client beside wpa_cli, by turns..." >&2
pair=$("$bench" pair 300 "$bin" -C "function=GetNetSetting" -- wpa_cli -p /tmp/wpa_real -i wlan1 status)
[[ $pair =~ \"a\":(\{[^}]*\}) ]] && cli=${BASH_REMATCH[1]}
[[ $pair =~ \"b\":(\{[^}]*\}) ]] && wpacli=${BASH_REMATCH[1]}
arm_cli=null
# The private root does not show binfmt_misc, so whether qemu-arm is
# registered is seen by running the ARM executable once.
export QEMU_LD_PREFIX=/usr/arm-linux-gnueabihf
arm_bin=$armhf_build/wifi_manager/wifi_manager
if [ -n "$armhf_build" ] && "$arm_bin" -v >/dev/null 2>&1; then
  echo "the ARM client under emulation..." >&2
  arm_cli=$("$bench" run 100 "$arm_bin" -C "function=GetNetSetting")
fi

strip -o /tmp/wifi_manager.stripped "$bin"
size=$(stat -c %s /tmp/wifi_manager.stripped)
cli_med=$(top "$cli" median_us); wpacli_med=$(top "$wpacli" median_us)
ratio=$(awk -v r="$(top "$pair" ratio)" 'BEGIN {printf "%.2f", r}')
ratio_of() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.2f", a / b}'; }
sim_growth=$((sim_rss_mixed - sim_rss_warm))
real_growth=$((real_worker_rss - real_rss_warm))
growth=$((sim_growth > real_growth ? sim_growth : real_growth))

json="{\"machine\":\"$(nproc) cores, $(uname -m), $(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1)\","
json+="\"requests\":$req,\"throughput\":$thr,\"throughput_light\":$thr_light,\"log_lines\":$logl,\"connect\":$con,"
json+="\"client\":{\"wifi_manager_C\":$cli,\"wpa_cli_status\":$wpacli,\"ratio\":$ratio,\"armhf_emulated\":$arm_cli},"
json+="\"warm_up_requests\":$warm_up,\"mixed_requests\":$mixed,\"worker_growth_kib\":{\"simulator\":$sim_growth,\"wpa_supplicant\":$real_growth},"
json+="\"memory_kib\":{\"supervisor_rss_start\":$sup_rss0,\"supervisor_pss_start\":$sup_pss0,"
json+="\"supervisor_rss_after\":$sup_rss1,\"supervisor_pss_after\":$sup_pss1,"
json+="\"worker_rss_start\":$rss0,\"worker_pss_start\":$pss0,\"worker_rss_after\":$rss1,"
json+="\"worker_pss_after\":$pss1,\"worker_rss_with_wpa_supplicant\":$real_worker_rss,"
json+="\"worker_rss_after_warm_up_with_simulator\":$sim_rss_warm,\"worker_rss_after_mixed_with_simulator\":$sim_rss_mixed,"
json+="\"wpa_supplicant_rss\":$wpa_rss},"
json+="\"worker_threads\":{\"start\":$threads0,\"after\":$threads1},"
json+="\"stripped_executable_bytes\":$size,"
json+="\"idle\":{\"seconds\":$idle_s,\"cpu_percent_of_one_core\":$idle_cpu_pct,\"wakeups_per_s\":$wakeups}}"
echo "$json" >"$build/bench.json"

echo
echo "Machine: $(nproc) cores, $(uname -m); requests per kind: $requests"
echo
echo "Targets, each as a ratio against its anchor (at or below 1.00 meets it):"
printf '| %-52s | %10s | %12s | %6s |\n' "Target" "measure" "anchor" "ratio"
printf '|%s|%s|%s|%s|\n' "------------------------------------------------------" "------------" "--------------" "--------"
printf '| %-52s | %7s µs | %9s µs | %6s |\n' "client: -C GetNetSetting / wpa_cli status, medians" \
  "$cli_med" "$wpacli_med" "$ratio"
printf '| %-52s | %6s KiB | %10s KiB | %6s |\n' "worker RSS after $mixed requests / wpa_supplicant's" \
  "$real_worker_rss" "$wpa_rss" "$(ratio_of "$real_worker_rss" "$wpa_rss")"
printf '| %-52s | %6s KiB | %10s KiB | %6s |\n' "worker growth over $mixed requests after warm-up" \
  "$growth" "64" "$(ratio_of "$growth" 64)"
printf '| %-52s | %6s KiB | %10s KiB | %6s |\n' "stripped executable" "$((size / 1024))" "400" \
  "$(ratio_of "$size" 409600)"
echo
printf 'Growth after %s requests of warm-up: %s KiB with the simulator (30 networks; anonymous memory %s KiB), %s KiB beside wpa_supplicant (anonymous %s KiB).\n' \
  "$warm_up" "$sim_growth" "$((sim_anon_mixed - sim_anon_warm))" "$real_growth" "$((real_anon_mixed - real_anon_warm))"
if [ "$arm_cli" != null ]; then
  printf 'ARM (armhf) client under qemu-user emulation: median %s µs, p99 %s µs.\n' \
    "$(top "$arm_cli" median_us)" "$(top "$arm_cli" p99_us)"
fi
echo
printf '| %-42s | %12s | %12s | %12s |\n' "Measure" "median" "p99" "max"
printf '|%s|%s|%s|%s|\n' "--------------------------------------------" "--------------" "--------------" "--------------"
for k in GetAPList GetNetSetting GetWPSPin unknown; do
  printf '| %-42s | %9s µs | %9s µs | %9s µs |\n' "round trip, $k" \
    "$(field "$req" "$k" median_us)" "$(field "$req" "$k" p99_us)" "$(field "$req" "$k" max_us)"
done
printf '| %-42s | %9s µs | %9s µs | %12s |\n' "wifi_manager -C GetNetSetting (process)" "$cli_med" "$(top "$cli" p99_us)" ""
printf '| %-42s | %9s µs | %9s µs | %12s |\n' "wpa_cli status (process)" "$wpacli_med" "$(top "$wpacli" p99_us)" ""
printf '| %-42s | %12s | %12s | %12s |\n' "ratio of medians, -C / wpa_cli" "$ratio" "" ""
printf '| %-42s | %9s µs | %9s µs | %12s |\n' "ConnectAP less the fixed 500 ms pause" "$(top "$con" own_median_us)" "" ""
printf '| %-42s | %12s | %12s | %12s |\n' "worker RSS / PSS KiB, start" "$rss0" "$pss0" ""
printf '| %-42s | %12s | %12s | %12s |\n' "worker RSS / PSS KiB, after the requests" "$rss1" "$pss1" ""
printf '| %-42s | %12s | %12s | %12s |\n' "supervisor RSS / PSS KiB, start" "$sup_rss0" "$sup_pss0" ""
printf '| %-42s | %12s | %12s | %12s |\n' "supervisor RSS / PSS KiB, after" "$sup_rss1" "$sup_pss1" ""
printf '| %-42s | %12s | %12s | %12s |\n' "wpa_supplicant RSS KiB (same run)" "$wpa_rss" "" ""
printf '| %-42s | %12s | %12s | %12s |\n' "worker threads, start / after" "$threads0" "$threads1" ""
printf '| %-42s | %12s | %12s | %12s |\n' "stripped executable, bytes" "$size" "" ""
printf '| %-42s | %11s%% | %12s | %12s |\n' "idle connected: CPU of one core" "$idle_cpu_pct" "" ""
printf '| %-42s | %12s | %12s | %12s |\n' "idle connected: wake-ups per second" "$wakeups" "" ""
echo
print_load_table
echo
echo "JSON: $build/bench.json"
