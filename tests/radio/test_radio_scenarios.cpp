// The daemon against the real 802.11 stack: hostapd access points and the
// station's wpa_supplicant (nl80211) on mac80211_hwsim radios, inside the
// radio VM (tests/radio/radio.sh runs this program there; it cannot run on
// the host). Each scenario starts the daemon of the build tree afresh, with
// the example station scripts in /home/qorun, and checks its answers, the
// profile file and what the station really did.
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "fixed_paths.h"
#include "radio_world.h"
#include "test_support.h"
#include "wpa_peer.h"

using radio::access_point;
using radio::ask;
using radio::reply_value;
using radio::station;
using wifim_test::file_exists;
using wifim_test::read_file;
using wifim_test::split_lines;
using wifim_test::wait_until;
using wifim_test::write_file;

namespace {

const char* kXml = "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n";
const char* kNoNetworks = "network id / ssid / bssid / flags\n";

std::string command_answer(const std::string& root, int result, int enable) {
    return kXml + ("<" + root + ">\n<result>" + std::to_string(result) + "</result>\n<enable>") +
           std::to_string(enable) + "</enable>\n</" + root + ">\n";
}

// IP settings of the profile file as the daemon writes them.
std::string settings_text(bool enable, const std::string& dhcp, const std::string& ip,
                          const std::string& gateway, const std::string& dns1,
                          const std::string& dns2) {
    return std::string("wifi_station_enable = ") + (enable ? "true" : "false") +
           "\nwifi_dhcp = " + dhcp + "\nwifi_dns_dhcp = " + dhcp + "\nwifi_ip = " + ip +
           "\nwifi_gateway = " + gateway +
           "\nwifi_netmask = " + (ip.empty() ? "" : "255.255.255.0") + "\nwifi_dns1 = " + dns1 +
           "\nwifi_dns2 = " + dns2 + "\n";
}

// Static settings on the /24 of prefix ("192.168.50"): the station takes
// .2, the access point side is .1, the name server .53.
std::string static_settings(const std::string& prefix, bool enable = true) {
    return settings_text(enable, "0", prefix + ".2", prefix + ".1", prefix + ".53", "");
}

std::string profile_entry(int n, const std::string& ssid, const std::string& security,
                          const std::string& key, const std::string& encode, int priority) {
    std::string i = std::to_string(n);
    return "ssid_" + i + " = " + ssid + "\nsecurity_" + i + " = " + security + "\npasswd_" + i +
           " = " + key + "\npasswd_encode_" + i + " = " + encode + "\npriority_" + i + " = " +
           std::to_string(priority) + "\n";
}

std::string connected_answer(const std::string& ssid, const std::string& security,
                             const std::string& ip, const std::string& gateway,
                             const std::string& dns1, const std::string& dns2) {
    return kXml + std::string("<wifista_connected>\n<result>0</result>\n<ssid><![CDATA[") + ssid +
           "]]></ssid>\n<security>" + security + "</security>\n<enable>1</enable>\n<ip_addr>" + ip +
           "</ip_addr>\n<netmask>255.255.255.0</netmask>\n<gateway>" + gateway +
           "</gateway>\n<dns_server>" + dns1 + "</dns_server>\n<dns_server>" + dns2 +
           "</dns_server>\n</wifista_connected>\n";
}

// What the daemon makes of one event it read (the text after the level
// prefix), as its event table says; a connected event counts as connected,
// the example hook succeeding in every scenario that connects.
int event_status(const std::string& text) {
    auto starts = [&text](const char* prefix) { return text.rfind(prefix, 0) == 0; };
    if (starts("CTRL-EVENT-SCAN-RESULTS ")) {
        return 3;
    }
    if (starts("CTRL-EVENT-BSS-REMOVED ")) {
        return 0;
    }
    if (starts("WPA: 4-Way Handshake failed") ||
        starts("SME: Authentication request to the driver failed")) {
        return 7;
    }
    if (starts("EPBUG: Going to authenticate") || starts("SME: Trying to authenticate with") ||
        starts("Trying to associate with")) {
        return 4;
    }
    if (starts("CTRL-EVENT-DISCONNECTED ")) {
        return text.find("00:00:00:00:00:00") == std::string::npos ? 8 : 0;
    }
    if (starts("Associated with ") || starts("CTRL-EVENT-EAP-STARTED ") ||
        starts("CTRL-EVENT-EAP-PROPOSED-METHOD ") || starts("WPS-CRED-RECEIVED ")) {
        return 4;
    }
    if (starts("WPS-OVERLAP-DETECTED ")) {
        return 10;
    }
    if (starts("CTRL-EVENT-EAP-METHOD ")) {
        return text.find("(WSC)") == std::string::npos ? 0 : 9;
    }
    if (starts("WPS-FAIL ")) {
        return 12;
    }
    if (starts("WPS-TIMEOUT ")) {
        return 13;
    }
    if (starts("CTRL-EVENT-CONNECTED ")) {
        return 5;
    }
    if (starts("WPS-SUCCESS ")) {
        return 11;
    }
    return 0;
}

// The answer codes of a connection result, connect and WPS columns.
int connect_code(int status) {
    const int codes[] = {0, 4, 5, 1, 1, 1, 1, 1, 1, 3, 1, 0};
    return status >= 5 && status <= 16 ? codes[status - 5] : 1;
}
int wps_code(int status) {
    const int codes[] = {0, 4, 5, 1, 1, 9, 0, 1, 8, 3, 1, 0};
    return status >= 5 && status <= 16 ? codes[status - 5] : 1;
}

// The signal the daemon shows for a scan level in dBm or quality.
int signal_percent(int level) {
    if (level < 0) {
        return level >= -40 ? 99 : level > -90 ? (level + 90) * 100 / 50 : 1;
    }
    return level >= 100 ? 99 : level > 0 ? level : 1;
}

// The texts of the events the daemon read between the first log line
// holding from and the next one holding to (the log's "Received event"
// lines), and that last line.
struct events_seen {
    std::vector<std::string> texts;
    std::string end_line;
};
events_seen daemon_events_between(const std::string& from, const std::string& to) {
    events_seen seen;
    const std::string marker = ", data:";
    bool inside = false;
    for (const std::string& line : split_lines(read_file(WIFIM_LOG_FILE))) {
        if (!inside) {
            inside = line.find(from) != std::string::npos;
            continue;
        }
        if (line.find(to) != std::string::npos) {
            seen.end_line = line;
            break;
        }
        size_t at = line.find("Received event, size:");
        if (at != std::string::npos && line.find(marker, at) != std::string::npos) {
            seen.texts.push_back(line.substr(line.find(marker, at) + marker.size()));
        }
    }
    return seen;
}

int log_count(const std::string& text) {
    return static_cast<int>(wifim_test::log_lines_with(text).size());
}

std::string out_dir() {
    const char* out = getenv("RADIO_OUT");
    return out != nullptr ? out : "/tmp";
}

}  // namespace

