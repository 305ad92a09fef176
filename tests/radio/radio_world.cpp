#include "radio_world.h"

#include <dirent.h>
#include <signal.h>
#include <sys/select.h>
#include <unistd.h>
#include <wpa_ctrl.h>

#include <chrono>
#include <cstdlib>

#include "fixed_paths.h"
#include "raw_client.h"
#include "test_support.h"

namespace radio {

const char* const kStationSocket = "/run/wpa_supplicant/wlan0";
const char* const kAccessPointDir = "/run/hostapd";
const char* const kStationConfig = "/etc/wpa_supplicant.conf";
const char* const kStationPidFile = "/run/wpa_supplicant-wlan0.pid";

const access_point kWpa2 = {"radio-wpa2", "wlan1", "02:00:00:00:01:00", "correct-horse-battery"};
const access_point kTkip = {"radio-tkip", "wlan1_1", "02:00:00:00:01:01", "tkip-only-passphrase"};
const access_point kMixed = {"radio-mixed", "wlan1_2", "02:00:00:00:01:02",
                             "mixed-mode-passphrase"};
const access_point kOpen = {"radio-open", "wlan2", "02:00:00:00:02:00", ""};
const access_point kWep40 = {"radio-wep40", "wlan2_1", "02:00:00:00:02:01", "abcde"};
const access_point kWep104 = {"radio-wep104", "wlan2_2", "02:00:00:00:02:02", "abcdefghijklm"};
const access_point kFirst = {"radio-first", "wlan3", "02:00:00:00:03:00", "first-passphrase"};
const access_point kSecond = {"radio-second", "wlan4", "02:00:00:00:04:00", "second-passphrase"};
const access_point kDhcp = {"radio-dhcp", "wlan5", "02:00:00:00:05:00", ""};

std::vector<access_point> all_access_points() {
    return {kWpa2, kTkip, kMixed, kOpen, kWep40, kWep104, kFirst, kSecond, kDhcp};
}

std::string ctrl_request(const std::string& socket_path, const std::string& command) {
    struct wpa_ctrl* ctrl = wpa_ctrl_open(socket_path.c_str());
    if (ctrl == nullptr) {
        return "";
    }
    std::string reply;
    char buf[16384];
    size_t len = sizeof(buf) - 1;
    if (wpa_ctrl_request(ctrl, command.c_str(), command.size(), buf, &len, nullptr) == 0) {
        reply.assign(buf, len);
    }
    wpa_ctrl_close(ctrl);
    return reply;
}

std::string station(const std::string& command) {
    return ctrl_request(kStationSocket, command);
}

std::string access_point_command(const access_point& ap, const std::string& command) {
    return ctrl_request(std::string(kAccessPointDir) + "/" + ap.interface, command);
}

std::string reply_value(const std::string& reply, const std::string& key) {
    for (const std::string& line : wifim_test::split_lines(reply)) {
        if (line.compare(0, key.size() + 1, key + "=") == 0) {
            return line.substr(key.size() + 1);
        }
    }
    return "";
}

std::string scan_line(const std::string& scan_results, const std::string& bssid) {
    for (const std::string& line : wifim_test::split_lines(scan_results)) {
        if (line.compare(0, bssid.size(), bssid) == 0) {
            return line;
        }
    }
    return "";
}

std::string in_station(const std::vector<std::string>& argv, int* exit_status) {
    std::vector<std::string> full = {"/usr/bin/ip", "netns", "exec", "sta"};
    full.insert(full.end(), argv.begin(), argv.end());
    wifim_test::process_result r = wifim_test::run_process(full, 60000);
    if (exit_status != nullptr) {
        *exit_status = r.exit_status;
    }
    return r.out;
}

std::string station_address() {
    std::string out = in_station({"/usr/bin/ip", "-4", "-o", "addr", "show", "dev", "wlan0"});
    size_t inet = out.find(" inet ");
    if (inet == std::string::npos) {
        return "";
    }
    size_t start = inet + 6;
    return out.substr(start, out.find(' ', start) - start);
}

bool station_pings(const std::string& address) {
    int status = -1;
    in_station({"/usr/bin/busybox", "ping", "-c", "1", "-W", "5", address}, &status);
    return status == 0;
}

pid_t station_supplicant_pid() {
    std::string text = wifim_test::read_file(kStationPidFile);
    return text.empty() ? -1 : static_cast<pid_t>(atoi(text.c_str()));
}

bool ensure_station_running() {
    if (station("PING") == "PONG\n") {
        return true;
    }
    in_station({"/home/qorun/wifi_station.sh", "start"});
    return wifim_test::wait_until([] { return station("PING") == "PONG\n"; }, 20000);
}

// ------------------------------------------------------------ recorder

static void recorder_keep(event_recorder* recorder, const char* text, size_t len) {
    radio_event event;
    event.ms = wifim_test::now_ms();
    event.text.assign(text, len);
    std::lock_guard<std::mutex> hold(recorder->lock);
    recorder->events.push_back(event);
}

// Events that arrive while the recorder's own PING waits for its reply come
// through wpa_ctrl's callback, which has no argument of ours.
static thread_local event_recorder* t_recorder = nullptr;
static void recorder_keep_during_request(char* text, size_t len) {
    recorder_keep(t_recorder, text, len);
}

static void recorder_loop(event_recorder* recorder) {
    t_recorder = recorder;
    struct wpa_ctrl* ctrl = nullptr;
    long last_ping = 0;
    while (!recorder->stop) {
        if (ctrl == nullptr) {
            ctrl = wpa_ctrl_open(recorder->socket_path.c_str());
            if (ctrl != nullptr && wpa_ctrl_attach(ctrl) != 0) {
                wpa_ctrl_close(ctrl);
                ctrl = nullptr;
            }
            if (ctrl == nullptr) {
                usleep(200000);
                continue;
            }
            last_ping = wifim_test::now_ms();
        }
        int fd = wpa_ctrl_get_fd(ctrl);
        fd_set fds;
        FD_ZERO(&fds);
        FD_SET(fd, &fds);
        struct timeval wait = {0, 100000};
        select(fd + 1, &fds, nullptr, nullptr, &wait);
        while (wpa_ctrl_pending(ctrl) > 0) {
            char buf[4096];
            size_t len = sizeof(buf) - 1;
            if (wpa_ctrl_recv(ctrl, buf, &len) != 0) {
                break;
            }
            recorder_keep(recorder, buf, len);
        }
        // A datagram socket does not tell that its peer is gone: ask it.
        if (wifim_test::now_ms() - last_ping > 1000) {
            last_ping = wifim_test::now_ms();
            // Events that arrive meanwhile come through this same buffer:
            // it holds a whole event, not just the PONG.
            char reply[4096];
            size_t len = sizeof(reply);
            if (wpa_ctrl_request(ctrl, "PING", 4, reply, &len, recorder_keep_during_request) != 0) {
                wpa_ctrl_close(ctrl);
                ctrl = nullptr;
            }
        }
    }
    if (ctrl != nullptr) {
        wpa_ctrl_detach(ctrl);
        wpa_ctrl_close(ctrl);
    }
}

void recorder_start(event_recorder* recorder, const std::string& socket_path) {
    recorder->socket_path = socket_path;
    recorder->stop = false;
    recorder->thread = std::thread(recorder_loop, recorder);
}

void recorder_stop(event_recorder* recorder) {
    recorder->stop = true;
    if (recorder->thread.joinable()) {
        recorder->thread.join();
    }
}

size_t recorder_count(event_recorder* recorder) {
    std::lock_guard<std::mutex> hold(recorder->lock);
    return recorder->events.size();
}

std::vector<radio_event> recorder_since(event_recorder* recorder, size_t first) {
    std::lock_guard<std::mutex> hold(recorder->lock);
    if (first >= recorder->events.size()) {
        return {};
    }
    return std::vector<radio_event>(recorder->events.begin() + static_cast<long>(first),
                                    recorder->events.end());
}

long recorder_wait(event_recorder* recorder, size_t first, const std::string& text,
                   int timeout_ms) {
    long found = -1;
    wifim_test::wait_until(
        [&] {
            std::lock_guard<std::mutex> hold(recorder->lock);
            for (size_t i = first; i < recorder->events.size(); i++) {
                if (recorder->events[i].text.find(text) != std::string::npos) {
                    found = static_cast<long>(i);
                    return true;
                }
            }
            return false;
        },
        timeout_ms);
    return found;
}

// ------------------------------------------------------------ daemon

bool daemon_start(running_daemon* daemon) {
    daemon->supervisor = wifim_test::spawn_process(
        {"/usr/bin/ip", "netns", "exec", "sta", wifim_test::daemon_binary(), "-F"},
        "/tmp/daemon.console");
    return wifim_test::wait_until([] { return wifim_test::file_exists(WIFIM_SOCKET_FILE); }, 20000);
}

pid_t daemon_worker(const running_daemon& daemon) {
    DIR* proc = opendir("/proc");
    if (proc == nullptr) {
        return -1;
    }
    pid_t worker = -1;
    while (struct dirent* entry = readdir(proc)) {
        pid_t pid = static_cast<pid_t>(atoi(entry->d_name));
        if (pid <= 0) {
            continue;
        }
        std::string stat = wifim_test::read_file("/proc/" + std::to_string(pid) + "/stat");
        size_t close_paren = stat.rfind(')');
        if (close_paren == std::string::npos || stat.find("(wifi_manager)") == std::string::npos) {
            continue;
        }
        // "pid (comm) state ppid ..."
        int ppid = atoi(stat.c_str() + close_paren + 4);
        if (ppid == daemon.supervisor && stat[close_paren + 2] != 'Z') {
            worker = pid;
        }
    }
    closedir(proc);
    return worker;
}

void daemon_stop(running_daemon* daemon) {
    if (daemon->supervisor <= 0) {
        return;
    }
    pid_t worker = daemon_worker(*daemon);
    wifim_test::stop_process(daemon->supervisor, 15000);
    // The supervisor does not wait for its worker, which writes the profile
    // file back on its way out: the next scenario must not start before.
    if (worker > 0 &&
        !wifim_test::wait_until([worker] { return !wifim_test::process_alive(worker); }, 15000)) {
        kill(worker, SIGKILL);
    }
    daemon->supervisor = -1;
    unlink(WIFIM_SOCKET_FILE);
}

std::string ask(const std::string& request) {
    std::string answer;
    wifim_raw::round_trip(WIFIM_SOCKET_FILE, request, &answer, 300);
    return answer;
}

}  // namespace radio
