// The AP/profile record and the short names of the security kinds.
#include <strings.h>

#include "wifi_ap_info.h"

// A constant table needs no start-up or tear-down, so it can be used from
// any thread and any static initialiser.
const wifi_security g_wifi_security_array[WIFI_SECURITY_NAME_COUNT] = {
    {"unknown", WIFI_SECURITY_UNKNOWN},
    {"none", WIFI_SECURITY_NONE},
    {"open", WIFI_SECURITY_NONE},
    {"wep", WIFI_SECURITY_WEP},
    {"wpa", WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES},
    {"wpa2", WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES},
    {"mixed", WIFI_SECURITY_ANY_WPA},
    {"anywpa", WIFI_SECURITY_ANY_WPA},
};

const wifi_security_kind g_wifi_security_kinds[WIFI_SECURITY_KIND_COUNT] = {
    {WIFI_SECURITY_UNKNOWN, WIFI_SECURITY_UNKNOWN, "unknown"},
    {WIFI_SECURITY_NONE, WIFI_SECURITY_NONE, "none"},
    {WIFI_SECURITY_WEP, WIFI_SECURITY_WEP, "wep"},
    {WIFI_SECURITY_WPA_PSK_TKIP, WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES, "wpa"},
    {WIFI_SECURITY_WPA_PSK_AES, WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES, "wpa"},
    {WIFI_SECURITY_WPA_PSK_TKIP_AES, WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES, "wpa"},
    {WIFI_SECURITY_WPA_EAP_TKIP, WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES, "wpa"},
    {WIFI_SECURITY_WPA_EAP_AES, WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES, "wpa"},
    {WIFI_SECURITY_WPA_EAP_TKIP_AES, WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES, "wpa"},
    {WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES, WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES, "unknown"},
    {WIFI_SECURITY_WPA2_PSK_TKIP, WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES, "wpa2"},
    {WIFI_SECURITY_WPA2_PSK_AES, WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES, "wpa2"},
    {WIFI_SECURITY_WPA2_PSK_TKIP_AES, WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES, "wpa2"},
    {WIFI_SECURITY_WPA2_EAP_TKIP, WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES, "wpa2"},
    {WIFI_SECURITY_WPA2_EAP_AES, WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES, "wpa2"},
    {WIFI_SECURITY_WPA2_EAP_TKIP_AES, WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES, "wpa2"},
    {WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES, WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES, "unknown"},
    {WIFI_SECURITY_ANY_WPA, WIFI_SECURITY_ANY_WPA, "anywpa"},
};

void clear_wifi_ap_info(wifi_ap_info* info) {
    if (info == nullptr) {
        return;
    }
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

void copy_wifi_ap_info(wifi_ap_info* dst, const wifi_ap_info* src) {
    if (dst == nullptr || src == nullptr || dst == src) {
        return;
    }
    *dst = *src;
}

bool wapinfo_security_from_name(const char* name, WiFi_Security* value) {
    if (name == nullptr) {
        return false;
    }
    for (const wifi_security& row : g_wifi_security_array) {
        if (strcasecmp(name, row.security_str) == 0) {
            if (value != nullptr) {
                *value = row.value;
            }
            return true;
        }
    }
    return false;
}

static const char* wapinfo_first_name_of(WiFi_Security value) {
    for (const wifi_security& row : g_wifi_security_array) {
        if (row.value == value) {
            return row.security_str;
        }
    }
    return nullptr;
}

static const wifi_security_kind* wapinfo_kind_of(WiFi_Security value) {
    for (const wifi_security_kind& kind : g_wifi_security_kinds) {
        if (kind.value == value) {
            return &kind;
        }
    }
    return nullptr;
}

const char* wapinfo_security_to_name(WiFi_Security value) {
    const wifi_security_kind* kind = wapinfo_kind_of(value);
    return kind == nullptr ? nullptr : wapinfo_first_name_of(kind->file_value);
}

const char* wapinfo_security_answer_name(WiFi_Security value) {
    const wifi_security_kind* kind = wapinfo_kind_of(value);
    return kind == nullptr ? "unknown" : kind->answer_name;
}