class Radio : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(radio::ensure_station_running()) << "the station's wpa_supplicant is not up";
        reset_access_points();
        station("DISCONNECT");
        station("REMOVE_NETWORK all");
        station("SAVE_CONFIG");
        radio::in_station({"/bin/sh", "-c",
                           "ip -4 addr flush dev wlan0; ip -4 route flush dev wlan0; "
                           "printf 'nameserver 10.0.2.3\\n' > /etc/resolv.conf"});
        for (const char* path : {WIFIM_LOG_FILE, WIFIM_PROFILE_FILE, WIFIM_CONNECTED_MARKER_FILE,
                                 "/tmp/daemon.console"}) {
            unlink(path);
        }
        ASSERT_TRUE(wait_until(
            [] { return reply_value(station("STATUS"), "wpa_state") != "COMPLETED"; }, 10000));
        radio::recorder_start(&station_events, radio::kStationSocket);
    }

    void TearDown() override {
        radio::daemon_stop(&daemon);
        radio::recorder_stop(&station_events);
        end_leftover_station_processes();
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        std::string name = out_dir() + "/logs/" + info->test_suite_name() + "." + info->name();
        mkdir((out_dir() + "/logs").c_str(), 0755);
        write_file(name + ".log", read_file(WIFIM_LOG_FILE));
        std::string events;
        for (const auto& e : radio::recorder_since(&station_events, 0)) {
            events += std::to_string(e.ms) + " " + e.text + "\n";
        }
        write_file(name + ".events", events);
    }

    static void reset_access_points() {
        for (const access_point& ap :
             {radio::kWpa2, radio::kOpen, radio::kFirst, radio::kSecond, radio::kDhcp}) {
            if (reply_value(radio::access_point_command(ap, "STATUS"), "state") != "ENABLED") {
                radio::access_point_command(ap, "ENABLE");
            }
        }
        radio::access_point_command(radio::kWpa2, "WPS_CANCEL");
        radio::access_point_command(radio::kFirst, "WPS_CANCEL");
    }

    // The hook's DHCP client or a late connected script of one scenario
    // must not change the station under the next one.
    static void end_leftover_station_processes() {
        pid_t supplicant = radio::station_supplicant_pid();
        for (const std::string& pid :
             split_lines(wifim_test::run_process({"/usr/bin/ip", "netns", "pids", "sta"}).out)) {
            pid_t p = static_cast<pid_t>(atoi(pid.c_str()));
            if (p > 0 && p != supplicant) {
                kill(p, SIGKILL);
            }
        }
    }

    void start_daemon(const std::string& profile) {
        if (!profile.empty()) {
            ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE, profile));
        }
        ASSERT_TRUE(radio::daemon_start(&daemon)) << read_file("/tmp/daemon.console");
    }

    // Waits until the daemon's AP list shows ssid as in range.
    void wait_in_range(const std::string& ssid) {
        std::string wanted = "<ssid><![CDATA[" + ssid + "]]></ssid>";
        ASSERT_TRUE(wait_until(
            [&] {
                std::string list = ask("function=GetAPList");
                size_t at = list.find(wanted);
                return at != std::string::npos &&
                       list.find("<scanned>1</scanned>", at) < list.find("</ap_data>", at);
            },
            60000))
            << ask("function=GetAPList");
    }

    // Waits until the station is associated with ap (wpa_state COMPLETED).
    bool wait_connected_to(const access_point& ap, int timeout_ms) {
        return wait_until(
            [&] {
                std::string status = station("STATUS");
                return reply_value(status, "wpa_state") == "COMPLETED" &&
                       reply_value(status, "bssid") == ap.bssid;
            },
            timeout_ms);
    }

    std::string connect_request(const access_point& ap, const std::string& security,
                                const std::string& key, const std::string& ascii_key = "") {
        std::string request = "function=ConnectAP\nssid=" + std::string(ap.ssid) +
                              "\nsecurity=" + security + "\npassword=" + key;
        if (!ascii_key.empty()) {
            request += "\nascii_key=" + ascii_key;
        }
        return request;
    }

    // ConnectAP to ap succeeds; the station is really there with the given
    // key management and cipher, the profile is registered first, and
    // GetConnected reports the network with the settings the hook applied.
    void connect_and_check(const access_point& ap, const std::string& security,
                           const std::string& key, const std::string& ascii_key,
                           const std::string& stored_security, const std::string& encode,
                           const std::string& key_mgmt, const std::string& cipher,
                           const std::string& reported_security, const std::string& net) {
        start_daemon(static_settings(net));
        wait_in_range(ap.ssid);
        EXPECT_EQ(ask(connect_request(ap, security, key, ascii_key)),
                  command_answer("wifista_connecte", 0, 1));
        std::string status = station("STATUS");
        EXPECT_EQ(reply_value(status, "wpa_state"), "COMPLETED") << status;
        EXPECT_EQ(reply_value(status, "ssid"), ap.ssid);
        EXPECT_EQ(reply_value(status, "bssid"), ap.bssid);
        EXPECT_EQ(reply_value(status, "key_mgmt"), key_mgmt);
        EXPECT_EQ(reply_value(status, "pairwise_cipher"), cipher);
        EXPECT_TRUE(file_exists(WIFIM_CONNECTED_MARKER_FILE));
        EXPECT_EQ(
            read_file(WIFIM_PROFILE_FILE),
            static_settings(net) + profile_entry(1, ap.ssid, stored_security, key, encode, 1));
        EXPECT_EQ(
            ask("function=GetConnected"),
            connected_answer(ap.ssid, reported_security, net + ".2", net + ".1", net + ".53", ""));
        EXPECT_EQ(radio::station_address(), net + ".2/24");
    }

    radio::running_daemon daemon;
    radio::event_recorder station_events;
};

// One fixture name per area, so that ctest lists Radio.<area>.<scenario>.
class GetAPList : public Radio {};
class ConnectAP : public Radio {};
class AutoConnect : public Radio {};
class Operations : public Radio {};
class NetSettings : public Radio {};
class Supervisor : public Radio {};

// ------------------------------------------------------------ GetAPList

TEST_F(GetAPList, NamesEverySecurityKindOfARealScan) {
    start_daemon(static_settings("192.168.50"));
    for (const access_point& ap : radio::all_access_points()) {
        wait_in_range(ap.ssid);
    }
    std::string scan = station("SCAN_RESULTS");
    // What the real stack says of each kind, and the name the daemon gives it.
    struct kind {
        access_point ap;
        const char* flags;
        const char* name;
    };
    const kind kinds[] = {
        {radio::kOpen, "[ESS]", "none"},
        {radio::kWep40, "[WEP][ESS]", "wep"},
        {radio::kWep104, "[WEP][ESS]", "wep"},
        {radio::kTkip, "[WPA-PSK-TKIP][ESS]", "wpa"},
        {radio::kWpa2, "[WPA2-PSK-CCMP][WPS][ESS]", "wpa2"},
        {radio::kMixed, "[WPA-PSK-CCMP+TKIP][WPA2-PSK-CCMP][ESS]", "anywpa"},
        {radio::kFirst, "[WPA2-PSK-CCMP][WPS][ESS]", "wpa2"},
        {radio::kSecond, "[WPA2-PSK-CCMP][ESS]", "wpa2"},
        {radio::kDhcp, "[ESS]", "none"},
    };
    std::string answer = ask("function=GetAPList");
    const std::string head =
        kXml + std::string("<wifista_ap_list>\n<result>0</result>\n<enable>1</enable>\n");
    const std::string tail = "</wifista_ap_list>\n";
    ASSERT_EQ(answer.compare(0, head.size(), head), 0) << answer;
    ASSERT_GE(answer.size(), head.size() + tail.size());
    EXPECT_EQ(answer.substr(answer.size() - tail.size()), tail);
    std::string body = answer.substr(head.size(), answer.size() - head.size() - tail.size());
    for (const kind& k : kinds) {
        std::string line = radio::scan_line(scan, k.ap.bssid);
        ASSERT_FALSE(line.empty()) << k.ap.ssid << " not in the station's scan:\n" << scan;
        std::vector<std::string> fields;
        size_t start = 0;
        for (size_t tab; (tab = line.find('\t', start)) != std::string::npos; start = tab + 1) {
            fields.push_back(line.substr(start, tab - start));
        }
        fields.push_back(line.substr(start));
        ASSERT_EQ(fields.size(), 5u) << line;
        EXPECT_EQ(fields[3], k.flags) << k.ap.ssid;
        std::string block = " <ap_data>\n  <ssid><![CDATA[" + std::string(k.ap.ssid) +
                            "]]></ssid>\n  <security>" + k.name + "</security>\n  <signal>" +
                            std::to_string(signal_percent(atoi(fields[2].c_str()))) +
                            "</signal>\n  <registered>0</registered>\n  <scanned>1</scanned>\n"
                            "  <connected>0</connected>\n </ap_data>\n";
        EXPECT_NE(body.find(block), std::string::npos) << block << "in\n" << answer;
    }
    // Nothing else, and the strongest first.
    std::vector<std::string> lines = split_lines(body);
    EXPECT_EQ(static_cast<size_t>(std::count(lines.begin(), lines.end(), " <ap_data>")),
              sizeof(kinds) / sizeof(kinds[0]));
    int previous = 100;
    for (const std::string& line : split_lines(body)) {
        if (line.rfind("  <signal>", 0) == 0) {
            int signal = atoi(line.c_str() + 10);
            EXPECT_LE(signal, previous) << answer;
            previous = signal;
        }
    }
}

