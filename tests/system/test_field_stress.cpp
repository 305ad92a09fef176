// Stress of the paths a camera in the field takes at once: the station
// switched off and on over and over while scans, connects and WPS run, and
// several clients changing settings and networks together. Every request
// is answered, the worker is never replaced, a station switched off is not
// left associated, every answered change is in the profile file, and the
// file is well formed whenever anyone reads it.
//
// WIFIM_STRESS_TOGGLES and WIFIM_STRESS_ROUNDS set the sizes (the suite's
// short form by default; scripts/soak.sh runs the long form).
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "raw_client.h"
#include "request_fixture.h"
#include "wifi_ap_info/wifi_ap_info.h"

namespace {

const char* kSocket = "/tmp/wifi_manager.socket";
const char* kProfile = "/www/nvram.wifista";

// The sanitizers make every request many times slower; their runs take a
// shorter form, the plain suite the longer one.
#ifdef WIFIM_SANITIZED
const int kSuiteToggles = 500;
const int kSuiteRounds = 150;
#else
const int kSuiteToggles = 2000;
const int kSuiteRounds = 400;
#endif

int env_count(const char* name, int fallback) {
    const char* value = getenv(name);
    return value != nullptr && atoi(value) > 0 ? atoi(value) : fallback;
}

// The answer, or "" when none came. The bound only keeps a broken daemon
// from hanging the test: a WPS run may take its full two minutes.
std::string request(const std::string& text) {
    std::string answer;
    wifim_raw::round_trip(kSocket, text, &answer, 300);
    return answer;
}

bool well_formed_answer(const std::string& answer) {
    return answer.compare(0, 5, "<?xml") == 0 && answer.find("<result>") != std::string::npos;
}

int element(const std::string& answer, const std::string& name) {
    std::string open = "<" + name + ">";
    size_t at = answer.find(open);
    return at == std::string::npos ? -1 : atoi(answer.c_str() + at + open.size());
}

pid_t worker_of(pid_t supervisor) {
    std::string children = wifim_test::read_file("/proc/" + std::to_string(supervisor) + "/task/" +
                                                 std::to_string(supervisor) + "/children");
    return children.empty() ? -1 : static_cast<pid_t>(atoi(children.c_str()));
}

// The keys of the file in the order the writer puts them, each on its own
// line, the profile keys complete for every number: what any reader of the
// file must find, whenever it reads.
bool profile_file_well_formed(const std::string& text, std::string* why) {
    std::vector<std::string> lines = wifim_test::split_lines(text);
    const std::vector<std::string> head = {
        "wifi_station_enable", "wifi_dhcp",    "wifi_dns_dhcp", "wifi_ip",
        "wifi_gateway",        "wifi_netmask", "wifi_dns1",     "wifi_dns2"};
    if (text.empty() || text.back() != '\n' || lines.size() < head.size()) {
        *why = "short or unterminated";
        return false;
    }
    for (size_t i = 0; i < head.size(); i++) {
        if (lines[i].compare(0, head[i].size() + 3, head[i] + " = ") != 0 &&
            lines[i] != head[i] + " =") {
            *why = "line " + std::to_string(i + 1) + " is not " + head[i];
            return false;
        }
    }
    const std::vector<std::string> keys = {"ssid_", "security_", "passwd_", "passwd_encode_",
                                           "priority_"};
    size_t profile_lines = lines.size() - head.size();
    if (profile_lines % keys.size() != 0) {
        *why = "a profile is cut short";
        return false;
    }
    for (size_t i = 0; i < profile_lines; i++) {
        std::string key = keys[i % keys.size()] + std::to_string(i / keys.size() + 1);
        const std::string& line = lines[head.size() + i];
        if (line.compare(0, key.size() + 2, key + " =") != 0) {
            *why = "profile line " + line + " where " + key + " belongs";
            return false;
        }
    }
    return true;
}

struct profile_state {
    bool enable = false;
    std::vector<wifi_ap_info> profiles;
    wifi_network_setting setting;
};

profile_state read_profile() {
    profile_state state;
    wapinfo_read_profile(&state.enable, &state.profiles, &state.setting);
    return state;
}

bool has_profile(const profile_state& state, const std::string& ssid) {
    for (const wifi_ap_info& p : state.profiles) {
        if (p.ssid == ssid) {
            return true;
        }
    }
    return false;
}

class FieldStress : public DaemonRequests {
  protected:
    void start_and_scan() {
        // A fresh file with the station switched on, also when an earlier
        // test in the same root (the soak's long run) left it off.
        start(kDefaultWorld,
              "wifi_station_enable = true\nwifi_dhcp = 1\nwifi_dns_dhcp = 1\nwifi_ip = \n"
              "wifi_gateway = \nwifi_netmask = \nwifi_dns1 = \nwifi_dns2 = \n");
        wait_for_scan();
        worker = worker_of(daemon.pid);
        ASSERT_GT(worker, 0);
    }

