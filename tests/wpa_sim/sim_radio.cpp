// The radio world: scans, connection attempts and their outcomes, WPS, and
// what STATUS and SAVE_CONFIG report of it.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <sstream>

#include "wpa_sim.h"

#define SIM_ADDRESS "02:00:00:00:01:00"
#define SIM_UUID "12345678-9abc-def0-1234-56789abcdef0"

static std::string sim_unquote(const std::string& v) {
    if (v.size() >= 2 && v.front() == '"' && v.back() == '"') {
        return v.substr(1, v.size() - 2);
    }
    return v;
}

static std::string sim_from_hex(const std::string& hex) {
    std::string out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        out += static_cast<char>(strtol(hex.substr(i, 2).c_str(), nullptr, 16));
    }
    return out;
}

std::string sim_ssid_text(const std::string& ssid) {
    std::string out;
    for (unsigned char c : ssid) {
        static const char plain[] = "\"\\\033\n\r\t";
        static const char* escaped[] = {"\\\"", "\\\\", "\\e", "\\n", "\\r", "\\t"};
        const char* known = c != 0 ? strchr(plain, c) : nullptr;
        if (known != nullptr) {
            out += escaped[known - plain];
        } else if (c >= 32 && c <= 126) {
            out += static_cast<char>(c);
        } else {
            char hex[8];
            snprintf(hex, sizeof(hex), "\\x%02x", c);
            out += hex;
        }
    }
    return out;
}

static int sim_hex_digit(char c) {
    const char* digits = "0123456789abcdef";
    const char* at = c != 0 ? strchr(digits, c | 0x20) : nullptr;
    return at == nullptr ? -1 : static_cast<int>(at - digits);
}

// wpa_supplicant's reading of escaped text (\", \\, \n, \r, \t, \e, \xNN).
static std::string sim_decode_text(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] != '\\' || i + 1 >= text.size()) {
            out += text[i];
            continue;
        }
        char c = text[++i];
        if (c == 'x' && i + 2 < text.size() && sim_hex_digit(text[i + 1]) >= 0 &&
            sim_hex_digit(text[i + 2]) >= 0) {
            out += static_cast<char>(sim_hex_digit(text[i + 1]) * 16 + sim_hex_digit(text[i + 2]));
            i += 2;
        } else {
            const char* from = "\"\\nrte";
            const char* to = "\"\\\n\r\t\033";
            const char* known = strchr(from, c);
            out += known != nullptr ? to[known - from] : c;
        }
    }
    return out;
}

bool sim_ssid_value_bytes(const std::string& value, std::string* bytes) {
    if (value.size() >= 2 && value.front() == '"') {
        size_t end = value.rfind('"');
        if (end == 0) {
            return false;
        }
        *bytes = value.substr(1, end - 1);
    } else if (value.size() >= 3 && value.compare(0, 2, "P\"") == 0) {
        size_t end = value.rfind('"');
        if (end < 2) {
            return false;
        }
        *bytes = sim_decode_text(value.substr(2, end - 2));
    } else {
        if (value.empty() || value.size() % 2 != 0 ||
            value.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
            return false;
        }
        *bytes = sim_from_hex(value);
    }
    return bytes->size() <= 32;
}

std::string sim_ssid_stored_value(const std::string& bytes) {
    bool printable = true;
    std::string hex;
    for (unsigned char c : bytes) {
        printable = printable && c >= 32 && c <= 126;
        char digits[4];
        snprintf(digits, sizeof(digits), "%02x", c);
        hex += digits;
    }
    return printable ? "\"" + bytes + "\"" : hex;
}

std::string sim_network_ssid(const sim_network& n) {
    auto it = n.vars.find("ssid");
    if (it == n.vars.end()) {
        return "";
    }
    const std::string& v = it->second;
    return (!v.empty() && v.front() == '"') ? sim_unquote(v) : sim_from_hex(v);
}

static std::string sim_var(const sim_network& n, const std::string& var,
                           const std::string& fallback) {
    auto it = n.vars.find(var);
    return it == n.vars.end() ? fallback : it->second;
}

static bool sim_ap_is_wpa(const sim_ap& ap) {
    return ap.flags.find("WPA") != std::string::npos;
}

