// Every fixed path and file name of the device, in one place. The shipped
// daemon uses exactly these; tests run it in a private filesystem root
// (tests/sandbox/run-isolated) instead of changing them.
#pragma once

// Request channel between the device's pages/scripts and the worker.
#define WIFIM_SOCKET_FILE "/tmp/wifi_manager.socket"
// The one log file of supervisor and worker.
#define WIFIM_LOG_FILE "/tmp/wifi_manager.log"
// Benchmark builds only (WIFIM_LOG_COUNTERS): the lines the log was asked to
// write and the lines that reached it, two native 64-bit counters.
#define WIFIM_LOG_COUNTERS_FILE "/tmp/wifi_manager.log.counts"
// Registered profiles and IP settings of the station.
#define WIFIM_PROFILE_FILE "/www/nvram.wifista"
// Present while the station is connected; removed when the link drops.
#define WIFIM_CONNECTED_MARKER_FILE "/tmp/wifista_connected"
// Station scripts run by the supervisor when it restarts a silent worker.
#define WIFIM_STATION_SCRIPT "/home/qorun/wifi_station.sh"
#define WIFIM_STATION_STOP_COMMAND WIFIM_STATION_SCRIPT " stop"
#define WIFIM_STATION_START_COMMAND WIFIM_STATION_SCRIPT " start"
// Hook that applies the IP settings once the station is connected.
#define WIFIM_CONNECTED_HOOK "/home/qorun/wifista_connected.sh"
// System files read for the network settings report.
#define WIFIM_RESOLV_CONF_FILE "/etc/resolv.conf"
#define WIFIM_ROUTE_FILE "/proc/net/route"
// Entropy for WPS PINs.
#define WIFIM_URANDOM_FILE "/dev/urandom"
// wpa_supplicant defaults: its configuration file, and the control
// directory used when that file names none.
#define WIFIM_DEFAULT_WPA_CONFIG_FILE "/etc/wpa_supplicant.conf"
#define WIFIM_DEFAULT_WPA_CTRL_DIR "/var/run/wpa_supplicant"
