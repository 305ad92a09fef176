// The wpa_supplicant simulator against recordings of the real 802.11 stack
// (tests/radio/transcripts, made in the radio VM by
// "tests/radio/radio.sh --record" with the daemon's own commands): the same
// commands get the same replies and are followed by the same events, in the
// same order and at the same times within the spread of real radios; a
// station joined to each kind of network reports the same STATUS; a WPS
// credential is saved as the same network block.
//
// The simulator writes each event with the time its world scheduled it
// (wpa_sim -t), so the times compared do not depend on how busy the machine
// running the test is.
#include <gtest/gtest.h>
#include <wpa_ctrl.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "test_support.h"
#include "wpa_peer.h"

using wifim_test::split_lines;

namespace {

const char* kTimeline = "/tmp/wpa_sim.timeline";

std::string transcript(const std::string& name) {
    return wifim_test::read_file(WIFIM_SOURCE_DIR "/tests/radio/transcripts/" + name);
}

struct timed_event {
    long ms;
    std::string text;
};

// A recording: the commands sent (with the replies the real station gave)
// and the station's events, in ms from the command that set them going.
struct recording {
    std::vector<std::pair<std::string, std::string>> commands;
    std::vector<timed_event> events;
};

recording read_recording(const std::string& name) {
    recording r;
    bool station = true;
    for (const std::string& line : split_lines(transcript(name))) {
        if (line.rfind("# access point", 0) == 0) {
            station = false;  // the access point's own events follow
        } else if (line.rfind("# station", 0) == 0) {
            station = true;
        } else if (line.rfind("> ", 0) == 0) {
            size_t arrow = line.find("    -> ");
            r.commands.push_back({line.substr(2, arrow - 2), line.substr(arrow + 7)});
        } else if (station && line.find(" ms <3>") != std::string::npos) {
            size_t at = line.find(" ms <3>");
            r.events.push_back({std::stol(line.substr(0, at)), line.substr(at + 7)});
        }
    }
    return r;
}

// The access points of the radio world, as the recorded scan saw them, with
// the keys the world gave them.
std::string recorded_world(const std::string& timing, const std::string& radio_wpa2_wps) {
    const std::map<std::string, std::string> keys = {
        {"radio-wpa2", "correct-horse-battery"},  {"radio-tkip", "tkip-only-passphrase"},
        {"radio-mixed", "mixed-mode-passphrase"}, {"radio-wep40", "abcde"},
        {"radio-wep104", "abcdefghijklm"},        {"radio-first", "first-passphrase"},
        {"radio-second", "second-passphrase"}};
    std::string world = timing;
    for (const std::string& line : split_lines(transcript("scan-results.txt"))) {
        std::vector<std::string> f;
        size_t start = 0;
        for (size_t tab; (tab = line.find('\t', start)) != std::string::npos; start = tab + 1) {
            f.push_back(line.substr(start, tab - start));
        }
        f.push_back(line.substr(start));
        if (f.size() != 5) {
            continue;  // the header
        }
        auto key = keys.find(f[4]);
        std::string wps = f[4] == "radio-wpa2" ? radio_wpa2_wps : "-";
        world += "ap " + f[0] + " " + f[1] + " " + f[2] + " " + f[3] +
                 " key=" + (key == keys.end() ? "-" : key->second) + " wps=" + wps +
                 " ssid=" + f[4] + "\n";
    }
    return world;
}

// The delays of the recorded radios: ~8 ms a step of an association, a
// scan of the two channels in ~140 ms, the WPS exchange in 140-240 ms; the
// handshake failure, the back-off and the rejoin after WPS are the
// simulator's own defaults, taken from the same radios.
const char* kRecordedTiming = "connect_delay_ms 8\nscan_delay_ms 140\nwps_delay_ms 180\n";

// What the simulator logged after the line starting with `anchor`: its
// events in ms from that line.
std::vector<timed_event> sim_events_after(const std::string& anchor) {
    std::vector<timed_event> out;
    long base = -1;
    for (const std::string& line : split_lines(wifim_test::read_file(kTimeline))) {
        size_t tab = line.find('\t');
        if (tab == std::string::npos) {
            continue;
        }
        long ms = std::stol(line.substr(0, tab));
        std::string rest = line.substr(tab + 1);
        if (rest.rfind(anchor, 0) == 0) {
            base = ms;
            out.clear();
        } else if (base >= 0 && rest.rfind("EVENT\t", 0) == 0) {
            out.push_back({ms - base, rest.substr(6)});
        }
    }
    return out;
}

// A scan announces the access points it sees for the first time in the
// order the radio reports them, each with the station's running number for
// it: a run of such lines is compared as the set of access points.
std::vector<timed_event> with_announcements_gathered(const std::vector<timed_event>& events) {
    std::vector<timed_event> out;
    const std::string added = "CTRL-EVENT-BSS-ADDED ";
    std::vector<std::string> run;
    long run_ms = 0;
    auto flush = [&] {
        if (!run.empty()) {
            std::sort(run.begin(), run.end());
            std::string text = added + "{";
            for (const std::string& bssid : run) {
                text += " " + bssid;
            }
            out.push_back({run_ms, text + " }"});
            run.clear();
        }
    };
    for (const timed_event& e : events) {
        if (e.text.rfind(added, 0) == 0) {
            run_ms = run.empty() ? e.ms : run_ms;
            run.push_back(e.text.substr(e.text.rfind(' ') + 1));
            continue;
        }
        flush();
        out.push_back(e);
    }
    flush();
    return out;
}

// The back-off of a network that allows 802.1X key management has a random
// part (up to ten seconds a failure after the first): the duration of a
// temporarily disabled network is compared by its range, the rest exactly.
bool same_event_text(const std::string& real, const std::string& sim) {
    const std::string disabled = "CTRL-EVENT-SSID-TEMP-DISABLED ";
    if (real.rfind(disabled, 0) != 0) {
        return real == sim;
    }
    auto field = [](const std::string& text, const std::string& name) {
        size_t at = text.find(" " + name + "=");
        return at == std::string::npos ? -1 : std::stoi(text.substr(at + name.size() + 2));
    };
    auto masked = [](std::string text) {
        size_t at = text.find(" duration=");
        size_t end = text.find(' ', at + 1);
        return text.replace(at, end - at, " duration=*");
    };
    int failures = field(real, "auth_failures");
    int base = failures > 3 ? 60 : failures * 10;
    int spread = failures > 1 ? failures * 10 : 1;
    for (int duration : {field(real, "duration"), field(sim, "duration")}) {
        if (duration < base || duration >= base + spread) {
            return false;
        }
    }
    return masked(real) == masked(sim);
}

// Same events in the same order, each within 100 ms plus a tenth of its
// time of when the real station sent it.
void expect_same_events(const std::vector<timed_event>& real_events,
                        const std::vector<timed_event>& sim_events) {
    std::vector<timed_event> real = with_announcements_gathered(real_events);
    std::vector<timed_event> sim = with_announcements_gathered(sim_events);
    std::string both;
    for (size_t i = 0; i < std::max(real.size(), sim.size()); i++) {
        both += (i < real.size() ? std::to_string(real[i].ms) + " " + real[i].text : "-") +
                "  |  " + (i < sim.size() ? std::to_string(sim[i].ms) + " " + sim[i].text : "-") +
                "\n";
    }
    SCOPED_TRACE("real  |  simulated:\n" + both);
    ASSERT_EQ(sim.size(), real.size());
    for (size_t i = 0; i < real.size(); i++) {
        EXPECT_TRUE(same_event_text(real[i].text, sim[i].text)) << "event " << i;
        EXPECT_NEAR(sim[i].ms, real[i].ms, 100 + real[i].ms / 10) << real[i].text;
    }
}

// A control connection to the simulator, as the daemon opens them.
struct station_link {
    struct wpa_ctrl* ctrl = nullptr;
    explicit station_link(const wifim_test::wpa_peer& peer) {
        ctrl = wpa_ctrl_open((peer.ctrl_dir + "/" + peer.interface).c_str());
    }
    ~station_link() {
        if (ctrl != nullptr) {
            wpa_ctrl_close(ctrl);
        }
    }
    std::string request(const std::string& command) {
        char reply[4096];
        size_t len = sizeof(reply) - 1;
        if (ctrl == nullptr ||
            wpa_ctrl_request(ctrl, command.c_str(), command.size(), reply, &len, nullptr) != 0) {
            return "(no reply)";
        }
        return std::string(reply, len);
    }
};

class RecordedRadio : public ::testing::Test {
  protected:
    void start(const std::string& wps = "-") {
        ASSERT_TRUE(wifim_test::start_simulator(&sim, recorded_world(kRecordedTiming, wps), "wlan0",
                                                {"-t", kTimeline}));
        link.reset(new station_link(sim));
    }
    void TearDown() override { wifim_test::stop_wpa_peer(&sim); }
    // A scan, so that the station knows every access point and holds fresh
    // results, as the recorder's station did before each recording.
    void scan_first() {
        ASSERT_EQ(link->request("SCAN"), "OK\n");
        ASSERT_TRUE(wifim_test::wait_until(
            [] {
                for (const timed_event& e : sim_events_after("SCAN")) {
                    if (e.text == "CTRL-EVENT-SCAN-RESULTS ") {
                        return true;
                    }
                }
                return false;
            },
            10000));
    }
    // Sends the recorded commands and checks each reply against the real one.
    void replay(const recording& r) {
        for (const auto& command : r.commands) {
            std::string reply = link->request(command.first);
            while (!reply.empty() && reply.back() == '\n') {
                reply.pop_back();
            }
            if (command.second != "(lines)") {
                EXPECT_EQ(reply, command.second) << command.first;
            }
        }
    }
    // Waits until the simulator has sent as many events after anchor as the
    // recording holds, then compares them.
    void expect_recorded_events(const recording& r, const std::string& anchor) {
        size_t wanted = with_announcements_gathered(r.events).size();
        EXPECT_TRUE(wifim_test::wait_until(
            [&] { return with_announcements_gathered(sim_events_after(anchor)).size() >= wanted; },
            static_cast<int>(r.events.back().ms) + 20000));
        expect_same_events(r.events, sim_events_after(anchor));
    }
    wifim_test::wpa_peer sim;
    std::unique_ptr<station_link> link;
};

TEST_F(RecordedRadio, ConnectOnFreshScanResults) {
    start();
    ASSERT_NO_FATAL_FAILURE(scan_first());
    recording r = read_recording("connect-events.txt");
    replay(r);
    expect_recorded_events(r, "RECONNECT");
}

TEST_F(RecordedRadio, ConnectScansFirstWithoutScanResults) {
    start();
    ASSERT_NO_FATAL_FAILURE(scan_first());
    recording r = read_recording("connect-scan-events.txt");
    ASSERT_EQ(r.commands.front().first, "BSS_FLUSH 0");
    replay(r);
    expect_recorded_events(r, "RECONNECT");
}

TEST_F(RecordedRadio, WrongKeyDropsDisablesScansAndTriesAgain) {
    start();
    ASSERT_NO_FATAL_FAILURE(scan_first());
    recording r = read_recording("wrong-key-events.txt");
    replay(r);
    expect_recorded_events(r, "RECONNECT");
}

TEST_F(RecordedRadio, WpsByPushButtonSucceedsThenRejoins) {
    start("pbc");
    ASSERT_NO_FATAL_FAILURE(scan_first());
    recording r = read_recording("wps-pbc-events.txt");
    replay(r);
    expect_recorded_events(r, "WPS_PBC");
}

TEST_F(RecordedRadio, WpsWithAWrongPinFails) {
    start("12345670");
    ASSERT_NO_FATAL_FAILURE(scan_first());
    recording r = read_recording("wps-wrong-pin-events.txt");
    replay(r);
    expect_recorded_events(r, "WPS_PIN");
}

TEST_F(RecordedRadio, WpsCredentialIsSavedAsTheRealBlock) {
    start("pbc");
    ASSERT_NO_FATAL_FAILURE(scan_first());
    ASSERT_EQ(link->request("WPS_PBC any"), "OK\n");
    ASSERT_TRUE(wifim_test::wait_until(
        [] {
            auto events = sim_events_after("WPS_PBC");
            return !events.empty() && events.back().text.rfind("CTRL-EVENT-CONNECTED", 0) == 0;
        },
        10000));
    ASSERT_EQ(link->request("SAVE_CONFIG"), "OK\n");
    std::string saved = wifim_test::read_file(sim.config);
    std::string block;
    for (const std::string& line : split_lines(transcript("wps-network-block.txt"))) {
        if (line.rfind("#", 0) != 0) {
            block += line + "\n";
        }
    }
    ASSERT_NE(block, "");
    EXPECT_NE(saved.find(block), std::string::npos) << saved;
}

TEST_F(RecordedRadio, ScanResultsListTheRecordedNetworks) {
    start();
    ASSERT_NO_FATAL_FAILURE(scan_first());
    EXPECT_EQ(link->request("SCAN_RESULTS"), transcript("scan-results.txt"));
}

// STATUS of a station joined to each kind of network, for the lines the
// radio decides (the station's own addresses differ by nature).
TEST_F(RecordedRadio, StatusOfEachKindOfNetwork) {
    start();
    ASSERT_NO_FATAL_FAILURE(scan_first());
    const std::map<std::string, std::vector<std::string>> settings = {
        {"none", {"key_mgmt NONE"}},
        {"wep", {"key_mgmt NONE", "wep_key0 \"KEY\"", "wep_tx_keyidx 0"}},
        {"wpa", {"key_mgmt WPA-PSK WPA-EAP", "proto WPA RSN", "psk \"KEY\""}}};
    const std::map<std::string, std::string> keys = {{"radio-wpa2", "correct-horse-battery"},
                                                     {"radio-tkip", "tkip-only-passphrase"},
                                                     {"radio-mixed", "mixed-mode-passphrase"},
                                                     {"radio-wep40", "abcde"},
                                                     {"radio-wep104", "abcdefghijklm"}};
    std::string ssid;
    std::string kind;
    std::string expected;
    auto check = [&] {
        if (ssid.empty()) {
            return;
        }
        link->request("REMOVE_NETWORK all");
        ASSERT_EQ(link->request("ADD_NETWORK"), "0\n");
        ASSERT_EQ(link->request("SET_NETWORK 0 ssid \"" + ssid + "\""), "OK\n");
        for (std::string setting : settings.at(kind)) {
            size_t at = setting.find("KEY");
            if (at != std::string::npos) {
                setting.replace(at, 3, keys.count(ssid) ? keys.at(ssid) : "");
            }
            ASSERT_EQ(link->request("SET_NETWORK 0 " + setting), "OK\n") << setting;
        }
        ASSERT_EQ(link->request("ENABLE_NETWORK 0"), "OK\n");
        ASSERT_TRUE(wifim_test::wait_until(
            [this] {
                return link->request("STATUS").find("wpa_state=COMPLETED") != std::string::npos;
            },
            10000))
            << ssid;
        std::string status;
        for (const std::string& line : split_lines(link->request("STATUS"))) {
            if (line.rfind("address=", 0) != 0 && line.rfind("uuid=", 0) != 0 &&
                line.rfind("p2p_device_address=", 0) != 0) {
                status += line + "\n";
            }
        }
        EXPECT_EQ(status, expected) << ssid;
    };
    for (const std::string& line : split_lines(transcript("status.txt"))) {
        if (line.rfind("== ", 0) == 0) {
            check();
            ssid = line.substr(3, line.find(' ', 3) - 3);
            kind = line.substr(line.find('(') + 1, line.find(')') - line.find('(') - 1);
            expected.clear();
        } else if (line.rfind("address=", 0) != 0 && line.rfind("uuid=", 0) != 0 &&
                   line.rfind("p2p_device_address=", 0) != 0) {
            expected += line + "\n";
        }
    }
    check();
}

}  // namespace