    // Every answer must be well formed; the first few misfits are shown.
    void check(const std::string& text, const std::string& answer) {
        answered++;
        if (!well_formed_answer(answer) && failures++ < 5) {
            ADD_FAILURE() << "request:\n" << text << "\nanswer:\n" << answer;
        }
    }

    // Clients that keep the controller busy until `running` drops: scans
    // (through the AP list), connects to both networks, WPS, disconnects.
    std::vector<std::thread> busy_clients(std::atomic<bool>* running) {
        const std::vector<std::vector<std::string>> mixes = {
            {"function=ConnectAP\nssid=home net\nsecurity=wpa2\npassword=secret123",
             "function=GetAPList", "function=Disconnect"},
            {"function=WPS", "function=GetConnected", "function=GetAPList"},
            {"function=ConnectAP\nssid=cafe\nsecurity=open", "function=GetAPList",
             "function=ReconnectAP\nssid=home net"},
        };
        std::vector<std::thread> clients;
        for (const auto& mix : mixes) {
            clients.emplace_back([this, mix, running] {
                for (size_t n = 0; *running; n++) {
                    const std::string& text = mix[n % mix.size()];
                    check(text, request(text));
                }
            });
        }
        return clients;
    }

    void expect_worker_kept() {
        EXPECT_EQ(worker_of(daemon.pid), worker) << "the worker was replaced";
        EXPECT_TRUE(wifim_test::log_lines_with("Received exception or illegal signal").empty());
    }