bool sim_ap_is_open(const sim_ap& ap) {
    return ap.flags.find("WPA") == std::string::npos && ap.flags.find("WEP") == std::string::npos;
}

// Whether the network's key management can use this access point.
static bool sim_security_fits(const sim_network& n, const sim_ap& ap) {
    std::string key_mgmt = sim_var(n, "key_mgmt", "WPA-PSK WPA-EAP");
    if (key_mgmt == "NONE") {
        return sim_ap_is_open(ap) || ap.flags.find("WEP") != std::string::npos;
    }
    return ap.flags.find("WPA") != std::string::npos;
}

static bool sim_key_fits(const sim_network& n, const sim_ap& ap) {
    if (sim_ap_is_open(ap)) {
        return true;
    }
    std::string given = ap.flags.find("WEP") != std::string::npos ? sim_var(n, "wep_key0", "")
                                                                  : sim_var(n, "psk", "");
    return sim_unquote(given) == ap.key;
}

const sim_ap* sim_find_ap(const sim_network& n) {
    for (const sim_ap& ap : g_sim.aps) {
        if (ap.ssid == sim_network_ssid(n) && sim_security_fits(n, ap)) {
            return &ap;
        }
    }
    return nullptr;
}

// Real wpa_supplicant joins a network from scan results younger than this,
// and scans first otherwise.
#define SIM_SCAN_VALID_FOR_CONNECT_MS 5000

sim_timeline sim_new_timeline() {
    return {g_sim.attempt_generation, 0};
}

void sim_then(sim_timeline* t, int delay_ms, std::function<void()> run) {
    t->at_ms += delay_ms;
    long generation = t->generation;
    sim_after(t->at_ms, [generation, run] {
        if (generation == g_sim.attempt_generation) {
            run();
        }
    });
}

// What wpa_supplicant says after a scan about access points offering WPS.
static std::string sim_wps_availability() {
    std::string found;
    for (const sim_ap& ap : g_sim.aps) {
        if (ap.wps == "pbc") {
            return "WPS-AP-AVAILABLE-PBC ";
        }
        if (!ap.wps.empty()) {
            found = "WPS-AP-AVAILABLE-AUTH ";
        } else if (found.empty() && ap.flags.find("[WPS]") != std::string::npos) {
            found = "WPS-AP-AVAILABLE ";
        }
    }
    return found;
}

void sim_scan_done() {
    g_sim.last_scan_ms = sim_world_ms();
    for (const sim_ap& ap : g_sim.aps) {
        if (g_sim.known_bss.count(ap.bssid) == 0) {
            int id = g_sim.next_bss_id++;
            g_sim.known_bss[ap.bssid] = id;
            sim_event("CTRL-EVENT-BSS-ADDED " + std::to_string(id) + " " + ap.bssid);
        }
    }
    sim_event("CTRL-EVENT-SCAN-RESULTS ");
    std::string wps = sim_wps_availability();
    if (!wps.empty()) {
        sim_event(wps);
    }
}

// A scan within an attempt; `after` runs on its results.
void sim_scan_then(sim_timeline* t, std::function<void()> after) {
    sim_then(t, 20, [] { sim_event("CTRL-EVENT-SCAN-STARTED "); });
    sim_then(t, g_sim.scan_delay_ms, [after] {
        sim_scan_done();
        if (after) {
            after();
        }
    });
}

void sim_start_scan() {
    sim_after(20, [] { sim_event("CTRL-EVENT-SCAN-STARTED "); });
    sim_after(g_sim.scan_delay_ms, [] { sim_scan_done(); });
}

std::string sim_scan_results() {
    std::string out = "bssid / frequency / signal level / flags / ssid\n";
    for (const sim_ap& ap : g_sim.aps) {
        out += ap.bssid + "\t" + std::to_string(ap.freq) + "\t" + std::to_string(ap.level) + "\t" +
               ap.flags + "\t" + sim_ssid_text(ap.ssid) + "\n";
    }
    return out;
}

