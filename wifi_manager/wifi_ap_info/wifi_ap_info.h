// Profile store: the AP record, the security kinds and their names, the
// profile file, and the ordering of the registered profiles by priority.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

enum WiFi_Security : int32_t {
    WIFI_SECURITY_UNKNOWN = 0,
    WIFI_SECURITY_NONE = 1,
    WIFI_SECURITY_WEP = 2,
    WIFI_SECURITY_WPA_PSK_TKIP = 3,
    WIFI_SECURITY_WPA_PSK_AES = 4,
    WIFI_SECURITY_WPA_PSK_TKIP_AES = 5,
    WIFI_SECURITY_WPA_EAP_TKIP = 6,
    WIFI_SECURITY_WPA_EAP_AES = 7,
    WIFI_SECURITY_WPA_EAP_TKIP_AES = 8,
    WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES = 9,
    WIFI_SECURITY_WPA2_PSK_TKIP = 10,
    WIFI_SECURITY_WPA2_PSK_AES = 11,
    WIFI_SECURITY_WPA2_PSK_TKIP_AES = 12,
    WIFI_SECURITY_WPA2_EAP_TKIP = 13,
    WIFI_SECURITY_WPA2_EAP_AES = 14,
    WIFI_SECURITY_WPA2_EAP_TKIP_AES = 15,
    WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES = 16,
    WIFI_SECURITY_ANY_WPA = 17,
};

// An access point seen in a scan, or a registered profile.
struct wifi_ap_info {
    int network_id;  // wpa_supplicant's id; -1 when none
    std::string bssid;
    std::string ssid;  // a profile's identity, case-sensitive
    std::string password;
    WiFi_Security security;
    int signal;    // percent; -1 for a profile not seen
    int priority;  // 1, 2, ... in order; 0 or below: outside the ordering
    bool ascii_key;
    bool wps;
    bool saved;
    bool in_range;
};

void clear_wifi_ap_info(wifi_ap_info* info);
void copy_wifi_ap_info(wifi_ap_info* dst, wifi_ap_info* src);

// One row of the names under which security kinds are stored.
struct wifi_security {
    std::string security_str;
    WiFi_Security value;
};
#define WAPINFO_SECURITY_NAMES 8
extern const wifi_security g_wifi_security_array[WAPINFO_SECURITY_NAMES];

// Name to kind, ignoring case; false for a name with no row.
bool wapinfo_security_from_name(const char* name, WiFi_Security* security);
// Kind to name (first row wins, then by generation); null when it has none.
const char* wapinfo_security_name(WiFi_Security security);

// IP settings of the station interface.
struct wifi_network_setting {
    bool dhcp;
    bool dns_dhcp;
    std::string ip_addr;
    std::string netmask;
    std::string gateway;
    std::string dns_server1;
    std::string dns_server2;
};

void wapinfo_read_profile(bool* enable_feature, std::vector<wifi_ap_info>* ap_info_vector,
                          wifi_network_setting* wifi_net_setting);
void wapinfo_update_profile_to_user_setting(bool enable_feature,
                                            std::vector<wifi_ap_info>* ap_info_vector,
                                            wifi_network_setting* wifi_net_setting);
// The file text the writer saves, for the given contents.
std::string wapinfo_profile_text(bool enable_feature,
                                 const std::vector<wifi_ap_info>& ap_info_vector,
                                 const wifi_network_setting& wifi_net_setting);

void wapinfo_reindex_ap_list(std::vector<wifi_ap_info>& ap_info_vector, bool resort_lsit);
