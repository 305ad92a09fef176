// WPS by push button and by PIN, in the order and with the words the real
// stack uses.
#include "wpa_sim.h"

// The network a WPS exchange hands over: what wpa_supplicant 2.10 writes for
// a credential on a driver that offers GCMP and the 256-bit ciphers.
static sim_network sim_network_from_wps(const sim_ap& ap, int id) {
    sim_network n;
    n.id = id;
    n.enabled = true;
    n.vars["ssid"] = sim_ssid_stored_value(ap.ssid);
    if (!sim_ap_is_open(ap)) {
        n.vars["psk"] = "\"" + ap.key + "\"";
        n.vars["proto"] = "RSN";
        n.vars["key_mgmt"] = "WPA-PSK";
        n.vars["pairwise"] = "CCMP-256 GCMP-256 CCMP GCMP";
        n.vars["group"] = "CCMP-256 GCMP-256 CCMP GCMP TKIP";
    } else {
        n.vars["key_mgmt"] = "NONE";
    }
    n.vars["auth_alg"] = "OPEN";
    n.vars["mesh_fwding"] = "1";
    n.vars["pbss"] = "2";
    return n;
}

// Association for the exchange and the EAP-WSC method starting.
static void sim_wps_begin_exchange(sim_timeline* t, const sim_ap& ap) {
    int d = g_sim.connect_delay_ms;
    sim_associate(t, ap, d);
    sim_then(t, 0, [] { sim_event("CTRL-EVENT-SUBNET-STATUS-UPDATE status=0"); });
    sim_then(t, d, [] {
        sim_event("CTRL-EVENT-EAP-STARTED EAP authentication started");
        sim_event("CTRL-EVENT-EAP-STATUS status='started' parameter=''");
    });
    sim_then(t, d, [] {
        sim_event("CTRL-EVENT-EAP-PROPOSED-METHOD vendor=14122 method=1");
        sim_event("CTRL-EVENT-EAP-STATUS status='accept proposed method' parameter='WSC'");
        sim_event("CTRL-EVENT-EAP-METHOD EAP vendor 14122 method 1 (WSC) selected");
    });
}

// The credential arrives and WPS succeeds while the station is still
// associated for the exchange; it then drops that association and joins
// again with the new network, which takes wps_reassoc_ms.
static void sim_wps_success(sim_timeline* t, const sim_ap& ap, int id) {
    sim_wps_begin_exchange(t, ap);
    sim_then(t, g_sim.wps_delay_ms / 2, [] { sim_event("WPS-CRED-RECEIVED "); });
    sim_then(t, g_sim.wps_delay_ms / 2, [ap, id] {
        g_sim.networks.push_back(sim_network_from_wps(ap, id));
        sim_event("WPS-SUCCESS ");
    });
    int step = g_sim.wps_reassoc_ms / 5;
    sim_then(t, step, [ap] {
        sim_event("CTRL-EVENT-EAP-STATUS status='completion' parameter='failure'");
        sim_event("CTRL-EVENT-EAP-FAILURE EAP authentication failed");
        g_sim.wpa_state = "DISCONNECTED";
        sim_event("CTRL-EVENT-DISCONNECTED bssid=" + ap.bssid + " reason=3 locally_generated=1");
        sim_event("CTRL-EVENT-DSCP-POLICY clear_all");
    });
    sim_associate(t, ap, step);
    sim_finish_wpa(t, id, ap, step);
}

// A PIN the registrar refuses: the exchange fails, the station leaves, drops
// the WPS network and finds nothing else to join.
static void sim_wps_refused(sim_timeline* t, const sim_ap& ap, int id) {
    sim_wps_begin_exchange(t, ap);
    sim_then(t, g_sim.wps_delay_ms / 2, [] { sim_event("WPS-FAIL msg=8 config_error=18"); });
    sim_then(t, g_sim.connect_delay_ms, [ap] {
        sim_event("CTRL-EVENT-EAP-STATUS status='completion' parameter='failure'");
        sim_event("CTRL-EVENT-EAP-FAILURE EAP authentication failed");
        g_sim.wpa_state = "DISCONNECTED";
        sim_event("CTRL-EVENT-DISCONNECTED bssid=" + ap.bssid + " reason=3 locally_generated=1");
        sim_event("CTRL-EVENT-DSCP-POLICY clear_all");
    });
    sim_then(t, 10, [] {
        g_sim.wpa_state = "SCANNING";
        sim_event("CTRL-EVENT-SCAN-STARTED ");
    });
    sim_then(t, g_sim.scan_delay_ms / 3,
             [id] { sim_event("CTRL-EVENT-NETWORK-REMOVED " + std::to_string(id)); });
    sim_then(t, g_sim.scan_delay_ms - g_sim.scan_delay_ms / 3, [] {
        sim_scan_done();
        sim_event("CTRL-EVENT-NETWORK-NOT-FOUND ");
    });
}

std::string sim_start_wps(bool pbc, const std::string& pin) {
    g_sim.attempt_generation++;
    std::vector<const sim_ap*> offering;
    const sim_ap* refusing = nullptr;
    for (const sim_ap& ap : g_sim.aps) {
        if (pbc && ap.wps == "pbc") {
            offering.push_back(&ap);
        } else if (!pbc && !ap.wps.empty() && ap.wps != "pbc") {
            (ap.wps == pin ? offering.push_back(&ap) : (void)(refusing = &ap));
        }
    }
    int id = sim_lowest_free_network_id();
    sim_event("CTRL-EVENT-NETWORK-ADDED " + std::to_string(id));
    sim_event(pbc ? "WPS-PBC-ACTIVE " : "WPS-PIN-ACTIVE ");
    g_sim.wpa_state = "SCANNING";
    sim_timeline t = sim_new_timeline();
    sim_scan_then(&t, nullptr);
    if (pbc && offering.size() > 1) {
        sim_then(&t, 0, [] { sim_event("WPS-OVERLAP-DETECTED "); });
    } else if (offering.size() == 1) {
        sim_wps_success(&t, *offering[0], id);
    } else if (refusing != nullptr) {
        sim_wps_refused(&t, *refusing, id);
    } else {
        sim_then(&t, 3 * g_sim.wps_delay_ms, [] { sim_event("WPS-TIMEOUT "); });
    }
    if (pbc) {
        return "OK\n";
    }
    return pin.empty() ? std::string("12345670") : pin;
}
