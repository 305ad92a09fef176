// The radio world: scans, connection attempts and their outcomes, WPS, and
// what STATUS and SAVE_CONFIG report of it.
#include <stdio.h>
#include <stdlib.h>

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

static bool sim_ap_is_open(const sim_ap& ap) {
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

void sim_start_scan() {
    sim_after(20, [] { sim_event("CTRL-EVENT-SCAN-STARTED "); });
    sim_after(g_sim.scan_delay_ms, [] { sim_event("CTRL-EVENT-SCAN-RESULTS "); });
}

std::string sim_scan_results() {
    std::string out = "bssid / frequency / signal level / flags / ssid\n";
    for (const sim_ap& ap : g_sim.aps) {
        out += ap.bssid + "\t" + std::to_string(ap.freq) + "\t" + std::to_string(ap.level) + "\t" +
               ap.flags + "\t" + ap.ssid + "\n";
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

// Runs run after delay_ms unless a newer attempt or a disconnect came first.
static void sim_step(int delay_ms, long generation, std::function<void()> run) {
    sim_after(delay_ms, [generation, run] {
        if (generation == g_sim.attempt_generation) {
            run();
        }
    });
}

static void sim_complete(int id, const sim_ap& ap) {
    g_sim.wpa_state = "COMPLETED";
    g_sim.current_id = id;
    g_sim.current_bssid = ap.bssid;
}

static void sim_attempt(const sim_network& n, const sim_ap& ap) {
    long gen = g_sim.attempt_generation;
    g_sim.attempt_id = n.id;
    int d = g_sim.connect_delay_ms;
    int id = n.id;
    sim_ap target = ap;
    bool key_ok = sim_key_fits(n, ap);
    sim_step(d, gen, [target] {
        g_sim.wpa_state = "ASSOCIATING";
        sim_event("Trying to associate with " + target.bssid + " (SSID='" + target.ssid +
                  "' freq=" + std::to_string(target.freq) + " MHz)");
    });
    if (target.reject) {
        sim_step(2 * d, gen, [target] {
            g_sim.wpa_state = "DISCONNECTED";
            sim_event("CTRL-EVENT-ASSOC-REJECT bssid=" + target.bssid + " status_code=1");
        });
        return;
    }
    sim_step(2 * d, gen, [target] {
        g_sim.wpa_state = "ASSOCIATED";
        sim_event("Associated with " + target.bssid);
    });
    sim_step(3 * d, gen, [target, id, key_ok] {
        if (!key_ok) {
            g_sim.wpa_state = "DISCONNECTED";
            sim_event("WPA: 4-Way Handshake failed - pre-shared key may be incorrect");
            sim_event("CTRL-EVENT-DISCONNECTED bssid=" + target.bssid + " reason=15");
            return;
        }
        sim_complete(id, target);
        sim_event("CTRL-EVENT-CONNECTED - Connection to " + target.bssid +
                  " completed [id=" + std::to_string(id) + " id_str=]");
    });
}

void sim_start_connect() {
    g_sim.attempt_generation++;
    for (const sim_network& n : g_sim.networks) {
        if (!n.enabled || sim_network_ssid(n).empty()) {
            continue;
        }
        const sim_ap* ap = sim_find_ap(n);
        if (ap == nullptr) {
            long gen = g_sim.attempt_generation;
            g_sim.wpa_state = "SCANNING";
            sim_step(g_sim.connect_delay_ms, gen,
                     [] { sim_event("CTRL-EVENT-NETWORK-NOT-FOUND"); });
            return;
        }
        sim_attempt(n, *ap);
        return;
    }
}

// The network a WPS exchange hands over: the AP's SSID and key.
static sim_network sim_network_from_wps(const sim_ap& ap) {
    sim_network n;
    n.id = 0;
    for (bool taken = true; taken; n.id += taken ? 1 : 0) {
        taken = false;
        for (const sim_network& other : g_sim.networks) {
            taken = taken || other.id == n.id;
        }
    }
    n.enabled = true;
    n.vars["ssid"] = "\"" + ap.ssid + "\"";
    if (!sim_ap_is_open(ap)) {
        n.vars["psk"] = "\"" + ap.key + "\"";
        n.vars["proto"] = "RSN";
        n.vars["key_mgmt"] = "WPA-PSK";
        n.vars["pairwise"] = "CCMP";
    } else {
        n.vars["key_mgmt"] = "NONE";
    }
    return n;
}

static void sim_wps_success(const sim_ap& ap) {
    long gen = g_sim.attempt_generation;
    int d = g_sim.wps_delay_ms;
    sim_ap target = ap;
    sim_step(d, gen, [] { sim_event("CTRL-EVENT-EAP-STARTED EAP authentication started"); });
    sim_step(d + 10, gen,
             [] { sim_event("CTRL-EVENT-EAP-PROPOSED-METHOD vendor=14122 method=1"); });
    sim_step(d + 20, gen,
             [] { sim_event("CTRL-EVENT-EAP-METHOD EAP vendor 14122 method 1 (WSC) selected"); });
    sim_step(d + 30, gen, [] { sim_event("WPS-CRED-RECEIVED "); });
    sim_step(d + 40, gen, [target] {
        sim_network n = sim_network_from_wps(target);
        g_sim.networks.push_back(n);
        // The station re-associates with the new credentials at once.
        sim_complete(n.id, target);
        sim_event("WPS-SUCCESS ");
        int id = n.id;
        sim_after(50, [target, id] {
            sim_event("CTRL-EVENT-CONNECTED - Connection to " + target.bssid +
                      " completed [id=" + std::to_string(id) + " id_str=]");
        });
    });
}

std::string sim_start_wps(bool pbc, const std::string& pin) {
    g_sim.attempt_generation++;
    long gen = g_sim.attempt_generation;
    std::vector<const sim_ap*> offering;
    bool pin_refused = false;
    for (const sim_ap& ap : g_sim.aps) {
        if (pbc && ap.wps == "pbc") {
            offering.push_back(&ap);
        } else if (!pbc && !ap.wps.empty() && ap.wps != "pbc") {
            (ap.wps == pin ? offering.push_back(&ap) : (void)(pin_refused = true));
        }
    }
    if (pbc && offering.size() > 1) {
        sim_step(g_sim.wps_delay_ms, gen, [] { sim_event("WPS-OVERLAP-DETECTED "); });
    } else if (offering.size() == 1) {
        sim_wps_success(*offering[0]);
    } else if (pin_refused) {
        sim_step(g_sim.wps_delay_ms, gen, [] { sim_event("WPS-FAIL msg=8 config_error=18"); });
    } else {
        sim_step(3 * g_sim.wps_delay_ms, gen, [] { sim_event("WPS-TIMEOUT "); });
    }
    if (pbc) {
        return "OK\n";
    }
    return pin.empty() ? std::string("12345670") : pin;
}

std::string sim_status() {
    std::ostringstream out;
    if (g_sim.wpa_state == "COMPLETED") {
        const sim_network* n = nullptr;
        for (const sim_network& net : g_sim.networks) {
            n = net.id == g_sim.current_id ? &net : n;
        }
        const sim_ap* ap = n != nullptr ? sim_find_ap(*n) : nullptr;
        std::string key_mgmt = n != nullptr ? sim_var(*n, "key_mgmt", "WPA-PSK") : "NONE";
        bool open = key_mgmt == "NONE";
        out << "bssid=" << g_sim.current_bssid << "\n"
            << "freq=" << (ap != nullptr ? ap->freq : 0) << "\n"
            << "ssid=" << (n != nullptr ? sim_network_ssid(*n) : "") << "\n"
            << "id=" << g_sim.current_id << "\n"
            << "mode=station\n"
            << "pairwise_cipher=" << (open ? "NONE" : "CCMP") << "\n"
            << "group_cipher=" << (open ? "NONE" : "CCMP") << "\n"
            << "key_mgmt=" << (open ? "NONE" : "WPA2-PSK") << "\n";
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
    static const char* order[] = {"ssid",          "scan_ssid", "bssid", "psk",      "proto",
                                  "key_mgmt",      "pairwise",  "group", "auth_alg", "wep_key0",
                                  "wep_tx_keyidx", "priority",  "mode"};
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