// ------------------------------------------------------------ ConnectAP

TEST_F(ConnectAP, Open) {
    connect_and_check(radio::kOpen, "none", "", "", "none", "ascii", "NONE", "NONE", "none",
                      "192.168.50");
}

// A wrong WEP key still associates (open system authentication cannot tell):
// the station proves its key by reaching the access point.
TEST_F(ConnectAP, Wep40WithFiveCharacterKey) {
    connect_and_check(radio::kWep40, "wep", "abcde", "", "wep", "ascii", "NONE", "WEP-40", "wep",
                      "192.168.78");
    EXPECT_TRUE(radio::station_pings("192.168.78.1"));
}

TEST_F(ConnectAP, Wep40WithHexadecimalKey) {
    connect_and_check(radio::kWep40, "wep", "6162636465", "0", "wep", "hex", "NONE", "WEP-40",
                      "wep", "192.168.78");
    EXPECT_TRUE(radio::station_pings("192.168.78.1"));
}

TEST_F(ConnectAP, Wep104WithThirteenCharacterKey) {
    connect_and_check(radio::kWep104, "wep", "abcdefghijklm", "", "wep", "ascii", "NONE", "WEP-104",
                      "wep", "192.168.79");
    EXPECT_TRUE(radio::station_pings("192.168.79.1"));
}

TEST_F(ConnectAP, Wep104WithHexadecimalKey) {
    connect_and_check(radio::kWep104, "wep", "6162636465666768696a6b6c6d", "0", "wep", "hex",
                      "NONE", "WEP-104", "wep", "192.168.79");
    EXPECT_TRUE(radio::station_pings("192.168.79.1"));
}

TEST_F(ConnectAP, WpaTkipOnly) {
    connect_and_check(radio::kTkip, "wpa", radio::kTkip.key, "", "mixed", "ascii", "WPA-PSK",
                      "TKIP", "wpa", "192.168.50");
}

TEST_F(ConnectAP, Wpa2) {
    connect_and_check(radio::kWpa2, "wpa2", radio::kWpa2.key, "", "mixed", "ascii", "WPA2-PSK",
                      "CCMP", "wpa2", "192.168.50");
}

TEST_F(ConnectAP, Wpa2WithSixtyFourDigitHexadecimalKey) {
    std::string out =
        wifim_test::run_process({"/usr/bin/wpa_passphrase", radio::kWpa2.ssid, radio::kWpa2.key})
            .out;
    size_t at = out.find("\tpsk=");
    ASSERT_NE(at, std::string::npos) << out;
    std::string psk = out.substr(at + 5, 64);
    ASSERT_EQ(psk.size(), 64u);
    connect_and_check(radio::kWpa2, "wpa2", psk, "0", "mixed", "hex", "WPA2-PSK", "CCMP", "wpa2",
                      "192.168.50");
}

TEST_F(ConnectAP, AnyWpaToMixedAccessPoint) {
    connect_and_check(radio::kMixed, "anywpa", radio::kMixed.key, "", "mixed", "ascii", "WPA2-PSK",
                      "CCMP", "anywpa", "192.168.50");
}

// A wrong passphrase: only a connection or a denial ends the daemon's wait,
// so the answer comes at the job's deadline, from the last status an event
// gave. Which events arrive when is the real stack's (handshake failures
// about 4 s after association, a back-off of 10 s, then 20 s): the answer
// is checked against the events the daemon logged that it read.
TEST_F(ConnectAP, WrongPassphraseAnswersFromTheLastEventAtTheDeadline) {
    start_daemon(static_settings("192.168.50"));
    wait_in_range(radio::kWpa2.ssid);
    long start = wifim_test::now_ms();
    std::string answer = ask(connect_request(radio::kWpa2, "wpa2", "wrong-passphrase-123"));
    long took = wifim_test::now_ms() - start;
    RecordProperty("answer_after_ms", std::to_string(took));
    events_seen seen = daemon_events_between("Connect to AP, ssid:radio-wpa2", "connect fail");
    int last = 0;
    bool handshake_failed = false;
    for (const std::string& text : seen.texts) {
        int status = event_status(text);
        last = status != 0 ? status : last;
        handshake_failed = handshake_failed || status == 7;
    }
    EXPECT_TRUE(handshake_failed) << "no failed handshake among the events the daemon read";
    int result = last == 0 ? 1 : last;
    EXPECT_NE(seen.end_line.find("connect fail, connect result:" + std::to_string(result)),
              std::string::npos)
        << seen.end_line;
    EXPECT_EQ(answer, command_answer("wifista_connecte", connect_code(result), 1));
    EXPECT_GE(took, 39000) << "the wait ended before the job's deadline";
    // Nothing is left configured, nothing registered.
    EXPECT_EQ(station("LIST_NETWORKS"), kNoNetworks);
    EXPECT_NE(reply_value(station("STATUS"), "wpa_state"), "COMPLETED");
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE), static_settings("192.168.50"));
    std::string events;
    for (const std::string& text : seen.texts) {
        events += text + "\n";
    }
    RecordProperty("last_status", std::to_string(result));
    std::cout << "wrong passphrase: answered " << connect_code(result) << " after " << took
              << " ms; events the daemon read:\n"
              << events;
}

// ------------------------------------------------------------ automatic connection

TEST_F(AutoConnect, ChoosesByPriorityMovesOnWhenTheAccessPointVanishesAndComesBack) {
    const std::string profiles =
        static_settings("192.168.50") +
        profile_entry(1, radio::kSecond.ssid, "wpa2", radio::kSecond.key, "ascii", 1) +
        profile_entry(2, radio::kFirst.ssid, "wpa2", radio::kFirst.key, "ascii", 2);
    start_daemon(profiles);
    // Both in range: the first by priority, although radio-first comes first
    // in the scan list.
    ASSERT_TRUE(wait_connected_to(radio::kSecond, 120000)) << station("STATUS");
    EXPECT_EQ(log_count("Try to connect to SSID : radio-first"), 0);
    EXPECT_EQ(log_count("Try to connect to SSID : radio-second, network id:-1, skip bssid:"), 1);

    // The connected access point vanishes: the next registered profile.
    radio::access_point_command(radio::kSecond, "DISABLE");
    ASSERT_TRUE(wait_connected_to(radio::kFirst, 120000)) << station("STATUS");
    EXPECT_EQ(log_count("Try to connect to SSID : radio-first, network id:-1, skip bssid:" +
                        std::string(radio::kSecond.bssid)),
              1);

    // It returns and the other vanishes: back to it. (The profile just left
    // is passed over while its access point is the last one connected.)
    radio::access_point_command(radio::kSecond, "ENABLE");
    radio::access_point_command(radio::kFirst, "DISABLE");
    ASSERT_TRUE(wait_connected_to(radio::kSecond, 120000)) << station("STATUS");
    EXPECT_EQ(log_count("Try to connect to SSID : radio-second, network id:-1, skip bssid:" +
                        std::string(radio::kFirst.bssid)),
              1);
    // The automatic connection registers nothing: the profiles are as written.
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE), profiles);
}

// ------------------------------------------------------------ a failed attempt at the registered
// network

class FailedConnect : public Radio {};

