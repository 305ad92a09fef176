// The radio world inside the VM, as seen from the scenarios and the
// recorder: the station's wpa_supplicant and the access points' hostapd
// through their control sockets, a recorder of their events, the daemon of
// the build tree running in the station's network namespace, and what the
// device's scripts left on the station (addresses, routes).
//
// tests/radio/guest/world.sh builds the world; its layout is repeated here.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace radio {

// Where world.sh puts the control sockets and the station.
extern const char* const kStationSocket;   // the station's wpa_supplicant
extern const char* const kAccessPointDir;  // one socket per access point interface
extern const char* const kStationConfig;   // the camera's wpa_supplicant.conf
extern const char* const kStationPidFile;  // written by the example station script

// One access point of the world.
struct access_point {
    const char* ssid;
    const char* interface;  // hostapd's control socket name
    const char* bssid;
    const char* key;  // passphrase or WEP key; empty when open
};
extern const access_point kWpa2;   // WPA2-PSK CCMP, WPS
extern const access_point kTkip;   // WPA-PSK TKIP only
extern const access_point kMixed;  // WPA-PSK and WPA2-PSK
extern const access_point kOpen;
extern const access_point kWep40;
extern const access_point kWep104;
extern const access_point kFirst;   // WPA2-PSK, WPS, a hostapd of its own
extern const access_point kSecond;  // WPA2-PSK, a hostapd of its own
extern const access_point kDhcp;    // open, with a DHCP server on 192.168.77.0/24
std::vector<access_point> all_access_points();

// One request on a control socket; the reply, or "" when the socket did not
// answer (wpa_ctrl waits 10 s).
std::string ctrl_request(const std::string& socket_path, const std::string& command);
std::string station(const std::string& command);
std::string access_point_command(const access_point& ap, const std::string& command);
// The value of key in a "key=value" reply (STATUS), or "".
std::string reply_value(const std::string& reply, const std::string& key);
// The SCAN_RESULTS line of a BSSID, or "".
std::string scan_line(const std::string& scan_results, const std::string& bssid);

// A command run in the station's network namespace; its output.
std::string in_station(const std::vector<std::string>& argv, int* exit_status = nullptr);
// The station's IPv4 address with its prefix ("192.168.77.101/24"), or "".
std::string station_address();
// Whether the station reaches address over the air.
bool station_pings(const std::string& address);
// The station's wpa_supplicant: running (PING answered) after the example
// station script started it when it was not.
bool ensure_station_running();
pid_t station_supplicant_pid();

// One event of a control socket, with its time in ms of CLOCK_MONOTONIC.
struct radio_event {
    long ms = 0;
    std::string text;  // as sent, level prefix included ("<3>CTRL-EVENT-...")
};

// Records every event of one control socket from a thread of its own. The
// socket may go away and come back (wpa_supplicant restarted): it is
// attached again.
struct event_recorder {
    std::string socket_path;
    std::thread thread;
    std::atomic<bool> stop{false};
    std::mutex lock;
    std::vector<radio_event> events;
};
void recorder_start(event_recorder* recorder, const std::string& socket_path);
void recorder_stop(event_recorder* recorder);
size_t recorder_count(event_recorder* recorder);
std::vector<radio_event> recorder_since(event_recorder* recorder, size_t first);
// Waits until an event at or after first contains text; its index, or -1.
long recorder_wait(event_recorder* recorder, size_t first, const std::string& text, int timeout_ms);

// The daemon of the build tree in the foreground, in the station's network
// namespace, with every default path: -c /etc/wpa_supplicant.conf -i wlan0.
struct running_daemon {
    pid_t supervisor = -1;
};
bool daemon_start(running_daemon* daemon);
void daemon_stop(running_daemon* daemon);
// The worker: the supervisor's child, or -1.
pid_t daemon_worker(const running_daemon& daemon);
// One request over the socket, framed by hand; the XML answer or "".
std::string ask(const std::string& request);

}  // namespace radio
