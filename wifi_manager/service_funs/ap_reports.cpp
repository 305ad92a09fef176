// Read-only reports: the networks the user may choose from, and the one the
// station is connected to.
#include <unistd.h>

#include "service_funs.h"
#include "wpacli_monitor/wpacli_monitor.h"

#define SERVICE_SECURITY_ATTEMPTS 5

// The connected network: same SSID, and the same BSSID unless either is
// unknown.
static bool service_is_connected_entry(const wifi_ap_info& entry, const std::string& ssid,
                                       const std::string& bssid) {
    return entry.ssid == ssid && (entry.bssid == bssid || entry.bssid.empty() || bssid.empty());
}

// Registered profiles join the scan entry of the same network, or are
// listed on their own as not in range.
static void service_merge_profiles(std::vector<wifi_ap_info>& list,
                                   const std::vector<wifi_ap_info>& profiles) {
    for (const wifi_ap_info& profile : profiles) {
        wifi_ap_info* entry = wpacm_take_profile(list, profile, false);
        if (entry != nullptr) {
            entry->saved = true;
        } else {
            wifi_ap_info copy = profile;
            copy.network_id = -1;
            copy.signal = 0;
            copy.saved = true;
            copy.in_range = false;
            list.push_back(copy);
        }
    }
}

// The connected SSID first, then by falling signal; an exchange sort whose
// order among equals the pages have always shown.
static void service_sort_ap_list(std::vector<wifi_ap_info>& list, const std::string& ssid) {
    for (size_t i = 0; i < list.size(); i++) {
        for (size_t j = i + 1; j < list.size(); j++) {
            bool j_connected = !ssid.empty() && list[j].ssid == ssid;
            bool i_connected = !ssid.empty() && list[i].ssid == ssid;
            if (j_connected || (list[j].signal > list[i].signal && !i_connected)) {
                std::swap(list[i], list[j]);
            }
        }
    }
}

static void service_write_ap_entry(service_stream& out, const wifi_ap_info& entry, bool connected) {
    out << " <ap_data>\n";
    service_write_ssid(out, "  ", entry.ssid);
    out << "  <security>" << wapinfo_security_answer_name(entry.security) << "</security>\n";
    out << "  <signal>" << entry.signal << "</signal>\n";
    out << "  <registered>" << (entry.saved ? 1 : 0) << "</registered>\n";
    out << "  <scanned>" << (entry.in_range ? 1 : 0) << "</scanned>\n";
    out << "  <connected>" << (connected ? 1 : 0) << "</connected>\n";
    out << " </ap_data>\n";
}

void service_get_ap_list(CSimpleIniA& receive_data, service_stream& response_stream,
                         void* monitor_data) {
    (void)receive_data;
    int enable = wpacm_get_enable(monitor_data) ? 1 : 0;
    std::string ssid;
    std::string bssid;
    std::vector<wifi_ap_info> list;
    if (enable) {
        std::vector<wifi_ap_info> profiles;
        wpacm_get_connected_ssid(monitor_data, ssid, bssid);
        wpacm_get_register_profile(monitor_data, profiles);
        wpacm_get_wifi_ap_list(monitor_data, list);
        service_merge_profiles(list, profiles);
        service_sort_ap_list(list, ssid);
    }
    service_begin_answer(response_stream, "wifista_ap_list", API_SUCCESS);
    service_write_element(response_stream, "enable", std::to_string(enable));
    for (const wifi_ap_info& entry : list) {
        service_write_ap_entry(response_stream, entry,
                               !ssid.empty() && service_is_connected_entry(entry, ssid, bssid));
    }
    service_end_answer(response_stream, "wifista_ap_list");
}

// A fresh connection may not be in the scan list yet: look again a few
// times, waiting a little longer each time.
static std::string service_connected_security(void* monitor_data, const std::string& ssid,
                                              const std::string& bssid) {
    for (int attempt = 1; attempt <= SERVICE_SECURITY_ATTEMPTS; attempt++) {
        std::vector<wifi_ap_info> list;
        wpacm_get_wifi_ap_list(monitor_data, list);
        std::string name;
        for (const wifi_ap_info& entry : list) {
            if (service_is_connected_entry(entry, ssid, bssid)) {
                name = wapinfo_security_answer_name(entry.security);
            }
        }
        if (!name.empty()) {
            return name;
        }
        wifim_sleep_s(static_cast<unsigned>(attempt));
    }
    return "";
}

void service_get_connected_ssid(CSimpleIniA& receive_data, service_stream& response_stream,
                                void* monitor_data) {
    (void)receive_data;
    int enable = wpacm_get_enable(monitor_data) ? 1 : 0;
    std::string ssid;
    std::string bssid;
    std::string security;
    std::string ip;
    std::string netmask;
    std::string gateway;
    std::vector<std::string> dns;
    if (enable) {
        wpacm_get_connected_ssid(monitor_data, ssid, bssid);
    }
    if (!ssid.empty()) {
        service_get_network_setting(wpacm_get_wlan_interface(monitor_data), ip, netmask, gateway,
                                    dns);
        security = service_connected_security(monitor_data, ssid, bssid);
    }
    service_begin_answer(response_stream, "wifista_connected", API_SUCCESS);
    service_write_ssid(response_stream, "", ssid);
    service_write_element(response_stream, "security", security);
    service_write_element(response_stream, "enable", std::to_string(enable));
    service_write_element(response_stream, "ip_addr", ip);
    service_write_element(response_stream, "netmask", netmask);
    service_write_element(response_stream, "gateway", gateway);
    service_write_element(response_stream, "dns_server", !dns.empty() ? dns[0] : "");
    service_write_element(response_stream, "dns_server", dns.size() > 1 ? dns[1] : "");
    service_end_answer(response_stream, "wifista_connected");
}
