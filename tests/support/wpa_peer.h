// Peers for the daemon's tests: the real wpa_supplicant on one end of a veth
// pair (wired driver), the daemon binary itself, and recording station
// scripts. Tests that use the wired peer run in a private network namespace
// (wifim_add_gtest(... NET)).
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace wifim_test {

struct wpa_peer {
    pid_t pid = -1;
    std::string interface;  // the daemon's station interface
    std::string ctrl_dir;   // wpa_supplicant's control directory
    std::string config;     // wpa_supplicant's configuration file
};

// Creates the veth pair <interface>/<interface>-peer and starts
// "wpa_supplicant -D wired" on <interface> with a configuration holding
// ctrl_interface=<ctrl_dir>, update_config=1, ap_scan=0 and extra_config.
// Waits until its control socket answers PING.
bool start_wired_wpa_supplicant(wpa_peer* peer, const std::string& interface = "wlan0",
                                const std::string& extra_config = "");
void stop_wpa_peer(wpa_peer* peer);

// The simulator (tests/wpa_sim) with the radio world described by
// world_text (lines "ap <bssid> <freq> <level> <flags> key=<k> wps=<pbc|pin|->
// [reject] ssid=<ssid>", and "connect_delay_ms N" and the like). Its
// command log is /tmp/wpa_sim.commands.
// extra: more arguments for the simulator (-t <file> for its timed log).
bool start_simulator(wpa_peer* peer, const std::string& world_text,
                     const std::string& interface = "wlan0",
                     const std::vector<std::string>& extra = {});
// Sends a test control (RELOAD, AP ..., CLEAR_APS, DROP [reason], EVENT <text>,
// FAULT <COMMAND> FAIL|SILENT|NONE, CRASH, STATE) and returns the reply.
std::string sim_control(const wpa_peer& peer, const std::string& control);
// Commands the simulator received, in order, without their replies; events
// it sent are listed as "EVENT <text>".
std::vector<std::string> sim_commands();
void clear_sim_commands();

// One command through the real wpa_cli; returns its output.
std::string wpa_cli(const wpa_peer& peer, const std::vector<std::string>& command);

// Station scripts and connected hook that record each call, one line per
// call ("wifi_station.sh stop", "wifista_connected.sh"), into
// /tmp/station_calls.log, and exit with the status written in
// /tmp/hook_exit_status (0 when the file is missing).
void install_recording_scripts();
std::vector<std::string> recorded_script_calls();
void set_hook_exit_status(int status);

// The daemon in the foreground against a peer; its console goes to
// /tmp/daemon.console. Waits for the request socket.
struct running_daemon {
    pid_t pid = -1;
};
bool start_daemon(running_daemon* daemon, const std::string& wpa_config,
                  const std::string& interface = "wlan0",
                  const std::vector<std::string>& extra = {});
int stop_daemon(running_daemon* daemon, int grace_ms = 8000);

// Lines of /tmp/wifi_manager.log that contain text.
std::vector<std::string> log_lines_with(const std::string& text);

}  // namespace wifim_test