void sim_drop_link(int reason) {
    if (g_sim.wpa_state == "COMPLETED") {
        std::string text = "CTRL-EVENT-DISCONNECTED bssid=" + g_sim.current_bssid +
                           " reason=" + std::to_string(reason);
        if (reason == 3) {
            text += " locally_generated=1";
        }
        sim_event(text);
    }
    g_sim.wpa_state = "DISCONNECTED";
    g_sim.current_id = -1;
    g_sim.current_bssid.clear();
}

void sim_complete(int id, const sim_ap& ap) {
    g_sim.wpa_state = "COMPLETED";
    g_sim.current_id = id;
    g_sim.current_bssid = ap.bssid;
    g_sim.auth_failures.erase(id);
}

static std::string sim_ap_words(const sim_ap& ap) {
    return ap.bssid + " (SSID='" + sim_ssid_text(ap.ssid) + "' freq=" + std::to_string(ap.freq) +
           " MHz)";
}

std::string sim_connected_text(int id, const sim_ap& ap) {
    return "CTRL-EVENT-CONNECTED - Connection to " + ap.bssid +
           " completed [id=" + std::to_string(id) + " id_str=]";
}

// Pairwise and group cipher of a WPA association with this access point.
std::string sim_key_negotiation_text(const sim_ap& ap) {
    bool ccmp = ap.flags.find("CCMP") != std::string::npos;
    bool tkip = ap.flags.find("TKIP") != std::string::npos;
    return "WPA: Key negotiation completed with " + ap.bssid + " [PTK=" + (ccmp ? "CCMP" : "TKIP") +
           " GTK=" + (tkip ? "TKIP" : "CCMP") + "]";
}

// Authentication and association, the first three steps of every attempt.
void sim_associate(sim_timeline* t, const sim_ap& ap, int step_ms) {
    sim_then(t, step_ms, [ap] {
        g_sim.wpa_state = "AUTHENTICATING";
        sim_event("SME: Trying to authenticate with " + sim_ap_words(ap));
    });
    sim_then(t, step_ms, [ap] {
        g_sim.wpa_state = "ASSOCIATING";
        sim_event("Trying to associate with " + sim_ap_words(ap));
    });
    sim_then(t, step_ms, [ap] {
        g_sim.wpa_state = "ASSOCIATED";
        sim_event("Associated with " + ap.bssid);
    });
}

// The key of an open or WEP network is never checked on association: a
// wrong WEP key still "connects" and only the data path fails.
static void sim_finish_open(sim_timeline* t, int id, const sim_ap& ap, int step_ms) {
    sim_then(t, 0, [id, ap] {
        sim_complete(id, ap);
        sim_event(sim_connected_text(id, ap));
    });
    sim_then(t, step_ms, [] { sim_event("CTRL-EVENT-SUBNET-STATUS-UPDATE status=0"); });
}

void sim_finish_wpa(sim_timeline* t, int id, const sim_ap& ap, int step_ms) {
    sim_then(t, 0, [] {
        g_sim.wpa_state = "4WAY_HANDSHAKE";
        sim_event("CTRL-EVENT-SUBNET-STATUS-UPDATE status=0");
    });
    sim_then(t, step_ms, [id, ap] {
        sim_complete(id, ap);
        sim_event(sim_key_negotiation_text(ap));
        sim_event(sim_connected_text(id, ap));
    });
}

// Seconds a network stays disabled after its n-th failure in a row.
static int sim_temp_disable_seconds(int failures) {
    if (failures > 50) {
        return 300;
    }
    if (failures > 10) {
        return 120;
    }
    if (failures > 5) {
        return 90;
    }
    if (failures > 3) {
        return 60;
    }
    return failures * 10;
}

// After the first failure, a network that allows 802.1X key management
// (as one without a key_mgmt of its own does) waits a random while longer,
// up to ten seconds for each failure so far.
static int sim_extra_disable_seconds(int id, int failures) {
    std::string key_mgmt = "WPA-PSK WPA-EAP";
    for (const sim_network& n : g_sim.networks) {
        key_mgmt = n.id == id ? sim_var(n, "key_mgmt", key_mgmt) : key_mgmt;
    }
    if (failures < 2 || key_mgmt.find("WPA-EAP") == std::string::npos) {
        return 0;
    }
    return rand() % (failures * 10);
}