// The camera is on its registered WPA2 network when a person asks it to
// join that network with a mistyped passphrase. The attempt fails and takes
// the station off the network; the profile keeps its key, key form and
// priority, and the automatic connection takes the station back to the
// same access point on its own.
TEST_F(FailedConnect, WrongPassphraseAtTheRegisteredNetworkAndTheCameraReturnsOnItsOwn) {
    const std::string profiles =
        static_settings("192.168.50") +
        profile_entry(1, radio::kWpa2.ssid, "wpa2", radio::kWpa2.key, "ascii", 1);
    start_daemon(profiles);
    ASSERT_TRUE(wait_connected_to(radio::kWpa2, 120000)) << station("STATUS");
    const std::string tried = "Try to connect to SSID : radio-wpa2, network id:-1, skip bssid:";
    ASSERT_EQ(log_count(tried), 1);

    std::string answer = ask(connect_request(radio::kWpa2, "wpa2", "wrong-passphrase-123"));
    long answered = wifim_test::now_ms();
    // The attempt runs to its deadline and ends on the last status an event
    // produced, as for any wrong passphrase.
    auto ends = wifim_test::log_lines_with("], connect fail, connect result:");
    ASSERT_EQ(ends.size(), 1u);
    int result = atoi(ends[0].substr(ends[0].rfind(':') + 1).c_str());
    EXPECT_EQ(answer, command_answer("wifista_connecte", connect_code(result), 1));
    EXPECT_NE(connect_code(result), 0);
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE), profiles);

    // The client's back-off holds the automatic scan and connection 5 s;
    // a real scan takes a few seconds and the association one or two.
    ASSERT_TRUE(wait_connected_to(radio::kWpa2, 120000)) << station("STATUS");
    long back = wifim_test::now_ms() - answered;
    auto tries = wifim_test::log_lines_with(tried);
    ASSERT_EQ(tries.size(), 2u);
    // Nothing passed over: the failed attempt used the network's only
    // access point.
    EXPECT_EQ(tries[1].substr(tries[1].size() - 13), ", skip bssid:") << tries[1];
    EXPECT_NE(ask("function=GetConnected").find("<ssid><![CDATA[radio-wpa2]]></ssid>"),
              std::string::npos);
    // The automatic connection registers nothing either.
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE), profiles);
    RecordProperty("back_on_network_ms", std::to_string(back));
    std::cout << "wrong passphrase at the registered network: answered " << connect_code(result)
              << ", station back on it " << back << " ms later\n";
}

// ------------------------------------------------------------ operations

TEST_F(Operations, DisconnectDemotesTheProfileAndRemoveForgetsIt) {
    start_daemon(static_settings("192.168.50"));
    wait_in_range(radio::kOpen.ssid);
    ASSERT_EQ(ask(connect_request(radio::kOpen, "none", "")),
              command_answer("wifista_connecte", 0, 1));
    EXPECT_EQ(ask("function=Disconnect"), command_answer("wifista_reconnecte", 0, 1));
    // The answer may come before the station is let go: the service loop's
    // own copy of the status is refreshed by scans only, so right after a
    // connect it does not know it is connected, answers at once and then
    // removes the networks.
    EXPECT_TRUE(wait_until([] { return station("LIST_NETWORKS") == kNoNetworks; }, 10000))
        << station("LIST_NETWORKS");
    EXPECT_NE(reply_value(station("STATUS"), "wpa_state"), "COMPLETED");
    EXPECT_FALSE(file_exists(WIFIM_CONNECTED_MARKER_FILE));
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE),
              static_settings("192.168.50") +
                  profile_entry(1, radio::kOpen.ssid, "none", "", "ascii", -1));
    EXPECT_EQ(ask("function=Disconnect"), command_answer("wifista_reconnecte", 7, 1));
    EXPECT_EQ(ask("function=Remove\nssid=radio-open\nsecurity=none"),
              command_answer("wifista_remove", 0, 1));
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE), static_settings("192.168.50"));
    EXPECT_NE(reply_value(station("STATUS"), "wpa_state"), "COMPLETED");
}

TEST_F(Operations, EnableOffDisconnectsAndEnableOnConnectsAgainOnItsOwn) {
    start_daemon(static_settings("192.168.50"));
    wait_in_range(radio::kOpen.ssid);
    ASSERT_EQ(ask(connect_request(radio::kOpen, "none", "")),
              command_answer("wifista_connecte", 0, 1));
    const std::string registered = profile_entry(1, radio::kOpen.ssid, "none", "", "ascii", 1);
    // The service loop keeps its own copy of the station's status, refreshed
    // by its scans; until a scan after the connect, a disconnect job takes
    // the station for unconnected and keeps the access point as the one to
    // pass over, so that the only profile would never be chosen again. A
    // GetAPList asks for that scan.
    int scans = log_count("Scan success");
    ask("function=GetAPList");
    ASSERT_TRUE(wait_until([scans] { return log_count("Scan success") > scans; }, 30000));

    EXPECT_EQ(ask("function=Enable\nenable=0"), command_answer("wifista_enable", 0, 0));
    EXPECT_TRUE(wait_until([] { return station("LIST_NETWORKS") == kNoNetworks; }, 10000))
        << station("LIST_NETWORKS");
    EXPECT_TRUE(wait_until(
        [] { return reply_value(station("STATUS"), "wpa_state") != "COMPLETED"; }, 10000));
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE), static_settings("192.168.50", false) + registered);
    EXPECT_EQ(ask("function=GetAPList"),
              kXml + std::string("<wifista_ap_list>\n<result>0</result>\n<enable>0</enable>\n"
                                 "</wifista_ap_list>\n"));
    // Switched off, a connect does nothing and says so by its enable 0.
    EXPECT_EQ(ask(connect_request(radio::kOpen, "none", "")),
              command_answer("wifista_connecte", 0, 0));
    EXPECT_EQ(station("LIST_NETWORKS"), kNoNetworks);

    EXPECT_EQ(ask("function=Enable\nenable=1"), command_answer("wifista_enable", 0, 1));
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE), static_settings("192.168.50") + registered);
    EXPECT_TRUE(wait_connected_to(radio::kOpen, 120000)) << station("STATUS");
    // Chosen with the network id of the connect that registered it, and
    // nothing to pass over: the disconnect forgot the last access point.
    std::vector<std::string> tries = wifim_test::log_lines_with("Try to connect to SSID : ");
    ASSERT_EQ(tries.size(), 1u);
    EXPECT_NE(tries[0].find("Try to connect to SSID : radio-open, network id:"), std::string::npos)
        << tries[0];
    EXPECT_EQ(tries[0].substr(tries[0].size() - 13), ", skip bssid:") << tries[0];
}

// ------------------------------------------------------------ WPS

class WPS : public Radio {
  protected:
    // A WPS request succeeds and registers the network learnt, first, with
    // the security and key it was given.
    void expect_learnt_profile(const std::string& answer) {
        EXPECT_EQ(answer, command_answer("wifista_wps", 0, 1));
        std::string status = station("STATUS");
        EXPECT_EQ(reply_value(status, "wpa_state"), "COMPLETED") << status;
        EXPECT_EQ(reply_value(status, "ssid"), radio::kWpa2.ssid);
        EXPECT_EQ(read_file(WIFIM_PROFILE_FILE),
                  static_settings("192.168.50") +
                      profile_entry(1, radio::kWpa2.ssid, "wpa2", radio::kWpa2.key, "ascii", 1));
        EXPECT_EQ(log_count("Connected by WPS success, ssid:radio-wpa2, security:11, "
                            "password:correct-horse-battery"),
                  1);
        // The real stack reports WPS-SUCCESS while still on the association
        // that carried the exchange; it then drops it itself (DISCONNECTED
        // reason=3, locally generated) and associates with the credential.
        // The daemon reads those two events after the WPS job: the
        // disconnection removes the marker the job had made, and a
        // connection event makes none, so the station ends connected without
        // the marker.
        std::vector<std::string> after;
        auto starts_any = [&after](const char* prefix) {
            return std::any_of(after.begin(), after.end(),
                               [prefix](const std::string& t) { return t.rfind(prefix, 0) == 0; });
        };
        EXPECT_TRUE(wait_until(
            [&] {
                after =
                    daemon_events_between("Connected by WPS success, ssid:", "(the end of the log)")
                        .texts;
                return starts_any("CTRL-EVENT-DISCONNECTED ") &&
                       starts_any("CTRL-EVENT-CONNECTED ");
            },
            20000));
        EXPECT_FALSE(file_exists(WIFIM_CONNECTED_MARKER_FILE));
        // wpa_supplicant keeps the network it saved.
        EXPECT_NE(read_file(radio::kStationConfig).find("ssid=\"radio-wpa2\""), std::string::npos);
    }
};

