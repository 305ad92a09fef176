// A simulator of wpa_supplicant's control interface with a described radio
// world, for the daemon's tests and the demo. It answers on a Unix datagram
// socket at <ctrl_dir>/<interface> as wpa_supplicant 2.10 does, and takes
// test controls on <ctrl_dir>/<interface>.sim.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

// An access point in range.
struct sim_ap {
    std::string bssid;
    int freq = 2412;
    int level = -50;
    std::string flags;    // as SCAN_RESULTS shows them, e.g. [WPA2-PSK-CCMP][ESS]
    std::string key;      // passphrase, WEP key, or empty for an open network
    std::string wps;      // "", "pbc" (push button active) or the PIN it accepts
    bool reject = false;  // association is rejected
    std::string ssid;
};

// A configured network: its variables as SET_NETWORK stored them.
struct sim_network {
    int id = 0;
    bool enabled = false;
    std::map<std::string, std::string> vars;
};

struct sim_client {
    struct sockaddr_un addr;
    socklen_t len;
};

struct sim_timer {
    long due_ms;
    std::function<void()> run;
};

struct sim_state {
    std::string ctrl_dir;
    std::string interface;
    std::string world_file;
    std::string config_file;
    std::string log_file;
    // The command log again, each line led by the world's time in ms.
    std::string timeline_file;
    long running_timer_due_ms = -1;
    int fd = -1;
    int control_fd = -1;
    std::vector<sim_client> attached;
    std::vector<sim_ap> aps;
    std::vector<sim_network> networks;
    // Timing of the radio world. The defaults are what the real stack
    // showed (Debian's kernel with mac80211_hwsim, hostapd and
    // wpa_supplicant 2.10); test worlds shorten them.
    int connect_delay_ms = 100;        // between the steps of an association
    int scan_delay_ms = 200;           // from SCAN-STARTED to SCAN-RESULTS
    int wps_delay_ms = 300;            // the EAP-WSC exchange
    int handshake_fail_ms = 4100;      // association to the failed 4-way handshake
    int temp_disable_ms = 10000;       // a "duration=10" of a temporarily disabled network
    int wps_reassoc_ms = 160;          // WPS-SUCCESS to the new association's CONNECTED
    long last_scan_ms = -1;            // when the last scan's results came
    std::map<int, int> auth_failures;  // by network id
    // Access points the station has seen, with the id it gave each; a scan
    // announces those it sees for the first time.
    std::map<std::string, int> known_bss;
    int next_bss_id = 0;
    // Connection state.
    std::string wpa_state = "DISCONNECTED";
    int current_id = -1;
    std::string current_bssid;
    long attempt_generation = 0;
    // Commands to answer with FAIL (every time or once) or not at all, by
    // their first word.
    std::map<std::string, std::string> faults;
    std::vector<sim_timer> timers;
    bool running = true;
};

extern sim_state g_sim;

long sim_now_ms();
long sim_world_ms();
void sim_after(int delay_ms, std::function<void()> run);
void sim_event(const std::string& text);  // to every attached client, with "<3>"
void sim_log(const std::string& command, const std::string& reply);
// A line of the timed log at the world's time: a command as it arrives
// (before the events it sets off), or an event.
void sim_log_arrival(const std::string& what);

bool sim_load_world(const std::string& path);
std::string sim_handle_command(const std::string& command, const sim_client& from, bool* answer);
std::string sim_handle_control(const std::string& control);

// The steps of one attempt, each after the one before it, all dropped when a
// newer attempt, a disconnect or a removed network came first.
struct sim_timeline {
    long generation;
    int at_ms;
};
sim_timeline sim_new_timeline();
void sim_then(sim_timeline* t, int delay_ms, std::function<void()> run);
// The end of a scan: new access points announced, then the results.
void sim_scan_done();
// A scan within an attempt; `after` runs on its results.
void sim_scan_then(sim_timeline* t, std::function<void()> after);
// Authentication and association with ap, one step each step_ms.
void sim_associate(sim_timeline* t, const sim_ap& ap, int step_ms);
// The end of a WPA association: handshake, then connected as network id.
void sim_finish_wpa(sim_timeline* t, int id, const sim_ap& ap, int step_ms);
void sim_complete(int id, const sim_ap& ap);
bool sim_ap_is_open(const sim_ap& ap);
std::string sim_network_ssid(const sim_network& n);
// An SSID as wpa_supplicant prints it in its lists, STATUS and events:
// bytes outside 32..126 as \xNN, quote and backslash escaped.
std::string sim_ssid_text(const std::string& ssid);
// The bytes of a SET_NETWORK ssid value ("text", P"escaped" or hex), and
// the value as wpa_supplicant keeps it: quoted when every byte is
// printable ASCII, hexadecimal otherwise.
bool sim_ssid_value_bytes(const std::string& value, std::string* bytes);
std::string sim_ssid_stored_value(const std::string& bytes);
int sim_lowest_free_network_id();

// Radio world: scans, connection attempts, WPS.
void sim_start_scan();
std::string sim_scan_results();
void sim_start_connect();
void sim_drop_link(int reason);
std::string sim_start_wps(bool pbc, const std::string& pin);
std::string sim_status();
void sim_save_config();