    pid_t worker = -1;
    std::atomic<int> answered{0};
    std::atomic<int> failures{0};
};

TEST_F(FieldStress, StationSwitchedOffAndOnWhileScansConnectsAndWpsRun) {
    const int toggles = env_count("WIFIM_STRESS_TOGGLES", kSuiteToggles);
    start_and_scan();
    std::atomic<bool> running{true};
    std::vector<std::thread> clients = busy_clients(&running);
    int switched = 0;
    for (int i = 0; i < toggles; i++) {
        int wanted = i % 2 == 0 ? 0 : 1;
        std::string text = "function=Enable\nenable=" + std::to_string(wanted);
        std::string answer = request(text);
        check(text, answer);
        if (element(answer, "enable") == wanted) {
            switched++;
        }
    }
    running = false;
    for (auto& t : clients) {
        t.join();
    }
    EXPECT_EQ(switched, toggles) << "Enable answers that did not report the state asked for";
    EXPECT_EQ(failures.load(), 0) << "of " << answered.load() << " requests";
    expect_worker_kept();
    printf("stress: %d switches of the station, %d requests answered\n", toggles, answered.load());

    // The station still works: switched on, it connects.
    ASSERT_EQ(element(request("function=Enable\nenable=1"), "enable"), 1);
    EXPECT_EQ(element(request("function=ConnectAP\nssid=home net\nsecurity=wpa2\npassword="
                              "secret123"),
                      "result"),
              0);
}

TEST_F(FieldStress, SwitchingOffDuringAConnectLeavesTheStationDisassociated) {
    start_and_scan();
    const int rounds = env_count("WIFIM_STRESS_SWITCH_ROUNDS", 20);
    for (int round = 0; round < rounds; round++) {
        ASSERT_EQ(element(request("function=Enable\nenable=1"), "enable"), 1);
        size_t connects = wifim_test::log_lines_with("Connect to AP, ssid:home net").size();
        std::string connect_answer;
        std::thread connect([&] {
            connect_answer =
                request("function=ConnectAP\nssid=home net\nsecurity=wpa2\npassword=secret123");
        });
        // Switch off once the service loop is carrying the connect out.
        ASSERT_TRUE(wifim_test::wait_until(
            [&] {
                return wifim_test::log_lines_with("Connect to AP, ssid:home net").size() > connects;
            },
            60000));
        usleep(static_cast<useconds_t>(rand() % 60) * 1000);
        EXPECT_EQ(element(request("function=Enable\nenable=0"), "enable"), 0);
        connect.join();
        EXPECT_TRUE(well_formed_answer(connect_answer)) << connect_answer;
        // The disconnect of the switch-off has run: the link is down, and
        // stays down while the station is off.
        EXPECT_TRUE(wifim_test::wait_until(
            [&] { return wifim_test::sim_control(peer, "STATE") != "COMPLETED\n"; }, 60000))
            << "round " << round << ": still associated with the station off";
        usleep(300000);
        if (wifim_test::sim_control(peer, "STATE") == "COMPLETED\n") {
            std::string trail;
            for (const std::string& c : wifim_test::sim_commands()) {
                trail += c + "\n";
            }
            FAIL() << "round " << round << ": associated again with the station off\n"
                   << trail.substr(trail.size() > 3000 ? trail.size() - 3000 : 0)
                   << wifim_test::read_file("/tmp/wifi_manager.log").substr(0, 0);
        }
    }
    expect_worker_kept();
}

TEST_F(FieldStress, ConcurrentSettingsAndProfileChangesAllReachTheFile) {
    const int rounds = env_count("WIFIM_STRESS_ROUNDS", kSuiteRounds);
    start_and_scan();
    std::atomic<bool> running{true};
    std::atomic<int> malformed{0};
    std::atomic<int> reads{0};
    std::thread reader([&] {
        while (running) {
            std::string text = wifim_test::read_file(kProfile);
            std::string why;
            reads++;
            if (!text.empty() && !profile_file_well_formed(text, &why) && malformed++ < 3) {
                ADD_FAILURE() << why << ":\n" << text;
            }
            usleep(1000);
        }
    });
    std::atomic<int> lost{0};
    auto lost_change = [&](const std::string& what, const profile_state& state) {
        if (lost++ < 5) {
            ADD_FAILURE() << what << "; the file holds enable=" << state.enable
                          << " ip=" << state.setting.ip_addr << " and " << state.profiles.size()
                          << " profiles";
        }
    };
    // The only client that sets the IP settings: each answered setting is
    // in the file until its next one.
    // (A SetNetSetting takes five seconds: the shell waits out the pause
    // before it starts the connected script in the background.)
    // One setting for every twenty rounds of the others, so that settings
    // and controller writes meet often enough.
    const int setting_rounds = std::max(2, rounds / 20);
    std::atomic<bool> settings_done{false};
    std::atomic<bool> changing{true};
    std::thread settings([&] {
        for (int i = 0; i < setting_rounds; i++) {
            std::string ip = "10.9." + std::to_string(i / 200) + "." + std::to_string(i % 200 + 1);
            std::string text = "function=SetNetSetting\ndhcp=0\ndns_dhcp=0\nip_addr=" + ip +
                               "\nnetmask=255.255.0.0\ngateway=10.9.0.254\ndns_server1=10.9.0.1";
            std::string answer = request(text);
            check(text, answer);
            profile_state state = read_profile();
            if (element(answer, "result") == 0 && state.setting.ip_addr != ip) {
                lost_change("IP setting " + ip + " answered", state);
            }
        }
        settings_done = true;
    });
    // The only client of the network "cafe": present after an answered
    // connect that succeeded, gone after an answered removal.
    std::thread cafe([&] {
        bool present = false;
        for (int i = 0; i < rounds || !settings_done; i++) {
            bool remove = i % 2 == 1;
            std::string text = remove ? "function=Remove\nssid=cafe\nsecurity=none"
                                      : "function=ConnectAP\nssid=cafe\nsecurity=open";
            std::string answer = request(text);
            check(text, answer);
            if (element(answer, "enable") != 1) {
                continue;  // the station was off: nothing was done
            }
            if (remove) {
                present = false;
            } else if (element(answer, "result") == 0) {
                present = true;
            }
            profile_state state = read_profile();
            // (A failed connect leaves the network as it was.)
            if (has_profile(state, "cafe") != present) {
                lost_change(std::string(remove ? "removal" : "connect") + " of cafe answered",
                            state);
            }
        }
    });
    // The only client of the station switch: each answered state is in the
    // file until the next switch.
    std::thread toggler([&] {
        for (int i = 0; i < 2 || changing; i++) {
            int wanted = i % 2 == 0 ? 0 : 1;
            std::string text = "function=Enable\nenable=" + std::to_string(wanted);
            std::string answer = request(text);
            check(text, answer);
            profile_state state = read_profile();
            if (state.enable != (wanted == 1)) {
                lost_change("switch to " + std::to_string(wanted) + " answered", state);
            }
            usleep(200000);  // let the others work with the station on and off
        }
        request("function=Enable\nenable=1");
    });
    // Another network learnt and relearnt by connects and WPS meanwhile.
    std::thread home([&] {
        const std::vector<std::string> mix = {
            "function=ConnectAP\nssid=home net\nsecurity=wpa2\npassword=secret123", "function=WPS",
            "function=GetNetSetting"};
        for (size_t i = 0; changing; i++) {
            check(mix[i % mix.size()], request(mix[i % mix.size()]));
        }
    });
    cafe.join();
    changing = false;
    settings.join();
    toggler.join();
    home.join();
    running = false;
    reader.join();
    EXPECT_EQ(failures.load(), 0) << "of " << answered.load() << " requests";
    EXPECT_EQ(lost.load(), 0);
    EXPECT_EQ(malformed.load(), 0) << "of " << reads.load() << " reads";
    expect_worker_kept();
    printf("stress: %d requests from four clients answered, the file read %d times\n",
           answered.load(), reads.load());
}

}  // namespace