static int sim_count_failure(int id, const std::string& ssid, const char* reason) {
    int failures = ++g_sim.auth_failures[id];
    int seconds = sim_temp_disable_seconds(failures) + sim_extra_disable_seconds(id, failures);
    sim_event("CTRL-EVENT-SSID-TEMP-DISABLED id=" + std::to_string(id) + " ssid=\"" +
              sim_ssid_text(ssid) + "\" auth_failures=" + std::to_string(failures) +
              " duration=" + std::to_string(seconds) + " reason=" + reason);
    return seconds;
}

static bool sim_network_enabled(int id) {
    for (const sim_network& n : g_sim.networks) {
        if (n.id == id) {
            return n.enabled;
        }
    }
    return false;
}

static void sim_attempt(const sim_network& n, const sim_ap& ap);

// A wrong key: the access point gives up on the handshake after four
// tries, the station disconnects, disables the network for a while that
// grows with each failure, scans at once and again when the network is
// allowed back, and then tries anew.
static void sim_handshake_failed(int id, const std::string& ssid, const sim_ap& ap) {
    g_sim.wpa_state = "DISCONNECTED";
    sim_event("CTRL-EVENT-DISCONNECTED bssid=" + ap.bssid + " reason=15");
    sim_event("WPA: 4-Way Handshake failed - pre-shared key may be incorrect");
    int seconds = sim_count_failure(id, ssid, "WRONG_KEY");
    if (g_sim.auth_failures[id] == 3) {
        seconds = sim_count_failure(id, ssid, "CONN_FAILED");
    }
    g_sim.wpa_state = "SCANNING";
    sim_timeline t = sim_new_timeline();
    sim_scan_then(&t, nullptr);
    sim_timeline back = sim_new_timeline();
    back.at_ms = seconds * g_sim.temp_disable_ms / 10;
    sim_scan_then(&back, [id, ssid, ap] {
        if (!sim_network_enabled(id)) {
            return;
        }
        sim_event("CTRL-EVENT-SSID-REENABLED id=" + std::to_string(id) + " ssid=\"" +
                  sim_ssid_text(ssid) + "\"");
        for (const sim_network& n : g_sim.networks) {
            if (n.id == id) {
                sim_attempt(n, ap);
            }
        }
    });
}

static void sim_attempt(const sim_network& n, const sim_ap& ap) {
    sim_timeline t = sim_new_timeline();
    int d = g_sim.connect_delay_ms;
    int id = n.id;
    std::string ssid = sim_network_ssid(n);
    sim_associate(&t, ap, d);
    if (ap.reject) {
        sim_then(&t, 0, [ap] {
            g_sim.wpa_state = "DISCONNECTED";
            sim_event("CTRL-EVENT-ASSOC-REJECT bssid=" + ap.bssid + " status_code=1");
        });
        return;
    }
    if (!sim_ap_is_wpa(ap)) {
        sim_finish_open(&t, id, ap, d);
        return;
    }
    if (sim_key_fits(n, ap)) {
        sim_finish_wpa(&t, id, ap, d);
        return;
    }
    sim_then(&t, 0, [] {
        g_sim.wpa_state = "4WAY_HANDSHAKE";
        sim_event("CTRL-EVENT-SUBNET-STATUS-UPDATE status=0");
    });
    sim_then(&t, g_sim.handshake_fail_ms, [id, ssid, ap] { sim_handshake_failed(id, ssid, ap); });
}

// Joins the first enabled network whose access point is in range.
static void sim_join_first_network() {
    for (const sim_network& n : g_sim.networks) {
        if (!n.enabled || sim_network_ssid(n).empty()) {
            continue;
        }
        const sim_ap* ap = sim_find_ap(n);
        if (ap == nullptr) {
            g_sim.wpa_state = "SCANNING";
            sim_event("CTRL-EVENT-NETWORK-NOT-FOUND ");
            return;
        }
        sim_attempt(n, *ap);
        return;
    }
}