TEST_F(WPS, PushButtonRegistersTheLearntProfile) {
    start_daemon(static_settings("192.168.50"));
    wait_in_range(radio::kWpa2.ssid);
    ASSERT_EQ(radio::access_point_command(radio::kWpa2, "WPS_PBC"), "OK\n");
    expect_learnt_profile(ask("function=WPS\nwps_pbc=1"));
}

TEST_F(WPS, PinRegistersTheLearntProfile) {
    start_daemon(static_settings("192.168.50"));
    wait_in_range(radio::kWpa2.ssid);
    std::string pin_answer = ask("function=GetWPSPin");
    size_t at = pin_answer.find("<pin>");
    ASSERT_NE(at, std::string::npos) << pin_answer;
    std::string pin = pin_answer.substr(at + 5, 8);
    ASSERT_EQ(radio::access_point_command(radio::kWpa2, "WPS_PIN any " + pin), "OK\n");
    expect_learnt_profile(ask("function=WPS\nwps_pbc=0\npin=" + pin));
}

TEST_F(WPS, TwoAccessPointsInPushButtonModeAnswerOverlap) {
    start_daemon(static_settings("192.168.50"));
    wait_in_range(radio::kWpa2.ssid);
    wait_in_range(radio::kFirst.ssid);
    ASSERT_EQ(radio::access_point_command(radio::kWpa2, "WPS_PBC"), "OK\n");
    ASSERT_EQ(radio::access_point_command(radio::kFirst, "WPS_PBC"), "OK\n");
    EXPECT_EQ(ask("function=WPS\nwps_pbc=1"), command_answer("wifista_wps", 9, 1));
    EXPECT_EQ(log_count("Connected by WPS success, but can't read profile from config file, "
                        "status:10"),
              1);
    EXPECT_EQ(station("LIST_NETWORKS"), kNoNetworks);
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE), static_settings("192.168.50"));
}

// The access point expects another PIN: what the real stack sends ends the
// daemon's wait, and the answer is that event's code.
TEST_F(WPS, WrongPinAnswersFromTheEventThatEndedTheWait) {
    start_daemon(static_settings("192.168.50"));
    wait_in_range(radio::kWpa2.ssid);
    ASSERT_EQ(radio::access_point_command(radio::kWpa2, "WPS_PIN any 12345670"), "OK\n");
    long start = wifim_test::now_ms();
    std::string answer = ask("function=WPS\nwps_pbc=0\npin=23456709");
    long took = wifim_test::now_ms() - start;
    events_seen seen = daemon_events_between("WPS PIN, pin:23456709",
                                             "can't read profile from config file, status:");
    int result = 0;
    std::string ended_by;
    for (const std::string& text : seen.texts) {
        result = event_status(text) != 0 ? event_status(text) : result;
        if (result == 6 || result == 10 || result == 11 || result == 12 || result == 13) {
            ended_by = text;
            break;
        }
    }
    std::string events;
    for (const std::string& text : seen.texts) {
        events += text + "\n";
    }
    std::cout << "wrong PIN: answered after " << took << " ms; events the daemon read:\n" << events;
    EXPECT_EQ(result, 12) << "the wait did not end on a WPS failure";
    EXPECT_EQ(ended_by.rfind("WPS-FAIL ", 0), 0u) << ended_by;
    EXPECT_NE(seen.end_line.find("status:" + std::to_string(result)), std::string::npos)
        << seen.end_line;
    EXPECT_EQ(answer, command_answer("wifista_wps", wps_code(result), 1));
    EXPECT_EQ(station("LIST_NETWORKS"), kNoNetworks);
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE), static_settings("192.168.50"));
}

// ------------------------------------------------------------ network settings

TEST_F(NetSettings, DhcpLeaseIsAppliedByTheConnectedScriptAndReported) {
    start_daemon("");  // no profile file: DHCP for the address and the name servers
    wait_in_range(radio::kDhcp.ssid);
    ASSERT_EQ(ask(connect_request(radio::kDhcp, "none", "")),
              command_answer("wifista_connecte", 0, 1));
    std::string address = radio::station_address();
    ASSERT_EQ(address.rfind("192.168.77.1", 0), 0u) << address;  // .100 to .110
    ASSERT_EQ(address.substr(address.size() - 3), "/24");
    std::string ip = address.substr(0, address.size() - 3);
    EXPECT_EQ(ask("function=GetConnected"),
              connected_answer(radio::kDhcp.ssid, "none", ip, "192.168.77.1", "192.168.77.53",
                               "192.168.77.54"));
    EXPECT_TRUE(radio::station_pings("192.168.77.1"));
    EXPECT_EQ(ask("function=SetNetSetting\ndhcp=1\ndns_dhcp=1"),
              kXml + std::string("<wifista_setnetwork>\n<result>0</result>\n"
                                 "</wifista_setnetwork>\n"));
    EXPECT_EQ(ask("function=GetNetSetting"),
              kXml + std::string("<wifista_getnetwork>\n<result>0</result>\n<dhcp>1</dhcp>\n"
                                 "<ip_addr></ip_addr>\n<netmask></netmask>\n<gateway></gateway>\n"
                                 "<dns_dhcp>1</dns_dhcp>\n<dns_server1></dns_server1>\n"
                                 "<dns_server2></dns_server2>\n</wifista_getnetwork>\n"));
}

TEST_F(NetSettings, StaticSettingsAreAppliedByTheConnectedScriptAndReported) {
    start_daemon("");
    wait_in_range(radio::kDhcp.ssid);
    EXPECT_EQ(ask("function=SetNetSetting\ndhcp=0\ndns_dhcp=0\nip_addr=192.168.77.20\n"
                  "netmask=255.255.255.0\ngateway=192.168.77.1\ndns_server1=192.168.77.53\n"
                  "dns_server2=192.168.77.54"),
              kXml + std::string("<wifista_setnetwork>\n<result>0</result>\n"
                                 "</wifista_setnetwork>\n"));
    EXPECT_EQ(ask("function=GetNetSetting"),
              kXml + std::string("<wifista_getnetwork>\n<result>0</result>\n<dhcp>0</dhcp>\n"
                                 "<ip_addr>192.168.77.20</ip_addr>\n"
                                 "<netmask>255.255.255.0</netmask>\n"
                                 "<gateway>192.168.77.1</gateway>\n<dns_dhcp>0</dns_dhcp>\n"
                                 "<dns_server1>192.168.77.53</dns_server1>\n"
                                 "<dns_server2>192.168.77.54</dns_server2>\n"
                                 "</wifista_getnetwork>\n"));
    ASSERT_EQ(ask(connect_request(radio::kDhcp, "none", "")),
              command_answer("wifista_connecte", 0, 1));
    EXPECT_EQ(radio::station_address(), "192.168.77.20/24");
    EXPECT_EQ(ask("function=GetConnected"),
              connected_answer(radio::kDhcp.ssid, "none", "192.168.77.20", "192.168.77.1",
                               "192.168.77.53", "192.168.77.54"));
    EXPECT_TRUE(radio::station_pings("192.168.77.1"));
}

// ------------------------------------------------------------ supervision

