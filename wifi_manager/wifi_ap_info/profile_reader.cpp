// Reading the profile file: station switch, IP settings, registered networks.
#include <stdio.h>
#include <strings.h>

#include <SimpleIni.h>

#include "../fixed_paths.h"
#include "wifi_ap_info.h"

#define WAPINFO_KEY_SIZE 128

static const char* wapinfo_value(const CSimpleIniA& ini, const char* format, int n,
                                 const char* fallback) {
    char key[WAPINFO_KEY_SIZE];
    snprintf(key, sizeof(key), format, n);
    return ini.GetValue("", key, fallback);
}

// A missing or unreadable file reads as every default and no profiles.
static void wapinfo_load(CSimpleIniA* ini) {
    FILE* fp = fopen(WIFIM_PROFILE_FILE, "rb");
    if (fp != nullptr) {
        ini->LoadFile(fp);
        fclose(fp);
    }
}

// The static defaults apply only where DHCP does not provide the value.
static void wapinfo_read_network_setting(const CSimpleIniA& ini, wifi_network_setting* setting) {
    setting->dhcp = ini.GetLongValue("", "wifi_dhcp", 1) != 0;
    setting->dns_dhcp = ini.GetLongValue("", "wifi_dns_dhcp", 1) != 0;
    bool dhcp = setting->dhcp;
    bool dns_by_dhcp = setting->dhcp && setting->dns_dhcp;
    setting->ip_addr = ini.GetValue("", "wifi_ip", dhcp ? "" : "192.168.0.201");
    setting->gateway = ini.GetValue("", "wifi_gateway", dhcp ? "" : "192.168.0.1");
    setting->netmask = ini.GetValue("", "wifi_netmask", dhcp ? "" : "255.255.255.0");
    setting->dns_server1 = ini.GetValue("", "wifi_dns1", dns_by_dhcp ? "" : "8.8.8.8");
    setting->dns_server2 = ini.GetValue("", "wifi_dns2", dns_by_dhcp ? "" : "8.8.8.8");
}

// A repeated SSID updates the earlier entry instead of adding a second one.
static void wapinfo_add_profile(std::vector<wifi_ap_info>* list, const wifi_ap_info& profile) {
    for (wifi_ap_info& entry : *list) {
        if (entry.ssid == profile.ssid) {
            entry.password = profile.password;
            entry.security = profile.security;
            entry.priority = profile.priority;
            entry.ascii_key = profile.ascii_key;
            entry.saved = true;
            return;
        }
    }
    list->push_back(profile);
}

static void wapinfo_read_profiles(const CSimpleIniA& ini, std::vector<wifi_ap_info>* list) {
    for (int n = 1;; n++) {
        const char* ssid = wapinfo_value(ini, "ssid_%d", n, nullptr);
        const char* security_name = wapinfo_value(ini, "security_%d", n, nullptr);
        // A profile without its password or encoding key reads them as empty.
        const char* password = wapinfo_value(ini, "passwd_%d", n, "");
        const char* encode = wapinfo_value(ini, "passwd_encode_%d", n, "");
        char key[WAPINFO_KEY_SIZE];
        snprintf(key, sizeof(key), "priority_%d", n);
        long priority = ini.GetLongValue("", key, -1);
        if (ssid == nullptr || ssid[0] == '\0' || security_name == nullptr ||
            security_name[0] == '\0') {
            return;  // the list ends at the first gap
        }
        WiFi_Security security = WIFI_SECURITY_UNKNOWN;
        if (!wapinfo_security_from_name(security_name, &security) ||
            security == WIFI_SECURITY_UNKNOWN) {
            continue;  // not usable, but later numbers still count
        }
        wifi_ap_info profile;
        clear_wifi_ap_info(&profile);
        profile.network_id = -1;
        profile.ssid = ssid;
        profile.password = password;
        profile.security = security;
        profile.signal = -1;
        profile.priority = static_cast<int>(priority);
        profile.ascii_key = encode[0] == '\0' || strcasecmp(encode, "ascii") == 0;
        profile.saved = true;
        wapinfo_add_profile(list, profile);
    }
}

void wapinfo_read_profile(bool* enable_feature, std::vector<wifi_ap_info>* ap_info_vector,
                          wifi_network_setting* wifi_net_setting) {
    ap_info_vector->clear();
    CSimpleIniA ini;
    wapinfo_load(&ini);
    *enable_feature = ini.GetBoolValue("", "wifi_station_enable", true);
    if (wifi_net_setting != nullptr) {
        wapinfo_read_network_setting(ini, wifi_net_setting);
    }
    wapinfo_read_profiles(ini, ap_info_vector);
}
