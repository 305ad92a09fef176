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
    int fd = -1;
    int control_fd = -1;
    std::vector<sim_client> attached;
    std::vector<sim_ap> aps;
    std::vector<sim_network> networks;
    int connect_delay_ms = 100;
    int scan_delay_ms = 200;
    int wps_delay_ms = 300;
    // Connection state.
    std::string wpa_state = "DISCONNECTED";
    int current_id = -1;
    std::string current_bssid;
    long attempt_generation = 0;
    int attempt_id = -1;  // the network an association in progress is for
    // Commands to answer with FAIL or not at all, by their first word.
    std::map<std::string, std::string> faults;
    std::vector<sim_timer> timers;
    bool running = true;
};

extern sim_state g_sim;

long sim_now_ms();
void sim_after(int delay_ms, std::function<void()> run);
void sim_event(const std::string& text);  // to every attached client, with "<3>"
void sim_log(const std::string& command, const std::string& reply);

bool sim_load_world(const std::string& path);
std::string sim_handle_command(const std::string& command, const sim_client& from, bool* answer);
std::string sim_handle_control(const std::string& control);

// Radio world: scans, connection attempts, WPS.
void sim_start_scan();
std::string sim_scan_results();
void sim_start_connect();
void sim_drop_link(int reason);
std::string sim_start_wps(bool pbc, const std::string& pin);
std::string sim_status();
void sim_save_config();
