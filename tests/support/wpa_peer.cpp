#include "wpa_peer.h"

#include <signal.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "test_support.h"

namespace wifim_test {

static const char* kCallsLog = "/tmp/station_calls.log";
static const char* kHookStatus = "/tmp/hook_exit_status";

std::string wpa_cli(const wpa_peer& peer, const std::vector<std::string>& command) {
    std::vector<std::string> argv = {"/usr/sbin/wpa_cli", "-p", peer.ctrl_dir, "-i",
                                     peer.interface};
    argv.insert(argv.end(), command.begin(), command.end());
    return run_process(argv, 10000).out;
}

bool start_wired_wpa_supplicant(wpa_peer* peer, const std::string& interface,
                                const std::string& extra_config) {
    peer->interface = interface;
    peer->ctrl_dir = "/tmp/wpa_ctrl";
    peer->config = "/tmp/wpa_supplicant.conf";
    mkdir(peer->ctrl_dir.c_str(), 0700);
    std::string link = "ip link add " + interface + " type veth peer name " + interface +
                       "-peer && ip link set " + interface + " up && ip link set " + interface +
                       "-peer up";
    if (run_process({"/bin/sh", "-c", link}).exit_status != 0) {
        return false;
    }
    write_file(peer->config, "ctrl_interface=" + peer->ctrl_dir + "\nupdate_config=1\nap_scan=0\n" +
                                 extra_config);
    peer->pid = spawn_process(
        {"/usr/sbin/wpa_supplicant", "-D", "wired", "-i", interface, "-c", peer->config},
        "/tmp/wpa_supplicant.out");
    return wait_until([peer] { return wpa_cli(*peer, {"PING"}) == "PONG\n"; }, 60000);
}

void stop_wpa_peer(wpa_peer* peer) {
    stop_process(peer->pid);
    peer->pid = -1;
}

static const char* kSimCommands = "/tmp/wpa_sim.commands";

bool start_simulator(wpa_peer* peer, const std::string& world_text, const std::string& interface,
                     const std::vector<std::string>& extra) {
    peer->interface = interface;
    peer->ctrl_dir = "/tmp/wpa_ctrl";
    peer->config = "/tmp/wpa_supplicant.conf";
    mkdir(peer->ctrl_dir.c_str(), 0700);
    write_file(peer->config, "ctrl_interface=" + peer->ctrl_dir + "\nupdate_config=1\n");
    write_file("/tmp/wpa_sim.world", world_text);
    std::vector<std::string> argv = {WIFIM_BUILD_DIR "/tests/wpa_sim/wpa_sim",
                                     "-p",
                                     peer->ctrl_dir,
                                     "-i",
                                     interface,
                                     "-w",
                                     "/tmp/wpa_sim.world",
                                     "-c",
                                     peer->config,
                                     "-l",
                                     kSimCommands};
    argv.insert(argv.end(), extra.begin(), extra.end());
    peer->pid = spawn_process(argv, "/tmp/wpa_sim.out");
    return wait_until([peer] { return wpa_cli(*peer, {"PING"}) == "PONG\n"; }, 60000);
}

std::string sim_control(const wpa_peer& peer, const std::string& control) {
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    struct sockaddr_un local = {};
    local.sun_family = AF_UNIX;
    snprintf(local.sun_path, sizeof(local.sun_path), "/tmp/sim_control.%d", getpid());
    unlink(local.sun_path);
    bind(fd, reinterpret_cast<struct sockaddr*>(&local), sizeof(local));
    struct sockaddr_un to = {};
    to.sun_family = AF_UNIX;
    snprintf(to.sun_path, sizeof(to.sun_path), "%s/%s.sim", peer.ctrl_dir.c_str(),
             peer.interface.c_str());
    sendto(fd, control.data(), control.size(), 0, reinterpret_cast<struct sockaddr*>(&to),
           sizeof(to));
    struct timeval tv = {3, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    char buf[4096];
    ssize_t n = recv(fd, buf, sizeof(buf), 0);
    close(fd);
    unlink(local.sun_path);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
}

std::vector<std::string> sim_commands() {
    std::vector<std::string> out;
    for (const std::string& line : split_lines(read_file(kSimCommands))) {
        size_t tab = line.find('\t');
        std::string command = line.substr(0, tab);
        out.push_back(command == "EVENT" && tab != std::string::npos
                          ? "EVENT " + line.substr(tab + 1)
                          : command);
    }
    return out;
}

void clear_sim_commands() {
    unlink(kSimCommands);
}

void install_recording_scripts() {
    const std::string script =
        "#!/bin/sh\n"
        "echo \"$(basename \"$0\")${1:+ $1}\" >> " +
        std::string(kCallsLog) +
        "\n"
        "status=$(cat " +
        kHookStatus +
        " 2>/dev/null || echo 0)\n"
        "exit \"$status\"\n";
    mkdir("/home/qorun", 0755);
    write_file("/home/qorun/wifi_station.sh", script, 0755);
    write_file("/home/qorun/wifista_connected.sh", script, 0755);
}

std::vector<std::string> recorded_script_calls() {
    return split_lines(read_file(kCallsLog));
}

void set_hook_exit_status(int status) {
    write_file(kHookStatus, std::to_string(status) + "\n");
}

bool start_daemon(running_daemon* daemon, const std::string& wpa_config,
                  const std::string& interface, const std::vector<std::string>& extra) {
    std::vector<std::string> argv = {daemon_binary(), "-F", "-c", wpa_config, "-i", interface};
    argv.insert(argv.end(), extra.begin(), extra.end());
    daemon->pid = spawn_process(argv, "/tmp/daemon.console");
    // Generous for a loaded machine under a sanitizer; a daemon that starts
    // at all binds its socket within a second.
    return wait_until([] { return file_exists("/tmp/wifi_manager.socket"); }, 60000);
}

int stop_daemon(running_daemon* daemon, int grace_ms) {
    int status = stop_process(daemon->pid, grace_ms);
    daemon->pid = -1;
    return status;
}

std::vector<std::string> log_lines_with(const std::string& text) {
    std::vector<std::string> out;
    for (const auto& line : split_lines(read_file("/tmp/wifi_manager.log"))) {
        if (line.find(text) != std::string::npos) {
            out.push_back(line);
        }
    }
    return out;
}

}  // namespace wifim_test