void sim_start_connect() {
    g_sim.attempt_generation++;
    bool enabled = false;
    for (const sim_network& n : g_sim.networks) {
        enabled = enabled || (n.enabled && !sim_network_ssid(n).empty());
    }
    if (!enabled) {
        return;
    }
    bool recent = g_sim.last_scan_ms >= 0 &&
                  sim_world_ms() - g_sim.last_scan_ms < SIM_SCAN_VALID_FOR_CONNECT_MS;
    sim_timeline t = sim_new_timeline();
    if (recent) {
        sim_then(&t, 0, [] { sim_join_first_network(); });
    } else {
        g_sim.wpa_state = "SCANNING";
        sim_scan_then(&t, [] { sim_join_first_network(); });
    }
}

// The ciphers and key management STATUS reports for an association.
struct sim_link_words {
    std::string pairwise = "NONE";
    std::string group = "NONE";
    std::string key_mgmt = "NONE";
};

static sim_link_words sim_link_words_of(const sim_network& n, const sim_ap& ap) {
    sim_link_words words;
    if (ap.flags.find("WEP") != std::string::npos) {
        std::string given = sim_var(n, "wep_key0", "");
        bool hex = !given.empty() && given.front() != '"';
        size_t key = sim_unquote(given).size();
        words.pairwise = words.group = (hex ? key / 2 : key) <= 5 ? "WEP-40" : "WEP-104";
    } else if (sim_ap_is_wpa(ap)) {
        words.pairwise = ap.flags.find("CCMP") != std::string::npos ? "CCMP" : "TKIP";
        words.group = ap.flags.find("TKIP") != std::string::npos ? "TKIP" : "CCMP";
        bool rsn = ap.flags.find("WPA2") != std::string::npos &&
                   sim_var(n, "proto", "WPA RSN").find("RSN") != std::string::npos;
        words.key_mgmt = rsn ? "WPA2-PSK" : "WPA-PSK";
    }
    return words;
}

std::string sim_status() {
    std::ostringstream out;
    if (g_sim.wpa_state == "COMPLETED") {
        const sim_network* n = nullptr;
        for (const sim_network& net : g_sim.networks) {
            n = net.id == g_sim.current_id ? &net : n;
        }
        const sim_ap* ap = n != nullptr ? sim_find_ap(*n) : nullptr;
        sim_link_words words =
            (n != nullptr && ap != nullptr) ? sim_link_words_of(*n, *ap) : sim_link_words();
        out << "bssid=" << g_sim.current_bssid << "\n"
            << "freq=" << (ap != nullptr ? ap->freq : 0) << "\n"
            << "ssid=" << (n != nullptr ? sim_ssid_text(sim_network_ssid(*n)) : "") << "\n"
            << "id=" << g_sim.current_id << "\n"
            << "mode=station\n"
            << "pairwise_cipher=" << words.pairwise << "\n"
            << "group_cipher=" << words.group << "\n"
            << "key_mgmt=" << words.key_mgmt << "\n";
    }
    out << "wpa_state=" << g_sim.wpa_state << "\n"
        << "address=" SIM_ADDRESS "\n"
        << "uuid=" SIM_UUID "\n";
    return out.str();
}

// Rewrites the configuration file as wpa_supplicant does: its settings
// first, then one block per network.
void sim_save_config() {
    if (g_sim.config_file.empty()) {
        return;
    }
    std::string globals;
    {
        std::ifstream in(g_sim.config_file);
        std::string line;
        while (std::getline(in, line) && line.rfind("network={", 0) != 0) {
            if (!line.empty()) {
                globals += line + "\n";
            }
        }
    }
    static const char* order[] = {"ssid",          "scan_ssid", "bssid", "psk",         "proto",
                                  "key_mgmt",      "pairwise",  "group", "auth_alg",    "wep_key0",
                                  "wep_tx_keyidx", "priority",  "mode",  "mesh_fwding", "pbss"};
    std::ofstream out(g_sim.config_file, std::ios::trunc);
    out << globals;
    for (const sim_network& n : g_sim.networks) {
        out << "\nnetwork={\n";
        for (const char* var : order) {
            auto it = n.vars.find(var);
            if (it != n.vars.end()) {
                out << "\t" << var << "=" << it->second << "\n";
            }
        }
        if (!n.enabled) {
            out << "\tdisabled=1\n";
        }
        out << "}\n";
    }
}