// wpa_supplicant dies under a connected daemon: the worker loses it and
// ends, the supervisor replaces it after running the example station
// script, which starts wpa_supplicant again, and the new worker connects on
// its own to the registered profile.
TEST_F(Supervisor, RestartsTheStationAndTheWorkerReconnects) {
    start_daemon(static_settings("192.168.50"));
    wait_in_range(radio::kWpa2.ssid);
    ASSERT_EQ(ask(connect_request(radio::kWpa2, "wpa2", radio::kWpa2.key)),
              command_answer("wifista_connecte", 0, 1));
    const std::string profiles = read_file(WIFIM_PROFILE_FILE);
    pid_t worker = radio::daemon_worker(daemon);
    pid_t supplicant = radio::station_supplicant_pid();
    ASSERT_GT(worker, 0);
    ASSERT_GT(supplicant, 0);
    ASSERT_EQ(kill(supplicant, SIGTERM), 0);

    EXPECT_TRUE(wait_until([] { return log_count("Restart child process") == 1; }, 120000));
    EXPECT_EQ(log_count("Can't receive child ping message, wait count:1, terminating child "
                        "process"),
              1);
    ASSERT_TRUE(
        wait_until([] { return log_count("Program start -- Version: 1.0.4") == 2; }, 60000));
    EXPECT_TRUE(wifim_test::process_alive(daemon.supervisor));
    pid_t new_worker = radio::daemon_worker(daemon);
    EXPECT_GT(new_worker, 0);
    EXPECT_NE(new_worker, worker);
    EXPECT_EQ(station("PING"), "PONG\n");
    EXPECT_NE(radio::station_supplicant_pid(), supplicant);
    EXPECT_TRUE(wait_connected_to(radio::kWpa2, 120000)) << station("STATUS");
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE), profiles);
}

// ------------------------------------------------------------ the wall clock

