// Commands of wpa_supplicant's control interface, with its reply formats and
// its checks of network variables, and the simulator's test controls.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <set>
#include <sstream>

#include "wpa_sim.h"

static std::vector<std::string> sim_words(const std::string& text) {
    std::vector<std::string> words;
    std::istringstream in(text);
    std::string w;
    while (in >> w) {
        words.push_back(w);
    }
    return words;
}

static bool sim_is_hex(const std::string& s) {
    return !s.empty() && s.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

static bool sim_quoted(const std::string& v, size_t min, size_t max) {
    return v.size() >= 2 && v.front() == '"' && v.back() == '"' && v.size() - 2 >= min &&
           v.size() - 2 <= max;
}

static bool sim_words_in(const std::string& value, const std::set<std::string>& known) {
    std::vector<std::string> words = sim_words(value);
    if (words.empty()) {
        return false;
    }
    for (const std::string& w : words) {
        if (known.count(w) == 0) {
            return false;
        }
    }
    return true;
}

static bool sim_is_number(const std::string& v) {
    return !v.empty() && v.find_first_not_of("-0123456789") == std::string::npos;
}

// The values wpa_supplicant accepts for the variables the daemon sets.
static bool sim_valid_value(const std::string& var, const std::string& v) {
    if (var == "ssid") {
        std::string bytes;
        return sim_ssid_value_bytes(v, &bytes) && !bytes.empty();
    }
    if (var == "psk") {
        return sim_quoted(v, 8, 63) || (v.size() == 64 && sim_is_hex(v));
    }
    if (var.rfind("wep_key", 0) == 0) {
        // wpa_supplicant takes any key up to 16 bytes, text or hexadecimal.
        return sim_quoted(v, 1, 16) || (sim_is_hex(v) && v.size() % 2 == 0 && v.size() <= 32);
    }
    if (var == "key_mgmt") {
        return sim_words_in(v, {"NONE", "WPA-PSK", "WPA-EAP", "IEEE8021X", "SAE", "WPA-PSK-SHA256",
                                "WPA-EAP-SHA256", "WPS"});
    }
    if (var == "proto") {
        return sim_words_in(v, {"WPA", "RSN", "WPA2", "OSEN"});
    }
    if (var == "pairwise" || var == "group") {
        return sim_words_in(
            v, {"CCMP", "TKIP", "NONE", "GCMP", "GCMP-256", "CCMP-256", "WEP40", "WEP104"});
    }
    if (var == "auth_alg") {
        return sim_words_in(v, {"OPEN", "SHARED", "LEAP"});
    }
    if (var == "priority" || var == "mode" || var == "wep_tx_keyidx" || var == "scan_ssid") {
        return sim_is_number(v);
    }
    if (var == "bssid") {
        return v.size() == 17;
    }
    return false;
}

// Values a fresh network reports before anything is set.
static const std::map<std::string, std::string> g_sim_defaults = {
    {"key_mgmt", "WPA-PSK WPA-EAP"}, {"proto", "WPA RSN"}, {"pairwise", "CCMP TKIP"},
    {"group", "CCMP TKIP"},          {"priority", "0"},    {"mode", "0"},
    {"wep_tx_keyidx", "0"},          {"scan_ssid", "0"},
};

static sim_network* sim_find_network(const std::string& id_text) {
    if (!sim_is_number(id_text)) {
        return nullptr;
    }
    int id = atoi(id_text.c_str());
    for (sim_network& n : g_sim.networks) {
        if (n.id == id) {
            return &n;
        }
    }
    return nullptr;
}

// wpa_supplicant gives a new network the lowest id not in use.
int sim_lowest_free_network_id() {
    int id = 0;
    while (sim_find_network(std::to_string(id)) != nullptr) {
        id++;
    }
    return id;
}

static std::string sim_list_networks() {
    std::string out = "network id / ssid / bssid / flags\n";
    for (const sim_network& n : g_sim.networks) {
        std::string flags =
            n.id == g_sim.current_id ? "[CURRENT]" : (n.enabled ? "" : "[DISABLED]");
        out += std::to_string(n.id) + "\t" + sim_ssid_text(sim_network_ssid(n)) + "\tany\t" +
               flags + "\n";
    }
    return out;
}

static std::string sim_set_network(const std::string& command) {
    // SET_NETWORK <id> <var> <value...>: the value is the rest of the line.
    std::istringstream in(command);
    std::string verb, id, var;
    in >> verb >> id >> var;
    std::string value;
    std::getline(in, value);
    if (!value.empty() && value[0] == ' ') {
        value.erase(0, 1);
    }
    sim_network* n = sim_find_network(id);
    if (n == nullptr || !sim_valid_value(var, value)) {
        return "FAIL\n";
    }
    std::string bytes;
    // wpa_supplicant keeps the SSID's bytes, whichever form set them.
    n->vars[var] = (var == "ssid" && sim_ssid_value_bytes(value, &bytes))
                       ? sim_ssid_stored_value(bytes)
                       : value;
    return "OK\n";
}

static std::string sim_get_network(const std::vector<std::string>& w) {
    sim_network* n = w.size() == 3 ? sim_find_network(w[1]) : nullptr;
    if (n == nullptr) {
        return "FAIL\n";
    }
    auto it = n->vars.find(w[2]);
    if (it != n->vars.end()) {
        // Keys are never shown back.
        return (w[2] == "psk" || w[2].rfind("wep_key", 0) == 0) ? "*" : it->second;
    }
    auto def = g_sim_defaults.find(w[2]);
    return def == g_sim_defaults.end() ? "FAIL\n" : def->second;
}

static void sim_forget_current_if(int id) {
    if (id == g_sim.current_id || id < 0) {
        sim_drop_link(3);
    }
}

// A removed network takes its attempt, and its count of failures, with it.
static std::string sim_remove_network(const std::string& which) {
    g_sim.attempt_generation++;
    if (which == "all") {
        sim_forget_current_if(-1);
        g_sim.networks.clear();
        g_sim.auth_failures.clear();
        return "OK\n";
    }
    sim_network* n = sim_find_network(which);
    if (n == nullptr) {
        return "FAIL\n";
    }
    int id = n->id;
    sim_forget_current_if(id);
    g_sim.auth_failures.erase(id);
    for (auto it = g_sim.networks.begin(); it != g_sim.networks.end(); ++it) {
        if (it->id == id) {
            g_sim.networks.erase(it);
            break;
        }
    }
    return "OK\n";
}

static std::string sim_enable_network(const std::string& which, bool enable) {
    if (which == "all") {
        for (sim_network& n : g_sim.networks) {
            n.enabled = enable;
        }
    } else {
        sim_network* n = sim_find_network(which);
        if (n == nullptr) {
            return "FAIL\n";
        }
        n->enabled = enable;
        if (!enable) {
            sim_forget_current_if(n->id);
        }
    }
    return "OK\n";
}

static std::string sim_attach(const sim_client& from, bool attach) {
    for (auto it = g_sim.attached.begin(); it != g_sim.attached.end(); ++it) {
        if (it->len == from.len && memcmp(&it->addr, &from.addr, from.len) == 0) {
            g_sim.attached.erase(it);
            break;
        }
    }
    if (attach) {
        g_sim.attached.push_back(from);
    }
    return "OK\n";
}

static std::string sim_dispatch(const std::string& command, const sim_client& from) {
    std::vector<std::string> w = sim_words(command);
    const std::string verb = w.empty() ? "" : w[0];
    if (verb == "PING")
        return "PONG\n";
    if (verb == "ATTACH")
        return sim_attach(from, true);
    if (verb == "DETACH")
        return sim_attach(from, false);
    if (verb == "STATUS")
        return sim_status();
    if (verb == "SCAN") {
        sim_start_scan();
        return "OK\n";
    }
    if (verb == "SCAN_RESULTS")
        return sim_scan_results();
    if (verb == "LIST_NETWORKS")
        return sim_list_networks();
    if (verb == "ADD_NETWORK") {
        sim_network n;
        n.id = sim_lowest_free_network_id();
        g_sim.auth_failures.erase(n.id);
        g_sim.networks.push_back(n);
        return std::to_string(n.id) + "\n";
    }
    if (verb == "SET_NETWORK")
        return sim_set_network(command);
    if (verb == "GET_NETWORK")
        return sim_get_network(w);
    if (verb == "REMOVE_NETWORK" && w.size() == 2)
        return sim_remove_network(w[1]);
    if (verb == "ENABLE_NETWORK" && w.size() == 2) {
        std::string reply = sim_enable_network(w[1], true);
        if (reply == "OK\n" && g_sim.wpa_state != "COMPLETED") {
            sim_start_connect();
        }
        return reply;
    }
    if (verb == "DISABLE_NETWORK" && w.size() == 2)
        return sim_enable_network(w[1], false);
    if (verb == "DISCONNECT") {
        sim_drop_link(3);
        g_sim.attempt_generation++;
        return "OK\n";
    }
    if (verb == "RECONNECT") {
        sim_start_connect();
        return "OK\n";
    }
    if (verb == "BSS_FLUSH") {
        // No access point known, so no scan results to join from either.
        g_sim.known_bss.clear();
        g_sim.last_scan_ms = -1;
        return "OK\n";
    }
    if (verb == "SAVE_CONFIG") {
        sim_save_config();
        return "OK\n";
    }
    if (verb == "WPS_PBC")
        return sim_start_wps(true, "");
    if (verb == "WPS_PIN" && w.size() >= 2)
        return sim_start_wps(false, w.size() > 2 ? w[2] : "");
    return "UNKNOWN COMMAND\n";
}

std::string sim_handle_command(const std::string& command, const sim_client& from, bool* answer) {
    sim_log_arrival(command);
    std::string verb = command.substr(0, command.find(' '));
    auto fault = g_sim.faults.find(verb);
    if (fault != g_sim.faults.end()) {
        if (fault->second == "SILENT") {
            *answer = false;
            sim_log(command, "(no answer)");
            return "";
        }
        // ONCE fails this command the next time only.
        if (fault->second == "ONCE") {
            g_sim.faults.erase(fault);
        }
        sim_log(command, "FAIL");
        return "FAIL\n";
    }
    std::string reply = sim_dispatch(command, from);
    sim_log(command, reply);
    return reply;
}

bool sim_parse_ap(const std::string& line, sim_ap* ap);

std::string sim_handle_control(const std::string& control) {
    std::vector<std::string> w = sim_words(control);
    const std::string verb = w.empty() ? "" : w[0];
    if (verb == "RELOAD") {
        return sim_load_world(g_sim.world_file) ? "OK\n" : "FAIL\n";
    }
    if (verb == "AP") {
        sim_ap ap;
        if (!sim_parse_ap(control.substr(3), &ap)) {
            return "FAIL\n";
        }
        g_sim.aps.push_back(ap);
        return "OK\n";
    }
    if (verb == "CLEAR_APS") {
        g_sim.aps.clear();
        return "OK\n";
    }
    if (verb == "DROP") {
        sim_drop_link(w.size() > 1 ? atoi(w[1].c_str()) : 4);
        return "OK\n";
    }
    if (verb == "EVENT") {
        sim_event(control.size() > 6 ? control.substr(6) : "");
        return "OK\n";
    }
    if (verb == "FAULT" && w.size() == 3) {
        if (w[2] == "NONE") {
            g_sim.faults.erase(w[1]);
        } else {
            g_sim.faults[w[1]] = w[2];
        }
        return "OK\n";
    }
    if (verb == "CRASH") {
        g_sim.running = false;
        return "OK\n";
    }
    if (verb == "STATE") {
        return g_sim.wpa_state + "\n";
    }
    return "UNKNOWN\n";
}

// "<bssid> <freq> <level> <flags> key=<key> wps=<pbc|pin|-> [reject] ssid=<rest>"
bool sim_parse_ap(const std::string& line, sim_ap* ap) {
    size_t ssid_at = line.find("ssid=");
    if (ssid_at == std::string::npos) {
        return false;
    }
    ap->ssid = line.substr(ssid_at + 5);
    while (!ap->ssid.empty() && (ap->ssid.back() == '\n' || ap->ssid.back() == '\r')) {
        ap->ssid.pop_back();
    }
    std::vector<std::string> w = sim_words(line.substr(0, ssid_at));
    if (w.size() < 4) {
        return false;
    }
    ap->bssid = w[0];
    ap->freq = atoi(w[1].c_str());
    ap->level = atoi(w[2].c_str());
    ap->flags = w[3] == "-" ? "" : w[3];
    for (size_t i = 4; i < w.size(); i++) {
        if (w[i].rfind("key=", 0) == 0) {
            ap->key = w[i].substr(4);
        } else if (w[i].rfind("wps=", 0) == 0) {
            ap->wps = w[i].substr(4) == "-" ? "" : w[i].substr(4);
        } else if (w[i] == "reject") {
            ap->reject = true;
        }
    }
    return true;
}

bool sim_load_world(const std::string& path) {
    std::ifstream in(path);
    if (!in) {
        return false;
    }
    g_sim.aps.clear();
    std::string line;
    while (std::getline(in, line)) {
        std::vector<std::string> w = sim_words(line);
        if (w.empty() || w[0][0] == '#') {
            continue;
        }
        if (w[0] == "ap") {
            sim_ap ap;
            if (sim_parse_ap(line.substr(line.find("ap") + 2), &ap)) {
                g_sim.aps.push_back(ap);
            }
        } else if (w[0] == "connect_delay_ms" && w.size() > 1) {
            g_sim.connect_delay_ms = atoi(w[1].c_str());
        } else if (w[0] == "scan_delay_ms" && w.size() > 1) {
            g_sim.scan_delay_ms = atoi(w[1].c_str());
        } else if (w[0] == "wps_delay_ms" && w.size() > 1) {
            g_sim.wps_delay_ms = atoi(w[1].c_str());
        } else if (w[0] == "handshake_fail_ms" && w.size() > 1) {
            g_sim.handshake_fail_ms = atoi(w[1].c_str());
        } else if (w[0] == "temp_disable_ms" && w.size() > 1) {
            g_sim.temp_disable_ms = atoi(w[1].c_str());
        } else if (w[0] == "wps_reassoc_ms" && w.size() > 1) {
            g_sim.wps_reassoc_ms = atoi(w[1].c_str());
        }
    }
    return true;
}
