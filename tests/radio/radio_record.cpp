// Records what the real stack does, for the wpa_supplicant simulator to
// match: run in the radio VM by "tests/radio/radio.sh --record", which
// copies the files into tests/radio/transcripts/. The station is driven
// with the very commands the daemon sends, straight on wpa_supplicant's
// control socket, and every event is written with its time since the
// command that set things going.
//
//   scan-results.txt        SCAN_RESULTS of every security kind in the world
//   status.txt              STATUS once connected to each kind
//   connect-events.txt      a WPA2-PSK connection on fresh scan results
//   connect-scan-events.txt the same with no scan results kept: the scan
//                           wpa_supplicant makes during the connection
//   wrong-key-events.txt    a wrong passphrase, up to the second back-off
//   wps-pbc-events.txt      WPS by push button, station and access point
//   wps-network-block.txt   the network block wpa_supplicant saves for it
//   wps-wrong-pin-events.txt  WPS with a PIN the access point does not expect
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "radio_world.h"
#include "test_support.h"

namespace {

using radio::access_point;
using radio::station;

std::string g_dir;
radio::event_recorder g_station_events;
std::string g_text;        // the file being written
std::string g_network_id;  // of the network configure() made

void note(const std::string& line) {
    g_text += line + "\n";
}

// The station's command, noted with its reply.
std::string command(const std::string& text) {
    std::string reply = station(text);
    std::string shown = reply;
    while (!shown.empty() && shown.back() == '\n') {
        shown.pop_back();
    }
    note("> " + text + "    -> " + (shown.find('\n') == std::string::npos ? shown : "(lines)"));
    return reply;
}

void save(const std::string& name) {
    wifim_test::write_file(g_dir + "/" + name, g_text);
    g_text.clear();
}

// Events since first, in ms since the time t0.
void note_events(size_t first, long t0) {
    for (const radio::radio_event& e : radio::recorder_since(&g_station_events, first)) {
        char stamp[32];
        snprintf(stamp, sizeof(stamp), "%+7ld ms ", e.ms - t0);
        note(stamp + e.text);
    }
}

void reset_station() {
    station("DISCONNECT");
    station("REMOVE_NETWORK all");
    station("SAVE_CONFIG");
    wifim_test::wait_until(
        [] { return radio::reply_value(station("STATUS"), "wpa_state") != "COMPLETED"; }, 10000);
}

// The daemon's network block for a WPA name ("wpa", "wpa2", "anywpa": its
// any-WPA kind), for an open network and for WEP; then enabled.
void configure(const access_point& ap, const std::string& kind, const std::string& key) {
    command("DISCONNECT");
    command("REMOVE_NETWORK all");
    std::string id = command("ADD_NETWORK");
    id.erase(id.find_last_not_of('\n') + 1);
    command("DISABLE_NETWORK " + id);
    command("SET_NETWORK " + id + " ssid \"" + ap.ssid + "\"");
    if (kind == "wpa") {
        command("SET_NETWORK " + id + " key_mgmt WPA-PSK WPA-EAP");
        command("SET_NETWORK " + id + " proto WPA RSN");
        command("SET_NETWORK " + id + " priority 1");
        command("SET_NETWORK " + id + " psk \"" + key + "\"");
    } else {
        command("SET_NETWORK " + id + " key_mgmt NONE");
        if (kind == "none") {
            command("SET_NETWORK " + id + " proto WPA");
        }
        command("SET_NETWORK " + id + " priority 1");
        command("SET_NETWORK " + id + " auth_alg OPEN");
        command("SET_NETWORK " + id + " mode 0");
        if (kind == "wep") {
            command("SET_NETWORK " + id + " wep_key0 \"" + key + "\"");
            command("SET_NETWORK " + id + " wep_tx_keyidx 0");
        }
    }
    command("DISABLE_NETWORK " + id);
    g_network_id = id;
}

bool enable_and_wait(const std::string& until, int timeout_ms, long* t0, size_t* first) {
    *first = radio::recorder_count(&g_station_events);
    *t0 = wifim_test::now_ms();
    command("ENABLE_NETWORK " + g_network_id);
    command("RECONNECT");
    return radio::recorder_wait(&g_station_events, *first, until, timeout_ms) >= 0;
}

bool record_scan() {
    size_t first = radio::recorder_count(&g_station_events);
    station("SCAN");
    if (radio::recorder_wait(&g_station_events, first, "CTRL-EVENT-SCAN-RESULTS", 20000) < 0) {
        return false;
    }
    std::vector<std::string> lines = wifim_test::split_lines(station("SCAN_RESULTS"));
    if (lines.empty()) {
        return false;
    }
    // The order of the lines is wpa_supplicant's own and varies: by SSID.
    auto by_ssid = [](const std::string& a, const std::string& b) {
        return a.substr(a.rfind('\t') + 1) < b.substr(b.rfind('\t') + 1);
    };
    std::sort(lines.begin() + 1, lines.end(), by_ssid);
    for (const std::string& line : lines) {
        note(line);
    }
    save("scan-results.txt");
    return lines.size() == radio::all_access_points().size() + 1;
}

bool record_status_of_each_kind() {
    struct kind {
        access_point ap;
        const char* name;
    };
    const kind kinds[] = {{radio::kOpen, "none"}, {radio::kWep40, "wep"}, {radio::kWep104, "wep"},
                          {radio::kTkip, "wpa"},  {radio::kWpa2, "wpa"},  {radio::kMixed, "wpa"}};
    std::string statuses;
    bool all = true;
    for (const kind& k : kinds) {
        reset_station();
        configure(k.ap, k.name, k.ap.key);
        long t0;
        size_t first;
        bool connected = enable_and_wait("CTRL-EVENT-CONNECTED", 30000, &t0, &first);
        all = all && connected;
        g_text.clear();
        statuses += std::string("== ") + k.ap.ssid + " (" + k.name + ")\n" + station("STATUS");
    }
    g_text = statuses;
    save("status.txt");
    return all;
}

bool record_connect(const std::string& name, const std::string& key, const std::string& until,
                    int timeout_ms, bool forget_scan = false) {
    reset_station();
    if (forget_scan) {
        note("> BSS_FLUSH 0    -> " + station("BSS_FLUSH 0").substr(0, 2));
    }
    note(std::string("# ") + radio::kWpa2.ssid + " (WPA2-PSK CCMP), passphrase \"" + key +
         "\", with the daemon's commands; times from ENABLE_NETWORK");
    configure(radio::kWpa2, "wpa", key);
    long t0;
    size_t first;
    bool seen = enable_and_wait(until, timeout_ms, &t0, &first);
    // What follows within a moment belongs to the picture too.
    wifim_test::wait_until([] { return false; }, 500);
    note_events(first, t0);
    save(name);
    return seen;
}

bool record_wps(const std::string& name, const std::string& ap_command,
                const std::string& station_command, const std::string& until) {
    reset_station();
    radio::event_recorder ap_events;
    radio::recorder_start(&ap_events,
                          std::string(radio::kAccessPointDir) + "/" + radio::kWpa2.interface);
    wifim_test::wait_until([] { return false; }, 300);
    note("# access point " + std::string(radio::kWpa2.ssid) + ": " + ap_command + " -> " +
         radio::access_point_command(radio::kWpa2, ap_command));
    size_t first = radio::recorder_count(&g_station_events);
    long t0 = wifim_test::now_ms();
    command(station_command);
    bool seen = radio::recorder_wait(&g_station_events, first, until, 60000) >= 0;
    wifim_test::wait_until([] { return false; }, 1000);
    note("# station, times from " + station_command);
    note_events(first, t0);
    note("# access point");
    for (const radio::radio_event& e : radio::recorder_since(&ap_events, 0)) {
        char stamp[32];
        snprintf(stamp, sizeof(stamp), "%+7ld ms ", e.ms - t0);
        note(stamp + e.text);
    }
    radio::recorder_stop(&ap_events);
    radio::access_point_command(radio::kWpa2, "WPS_CANCEL");
    save(name);
    return seen;
}

bool record_wps_block() {
    station("SAVE_CONFIG");
    std::string config = wifim_test::read_file(radio::kStationConfig);
    size_t at = config.find("network={");
    if (at == std::string::npos) {
        return false;
    }
    note("# " + std::string(radio::kStationConfig) +
         " after WPS by push button and SAVE_CONFIG: its network blocks");
    g_text += config.substr(at);
    save("wps-network-block.txt");
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr,
                "usage: radio_record DIR (in the radio VM: tests/radio/radio.sh --record)\n");
        return 2;
    }
    g_dir = argv[1];
    if (!radio::ensure_station_running()) {
        fprintf(stderr, "radio_record: the station's wpa_supplicant is not up\n");
        return 1;
    }
    radio::recorder_start(&g_station_events, radio::kStationSocket);
    struct step {
        const char* name;
        bool ok;
    };
    std::vector<step> steps;
    steps.push_back({"scan results", record_scan()});
    steps.push_back({"status of each kind", record_status_of_each_kind()});
    steps.push_back({"connect", record_connect("connect-events.txt", radio::kWpa2.key,
                                               "CTRL-EVENT-CONNECTED", 30000)});
    steps.push_back(
        {"connect with a scan", record_connect("connect-scan-events.txt", radio::kWpa2.key,
                                               "CTRL-EVENT-CONNECTED", 30000, true)});
    steps.push_back({"wrong key", record_connect("wrong-key-events.txt", "wrong-passphrase-123",
                                                 "auth_failures=2", 90000)});
    steps.push_back({"WPS push button", record_wps("wps-pbc-events.txt", "WPS_PBC", "WPS_PBC any",
                                                   "CTRL-EVENT-CONNECTED")});
    steps.push_back({"WPS network block", record_wps_block()});
    steps.push_back({"WPS wrong PIN", record_wps("wps-wrong-pin-events.txt", "WPS_PIN any 12345670",
                                                 "WPS_PIN any 23456709", "WPS-FAIL")});
    reset_station();
    radio::recorder_stop(&g_station_events);
    int failed = 0;
    for (const step& s : steps) {
        printf("radio: recorded %-22s %s\n", s.name, s.ok ? "ok" : "FAILED");
        failed += s.ok ? 0 : 1;
    }
    return failed == 0 ? 0 : 1;
}