namespace {

const long long kHourMs = 3600LL * 1000;
const long long kYearMs = 365LL * 24 * kHourMs;

// The guest's wall clock, in milliseconds since the epoch, as the daemon's
// log prints it.
long long wall_ms() {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Sets the guest's wall clock at once, as a camera without a battery-backed
// clock does when it first reaches a time server. The scenarios run as root
// inside the VM, whose clock is its own; hostapd and wpa_supplicant keep
// their timers on the monotonic clock, which this does not move.
bool set_wall_clock_ns(long long ns) {
    struct timespec to;
    to.tv_sec = static_cast<time_t>(ns / 1000000000);
    to.tv_nsec = static_cast<long>(ns % 1000000000);
    return clock_settime(CLOCK_REALTIME, &to) == 0;
}

long long clock_ns(clockid_t clock) {
    struct timespec now;
    clock_gettime(clock, &now);
    return static_cast<long long>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// Steps the wall clock by delta_ms; the wall time it was set to, in ms, or
// 0 when the step was refused. Every wall-clock reading taken after the
// step is at least that value.
long long step_wall_clock(long long delta_ms) {
    long long to_ns = clock_ns(CLOCK_REALTIME) + delta_ms * 1000000;
    return set_wall_clock_ns(to_ns) ? to_ns / 1000000 : 0;
}

// The numbers of one job line of the daemon's log: "Got job, index:%d,
// priority:%s, Job ID:%d, time out:%lld, ..., now:%lld, ..." or "updated
// result, index:%d, priority:%s, Job ID:%d, result:%d, time out:%lld/%lld".
// Both times are wall-clock milliseconds.
struct job_line {
    int index = 0;
    std::string priority;
    int job_id = -1;
    int result = -1;            // updated result only
    long long deadline_ms = 0;  // "time out:"
    long long now_ms = 0;       // the daemon's wall clock when it wrote the line
};

bool parse_updated_result(const std::string& line, job_line* job) {
    size_t at = line.find("updated result, ");
    char priority[16] = "";
    if (at == std::string::npos ||
        sscanf(line.c_str() + at,
               "updated result, index:%d, priority:%15[^,], Job ID:%d, result:%d, "
               "time out:%lld/%lld",
               &job->index, priority, &job->job_id, &job->result, &job->deadline_ms,
               &job->now_ms) != 6) {
        return false;
    }
    job->priority = priority;
    return true;
}

bool parse_got_job(const std::string& line, job_line* job) {
    size_t at = line.find("Got job, ");
    char priority[16] = "";
    long long next_scan = 0;
    long long next_connect = 0;
    if (at == std::string::npos ||
        sscanf(line.c_str() + at,
               "Got job, index:%d, priority:%15[^,], Job ID:%d, time out:%lld, "
               "next scan clock:%lld, next connect clock:%lld, now:%lld",
               &job->index, priority, &job->job_id, &job->deadline_ms, &next_scan, &next_connect,
               &job->now_ms) != 7) {
        return false;
    }
    job->priority = priority;
    return true;
}

// Waits until the log holds more than `seen` lines containing text; the
// first new one, or "" after timeout_ms. Woken by each write to the log
// rather than by polling, so that the scenario acts within milliseconds of
// the daemon's line, while the job it announces is still under way.
std::string wait_new_log_line(const std::string& text, size_t seen, int timeout_ms) {
    int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (watch >= 0) {
        inotify_add_watch(watch, WIFIM_LOG_FILE, IN_MODIFY);
    }
    std::string found;
    long start = wifim_test::now_ms();
    while (true) {
        std::vector<std::string> lines = wifim_test::log_lines_with(text);
        if (lines.size() > seen) {
            found = lines[seen];
            break;
        }
        long left = timeout_ms - (wifim_test::now_ms() - start);
        if (left <= 0) {
            break;
        }
        // The watch may miss a log that is being replaced: look again at
        // least every 100 ms.
        struct pollfd wake = {watch, POLLIN, 0};
        poll(&wake, watch >= 0 ? 1 : 0, static_cast<int>(std::min(left, 100L)));
        char drain[4096];
        while (watch >= 0 && read(watch, drain, sizeof(drain)) > 0) {
        }
    }
    if (watch >= 0) {
        close(watch);
    }
    return found;
}

// Lets the calling thread run ahead of every ordinary process of the VM
// (whose one processor it shares with the daemon and the radios) while it
// waits for a line of the daemon's log, or back among them. Woken by the
// line, it runs before the daemon takes its next step.
bool run_ahead(bool ahead) {
    struct sched_param param = {};
    param.sched_priority = ahead ? 1 : 0;
    return pthread_setschedparam(pthread_self(), ahead ? SCHED_FIFO : SCHED_OTHER, &param) == 0;
}

// The first line of the log that holds text after the (last) line equal to
// anchor, or "".
std::string first_line_after(const std::string& anchor, const std::string& text) {
    std::vector<std::string> lines = split_lines(read_file(WIFIM_LOG_FILE));
    auto at = std::find(lines.rbegin(), lines.rend(), anchor);
    if (at == lines.rend()) {
        return "";
    }
    for (auto line = at.base(); line != lines.end(); ++line) {
        if (line->find(text) != std::string::npos) {
            return *line;
        }
    }
    return "";
}

// The daemon is idle: its last scan found the station connected and
// scheduled nothing more (both clocks 0 on its "Scan success" line), no job
// has been taken since, and that scan's result is posted. From then on the
// service loop only waits, pinging the supervisor on its own schedule.
bool daemon_idle() {
    std::string last;
    bool posted = false;
    for (const std::string& line : split_lines(read_file(WIFIM_LOG_FILE))) {
        if (line.find("Got job, ") != std::string::npos ||
            line.find("Scan success, ") != std::string::npos) {
            last = line;
            posted = false;
        } else if (line.find("updated result, ") != std::string::npos) {
            posted = true;
        }
    }
    return posted && last.find("Scan success, ") != std::string::npos &&
           last.find(", next scan clock:0, next connect clock:0, ") != std::string::npos;
}

}  // namespace

// A camera without a battery-backed clock steps its wall clock when it
// first reaches a time server. The worker pings its supervisor, schedules,
// and times its jobs on the monotonic clock, so a step restarts nothing,
// expires nothing and keeps the station where it is; only what the log
// prints follows the wall clock.
class Clock : public Radio {
  protected:
    void SetUp() override {
        wall0_ns = clock_ns(CLOCK_REALTIME);
        monotonic0_ns = clock_ns(CLOCK_MONOTONIC);
        Radio::SetUp();
    }

    // The next scenarios and the run's report get a sane date back: the
    // wall clock of the start plus the time that really passed.
    void TearDown() override {
        EXPECT_TRUE(set_wall_clock_ns(wall0_ns + clock_ns(CLOCK_MONOTONIC) - monotonic0_ns));
        Radio::TearDown();
    }

    // What a needless restart or an expired job would change.
    struct undisturbed {
        pid_t worker = -1;
        pid_t supplicant = -1;
        int starts = 0;
        int expired = 0;
        int jobs_taken = 0;
        size_t disconnections = 0;
    };

    size_t station_disconnections() {
        size_t n = 0;
        for (const auto& e : radio::recorder_since(&station_events, 0)) {
            n += e.text.find("CTRL-EVENT-DISCONNECTED ") != std::string::npos ? 1 : 0;
        }
        return n;
    }

    undisturbed now_undisturbed() {
        undisturbed state;
        state.worker = radio::daemon_worker(daemon);
        state.supplicant = radio::station_supplicant_pid();
        state.starts = log_count("Program start -- Version: 1.0.4");
        std::vector<std::string> results = wifim_test::log_lines_with("updated result, ");
        state.expired = static_cast<int>(
            std::count_if(results.begin(), results.end(), [](const std::string& line) {
                return line.find(", result:1, time out:") != std::string::npos;
            }));
        state.jobs_taken = log_count("Got job, ");
        state.disconnections = station_disconnections();
        return state;
    }

    // Once a second for `seconds` (longer than the supervisor's allowance
    // of 30 s between pings): the station associated with ap all along.
    // What the station said when it was not, or "".
    std::string watch_station(const access_point& ap, int seconds) {
        long start = wifim_test::now_ms();
        for (int i = 1; i <= seconds; i++) {
            std::string status = station("STATUS");
            if (reply_value(status, "wpa_state") != "COMPLETED" ||
                reply_value(status, "bssid") != ap.bssid) {
                return "after " + std::to_string(i - 1) + " s:\n" + status;
            }
            long next = start + i * 1000L;
            while (wifim_test::now_ms() < next) {
                usleep(static_cast<useconds_t>((next - wifim_test::now_ms()) * 1000));
            }
        }
        return "";
    }

    // Nothing restarted: no overdue ping, the same worker and the same
    // wpa_supplicant (the supervisor's restart runs the station script,
    // which stops it), no job expired, no disconnection, the marker kept.
    void expect_undisturbed(const undisturbed& before) {
        EXPECT_EQ(log_count("Can't receive child ping message"), 0);
        EXPECT_EQ(log_count("Restart child process"), 0);
        EXPECT_EQ(radio::daemon_worker(daemon), before.worker);
        EXPECT_EQ(log_count("Program start -- Version: 1.0.4"), 1);
        undisturbed after = now_undisturbed();
        EXPECT_EQ(after.supplicant, before.supplicant) << "the station script ran";
        EXPECT_EQ(after.expired, before.expired) << "a job expired";
        EXPECT_EQ(after.disconnections, before.disconnections) << "the station was disconnected";
        EXPECT_TRUE(file_exists(WIFIM_CONNECTED_MARKER_FILE));
    }

    long long wall0_ns = 0;
    long long monotonic0_ns = 0;
};

TEST_F(Clock, StepBackAnHourAndForwardAYearKeepsTheStation) {
    const std::string net = "192.168.50";
    const access_point& ap = radio::kWpa2;
    const std::string connected =
        connected_answer(ap.ssid, "wpa2", net + ".2", net + ".1", net + ".53", "");
    long scenario_start = wifim_test::now_ms();
    start_daemon(static_settings(net));
    wait_in_range(ap.ssid);
    ASSERT_EQ(ask(connect_request(ap, "wpa2", ap.key)), command_answer("wifista_connecte", 0, 1));
    ASSERT_TRUE(wait_connected_to(ap, 20000)) << station("STATUS");
    ASSERT_TRUE(wait_until(daemon_idle, 120000)) << "the daemon kept scanning";
    const undisturbed start = now_undisturbed();
    ASSERT_GT(start.worker, 0);
    ASSERT_GT(start.supplicant, 0);
    ASSERT_EQ(start.starts, 1);
    ASSERT_TRUE(file_exists(WIFIM_CONNECTED_MARKER_FILE));

    // Back an hour, idle: only the worker's own schedule pings the
    // supervisor now (a request would ping from its job), so a schedule
    // kept on the wall clock would fall silent for an hour and the worker
    // be restarted within the watch.
    long long back_to = step_wall_clock(-kHourMs);
    ASSERT_NE(back_to, 0) << "the wall clock could not be set";
    std::string lost = watch_station(ap, 40);
    EXPECT_EQ(lost, "") << "the station was let go after the step back";
    expect_undisturbed(start);
    EXPECT_EQ(log_count("Got job, "), start.jobs_taken) << "the watch was not idle";

    // Requests are answered, and the log prints the new wall time: the
    // status job's deadline 5 s ahead of the moment its result was posted.
    size_t status_jobs = wifim_test::log_lines_with("Job ID:2, result:").size();
    long long asked = wall_ms();
    EXPECT_EQ(ask("function=GetConnected"), connected);
    long long answered = wall_ms();
    std::vector<std::string> status_lines = wifim_test::log_lines_with("Job ID:2, result:");
    ASSERT_EQ(status_lines.size(), status_jobs + 1);
    job_line status_job;
    ASSERT_TRUE(parse_updated_result(status_lines.back(), &status_job)) << status_lines.back();
    EXPECT_EQ(status_job.result, 16) << status_lines.back();
    EXPECT_GE(status_job.now_ms, asked) << status_lines.back();
    EXPECT_LE(status_job.now_ms, answered) << status_lines.back();
    EXPECT_GE(status_job.deadline_ms - status_job.now_ms, 0) << status_lines.back();
    EXPECT_LE(status_job.deadline_ms - status_job.now_ms, 5000) << status_lines.back();
    const undisturbed after_back = now_undisturbed();

    // Forward a year while a scan job waits for its results: a deadline on
    // the wall clock would have passed at once. The step is made as soon as
    // the loop logs that it took the job, before it sends SCAN; should the
    // scan have ended even so, the next one is tried, a year further on.
    const std::string taken_scan = "priority:normal, Job ID:1, time out:";
    job_line scan;
    long long forward_to = 0;
    std::string scan_end;
    int tries = 0;
    for (tries = 1; tries <= 3; tries++) {
        size_t taken = wifim_test::log_lines_with(taken_scan).size();
        // The loop takes the scan before GetAPList is answered: ask from
        // another thread (an ordinary one) and watch the log meanwhile.
        std::thread asker([] { ask("function=GetAPList"); });
        bool ahead = run_ahead(true);
        std::string got = wait_new_log_line(taken_scan, taken, 30000);
        forward_to = got.empty() ? 0 : step_wall_clock(kYearMs);
        run_ahead(false);
        asker.join();
        ASSERT_TRUE(ahead) << "the scenario cannot run ahead of the daemon";
        ASSERT_FALSE(got.empty()) << "GetAPList asked for no scan";
        ASSERT_NE(forward_to, 0) << "the wall clock could not be set";
        job_line taken_job;
        ASSERT_TRUE(parse_got_job(got, &taken_job)) << got;
        const std::string ended = "updated result, index:" + std::to_string(taken_job.index) +
                                  ", priority:normal, Job ID:1, ";
        ASSERT_TRUE(wait_until(
            [&] {
                scan_end = first_line_after(got, ended);
                return !scan_end.empty();
            },
            30000))
            << "the scan job never ended";
        ASSERT_TRUE(parse_updated_result(scan_end, &scan)) << scan_end;
        if (scan.now_ms >= forward_to) {
            break;
        }
        std::cout << "the scan ended before the step (" << scan_end << "); once more\n";
    }
    ASSERT_LE(tries, 3) << "no step landed while a scan job was under way";
    RecordProperty("forward_step_tries", std::to_string(tries));
    EXPECT_EQ(scan.job_id, 1) << scan_end;
    EXPECT_EQ(scan.result, 16) << scan_end;
    EXPECT_GE(scan.deadline_ms - scan.now_ms, 0) << scan_end;
    EXPECT_LE(scan.deadline_ms - scan.now_ms, 10000) << scan_end;
    EXPECT_EQ(ask("function=GetConnected"), connected);
    lost = watch_station(ap, 40);
    EXPECT_EQ(lost, "") << "the station was let go after the step forward";
    expect_undisturbed(after_back);
    long took = wifim_test::now_ms() - scenario_start;
    RecordProperty("scenario_ms", std::to_string(took));
    std::cout << "clock steps: scenario " << took << " ms, forward step tried " << tries
              << " time(s)\n";
}

// ------------------------------------------------------------ network names
//
// Open access points whose names are not plain ASCII (world.sh: one hostapd
// on names0..names6, left disabled for every other scenario). wpa_supplicant
// prints their SSIDs escaped; the daemon lists, joins and stores them by
// their text.

namespace {

struct named_access_point {
    access_point ap;
    std::string name;     // as the daemon lists it and ConnectAP takes it
    std::string printed;  // as wpa_supplicant prints the SSID
};

const std::vector<named_access_point>& named_access_points() {
    static const std::vector<named_access_point> list = {
        {{"", "names0", "02:00:00:00:06:00", ""},
         "Caf\xc3\xa9 Cr\xc3\xa8me",
         "Caf\\xc3\\xa9 Cr\\xc3\\xa8me"},
        {{"", "names1", "02:00:00:00:06:01", ""},
         "\xe5\x92\x96\xe5\x95\xa1\xe9\xa6\x86",
         "\\xe5\\x92\\x96\\xe5\\x95\\xa1\\xe9\\xa6\\x86"},
        {{"", "names2", "02:00:00:00:06:02", ""},
         "\xf0\x9f\x93\xb7 camera",
         "\\xf0\\x9f\\x93\\xb7 camera"},
        {{"", "names3", "02:00:00:00:06:03", ""}, "say \"cheese\"", "say \\\"cheese\\\""},
        {{"", "names4", "02:00:00:00:06:04", ""}, "back\\slash", "back\\\\slash"},
        // Latin-1, not UTF-8: named in the escaped form inside P"...".
        {{"", "names5", "02:00:00:00:06:05", ""}, "P\"Caf\\xe9\"", "Caf\\xe9"},
        {{"", "names6", "02:00:00:00:06:06", ""},
         "Caf\xc3\xa9 \"\xe5\x92\x96\xe5\x95\xa1\" \\ \xf0\x9f\x93\xb7",
         "Caf\\xc3\\xa9 \\\"\\xe5\\x92\\x96\\xe5\\x95\\xa1\\\" \\\\ \\xf0\\x9f\\x93\\xb7"},
    };
    return list;
}

}  // namespace

class NetworkNames : public Radio {
  protected:
    void SetUp() override {
        Radio::SetUp();
        const access_point& first = named_access_points()[0].ap;
        radio::access_point_command(first, "ENABLE");
        ASSERT_TRUE(wait_until(
            [&] {
                return reply_value(radio::access_point_command(first, "STATUS"), "state") ==
                       "ENABLED";
            },
            10000))
            << "the named access points are not up (world.sh's network names section)";
    }
    void TearDown() override {
        Radio::TearDown();
        radio::access_point_command(named_access_points()[0].ap, "DISABLE");
    }
    void wait_connected_to_named(const named_access_point& named, int timeout_ms) {
        EXPECT_TRUE(wait_connected_to(named.ap, timeout_ms)) << station("STATUS");
        EXPECT_EQ(reply_value(station("STATUS"), "ssid"), named.printed);
    }
};

TEST_F(NetworkNames, ListedByTheirTextAndJoinedByConnectAP) {
    start_daemon(static_settings("192.168.50"));
    for (const named_access_point& named : named_access_points()) {
        wait_in_range(named.name);
    }
    std::string scan = station("SCAN_RESULTS");
    std::string answer = ask("function=GetAPList");
    for (const named_access_point& named : named_access_points()) {
        std::string line = radio::scan_line(scan, named.ap.bssid);
        ASSERT_FALSE(line.empty()) << named.name << " not in the station's scan:\n" << scan;
        std::vector<std::string> fields;
        size_t start = 0;
        for (size_t tab; (tab = line.find('\t', start)) != std::string::npos; start = tab + 1) {
            fields.push_back(line.substr(start, tab - start));
        }
        fields.push_back(line.substr(start));
        ASSERT_EQ(fields.size(), 5u) << line;
        // The real stack's own escaping, which the daemon decodes.
        EXPECT_EQ(fields[4], named.printed);
        std::string block = " <ap_data>\n  <ssid><![CDATA[" + named.name +
                            "]]></ssid>\n  <security>none</security>\n  <signal>" +
                            std::to_string(signal_percent(atoi(fields[2].c_str()))) +
                            "</signal>\n  <registered>0</registered>\n  <scanned>1</scanned>\n"
                            "  <connected>0</connected>\n </ap_data>\n";
        EXPECT_NE(answer.find(block), std::string::npos) << block << "in\n" << answer;
    }
    for (const named_access_point& named : named_access_points()) {
        SCOPED_TRACE(named.name);
        EXPECT_EQ(ask("function=ConnectAP\nssid=" + named.name + "\nsecurity=none\npassword="),
                  command_answer("wifista_connecte", 0, 1));
        wait_connected_to_named(named, 10000);
        EXPECT_EQ(ask("function=GetConnected"),
                  connected_answer(named.name, "none", "192.168.50.2", "192.168.50.1",
                                   "192.168.50.53", ""));
        // Registered under its name, as the client gave it.
        EXPECT_NE(read_file(WIFIM_PROFILE_FILE).find(" = " + named.name + "\nsecurity_"),
                  std::string::npos)
            << read_file(WIFIM_PROFILE_FILE);
    }
}

// The registered name is matched with its escaped scan entry and joined by
// the daemon on its own; after the access point drops the station, the
// station is back on that network and the daemon reports it by its name.
TEST_F(NetworkNames, RegisteredNameIsJoinedOnItsOwnAndRejoinedAfterADrop) {
    const named_access_point& named = named_access_points()[6];
    start_daemon(static_settings("192.168.50") +
                 profile_entry(1, named.name, "none", "", "ascii", 1));
    wait_connected_to_named(named, 120000);
    EXPECT_EQ(log_count("Try to connect to SSID : " + named.name + ", network id:-1, skip bssid:"),
              1);
    EXPECT_TRUE(wait_until([] { return file_exists(WIFIM_CONNECTED_MARKER_FILE); }, 30000));
    EXPECT_EQ(ask("function=GetConnected"), connected_answer(named.name, "none", "192.168.50.2",
                                                             "192.168.50.1", "192.168.50.53", ""));

    size_t seen = radio::recorder_count(&station_events);
    std::string station_address = reply_value(station("STATUS"), "address");
    ASSERT_EQ(radio::access_point_command(named.ap, "DEAUTHENTICATE " + station_address), "OK\n");
    ASSERT_GE(radio::recorder_wait(&station_events, seen, "CTRL-EVENT-DISCONNECTED", 30000), 0);
    ASSERT_GE(radio::recorder_wait(&station_events, seen, "CTRL-EVENT-CONNECTED", 120000), 0)
        << station("STATUS");
    wait_connected_to_named(named, 30000);
    EXPECT_TRUE(wait_until(
        [&] {
            return ask("function=GetConnected") == connected_answer(named.name, "none",
                                                                    "192.168.50.2", "192.168.50.1",
                                                                    "192.168.50.53", "");
        },
        60000))
        << ask("function=GetConnected");
    // Nothing was registered anew: the profile is as written.
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE),
              static_settings("192.168.50") + profile_entry(1, named.name, "none", "", "ascii", 1));
}
