// Reading the profile file: the station switch, the IP settings and the
// numbered list of registered profiles.
#include <limits.h>
#include <stdio.h>
#include <strings.h>

#include "../fixed_paths.h"
#include "profile_file.h"
#include "wifi_ap_info.h"

// Whatever cannot be loaded (no file, no permission, a directory, no memory)
// leaves the INI object empty or partly filled, so every missing key simply
// takes its default.
static void wapinfo_load_profile_file(CSimpleIniA* ini) {
    FILE* fp = fopen(WIFIM_PROFILE_FILE, "rbe");
    if (fp == nullptr) {
        return;
    }
    ini->LoadFile(fp);
    fclose(fp);
}

// Without DHCP the interface needs fixed addresses; a file that names none
// gets the device's factory ones.
static void wapinfo_read_network_setting(const CSimpleIniA& ini, wifi_network_setting* setting) {
    setting->dhcp = ini.GetLongValue(WAPINFO_SECTION, WAPINFO_KEY_DHCP, 1) != 0;
    setting->dns_dhcp = ini.GetLongValue(WAPINFO_SECTION, WAPINFO_KEY_DNS_DHCP, 1) != 0;
    bool static_ip = !setting->dhcp;
    bool static_dns = !(setting->dhcp && setting->dns_dhcp);
    setting->ip_addr =
        ini.GetValue(WAPINFO_SECTION, WAPINFO_KEY_IP, static_ip ? WAPINFO_DEFAULT_IP : "");
    setting->gateway = ini.GetValue(WAPINFO_SECTION, WAPINFO_KEY_GATEWAY,
                                    static_ip ? WAPINFO_DEFAULT_GATEWAY : "");
    setting->netmask = ini.GetValue(WAPINFO_SECTION, WAPINFO_KEY_NETMASK,
                                    static_ip ? WAPINFO_DEFAULT_NETMASK : "");
    setting->dns_server1 =
        ini.GetValue(WAPINFO_SECTION, WAPINFO_KEY_DNS1, static_dns ? WAPINFO_DEFAULT_DNS : "");
    setting->dns_server2 =
        ini.GetValue(WAPINFO_SECTION, WAPINFO_KEY_DNS2, static_dns ? WAPINFO_DEFAULT_DNS : "");
}

// The ordering works on int priorities; a number too large for one is taken
// as the nearest one that fits rather than wrapping to a different sign.
static int wapinfo_clamp_priority(long value) {
    if (value > INT_MAX) {
        return INT_MAX;
    }
    if (value < INT_MIN) {
        return INT_MIN;
    }
    return static_cast<int>(value);
}

// A key form other than "ascii" means hexadecimal digits; an empty or
// missing one means text, the common case.
static bool wapinfo_is_ascii_encode(const char* encode) {
    return encode[0] == '\0' || strcasecmp(encode, WAPINFO_ENCODE_ASCII) == 0;
}

static wifi_ap_info* wapinfo_find_ssid(std::vector<wifi_ap_info>* list, const char* ssid) {
    for (wifi_ap_info& entry : *list) {
        if (entry.ssid == ssid) {
            return &entry;
        }
    }
    return nullptr;
}

// A later number with the same SSID overrides the earlier one in place, so
// the list keeps one entry per network at the position first given to it.
static void wapinfo_store_profile(std::vector<wifi_ap_info>* list, const char* ssid,
                                  const char* password, WiFi_Security security, int priority,
                                  bool ascii_key) {
    wifi_ap_info* known = wapinfo_find_ssid(list, ssid);
    if (known != nullptr) {
        known->password = password;
        known->security = security;
        known->priority = priority;
        known->ascii_key = ascii_key;
        known->saved = true;
        return;
    }
    wifi_ap_info entry;
    entry.network_id = -1;
    entry.ssid = ssid;
    entry.password = password;
    entry.security = security;
    entry.signal = -1;
    entry.priority = priority;
    entry.ascii_key = ascii_key;
    entry.wps = false;
    entry.saved = true;
    entry.in_range = false;
    list->push_back(entry);
}

// Profiles are numbered from 1 without gaps: the first number without an
// SSID or security name ends the list. A security name this device does not
// know makes only that one profile unusable.
static void wapinfo_read_profile_list(const CSimpleIniA& ini, std::vector<wifi_ap_info>* list) {
    for (int n = 1; n < INT_MAX; n++) {
        wapinfo_profile_keys keys = {};
        wapinfo_format_profile_keys(n, &keys);
        const char* ssid = ini.GetValue(WAPINFO_SECTION, keys.ssid, nullptr);
        const char* security_name = ini.GetValue(WAPINFO_SECTION, keys.security, nullptr);
        const char* password = ini.GetValue(WAPINFO_SECTION, keys.passwd, "");
        const char* encode = ini.GetValue(WAPINFO_SECTION, keys.passwd_encode, "");
        long priority = ini.GetLongValue(WAPINFO_SECTION, keys.priority, WAPINFO_DEFAULT_PRIORITY);
        if (ssid == nullptr || ssid[0] == '\0' || security_name == nullptr ||
            security_name[0] == '\0') {
            return;
        }
        WiFi_Security security = WIFI_SECURITY_UNKNOWN;
        if (!wapinfo_security_from_name(security_name, &security) ||
            security == WIFI_SECURITY_UNKNOWN) {
            continue;
        }
        wapinfo_store_profile(list, ssid, password, security, wapinfo_clamp_priority(priority),
                              wapinfo_is_ascii_encode(encode));
    }
}

void wapinfo_read_profile(bool* enable_feature, std::vector<wifi_ap_info>* ap_info_vector,
                          wifi_network_setting* wifi_net_setting) {
    if (ap_info_vector != nullptr) {
        ap_info_vector->clear();
    }
    CSimpleIniA ini;
    wapinfo_lock_profile_file();
    wapinfo_load_profile_file(&ini);
    wapinfo_unlock_profile_file();
    if (enable_feature != nullptr) {
        *enable_feature = ini.GetBoolValue(WAPINFO_SECTION, WAPINFO_KEY_STATION_ENABLE, true);
    }
    if (wifi_net_setting != nullptr) {
        wapinfo_read_network_setting(ini, wifi_net_setting);
    }
    if (ap_info_vector != nullptr) {
        wapinfo_read_profile_list(ini, ap_info_vector);
    }
}
