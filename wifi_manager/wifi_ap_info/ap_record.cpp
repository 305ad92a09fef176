// The AP record and the names of the security kinds.
#include <strings.h>

#include "wifi_ap_info.h"

// Two synonym pairs: reading accepts both, writing gives the first.
const wifi_security g_wifi_security_array[WAPINFO_SECURITY_NAMES] = {
    {"unknown", WIFI_SECURITY_UNKNOWN},
    {"none", WIFI_SECURITY_NONE},
    {"open", WIFI_SECURITY_NONE},
    {"wep", WIFI_SECURITY_WEP},
    {"wpa", WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES},
    {"wpa2", WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES},
    {"mixed", WIFI_SECURITY_ANY_WPA},
    {"anywpa", WIFI_SECURITY_ANY_WPA},
};

void clear_wifi_ap_info(wifi_ap_info* info) {
    info->network_id = 0;
    info->bssid.clear();
    info->ssid.clear();
    info->password.clear();
    info->security = WIFI_SECURITY_UNKNOWN;
    info->signal = 0;
    info->priority = 0;
    info->ascii_key = false;
    info->wps = false;
    info->saved = false;
    info->in_range = false;
}

void copy_wifi_ap_info(wifi_ap_info* dst, wifi_ap_info* src) {
    *dst = *src;
}

bool wapinfo_security_from_name(const char* name, WiFi_Security* security) {
    for (const auto& row : g_wifi_security_array) {
        if (strcasecmp(row.security_str.c_str(), name) == 0) {
            *security = row.value;
            return true;
        }
    }
    return false;
}

// The file keeps only the generation of a specific cipher suite.
const char* wapinfo_security_name(WiFi_Security security) {
    for (const auto& row : g_wifi_security_array) {
        if (row.value == security) {
            return row.security_str.c_str();
        }
    }
    if (security >= WIFI_SECURITY_WPA_PSK_TKIP && security <= WIFI_SECURITY_WPA_EAP_TKIP_AES) {
        return "wpa";
    }
    if (security >= WIFI_SECURITY_WPA2_PSK_TKIP && security <= WIFI_SECURITY_WPA2_EAP_TKIP_AES) {
        return "wpa2";
    }
    return nullptr;
}
