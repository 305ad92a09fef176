// Pure parsing of wpa_supplicant's STATUS and SCAN_RESULTS replies, and the
// aging of the scan list, kept apart from the code that sends the commands.
#include <stdlib.h>
#include <string.h>

#include <SimpleIni.h>

#include "wpacm_internal.h"

static bool wpacm_has(const std::string& text, const char* word) {
    return text.find(word) != std::string::npos;
}

// Picks the security kind of one key-management family from the flags. The
// cipher test looks for "TKIP+CCMP" exactly, as access points list it.
static WiFi_Security wpacm_family_security(const std::string& flags, const char* other_generation,
                                           WiFi_Security both, WiFi_Security tkip,
                                           WiFi_Security aes) {
    if (wpacm_has(flags, other_generation)) {
        return WIFI_SECURITY_ANY_WPA;
    }
    if (wpacm_has(flags, "TKIP+CCMP")) {
        return both;
    }
    if (wpacm_has(flags, "TKIP")) {
        return tkip;
    }
    return aes;
}

WiFi_Security wpacm_security_from_flags(const std::string& flags) {
    if (wpacm_has(flags, "WPA2-PSK")) {
        return wpacm_family_security(flags, "WPA-", WIFI_SECURITY_WPA2_PSK_TKIP_AES,
                                     WIFI_SECURITY_WPA2_PSK_TKIP, WIFI_SECURITY_WPA2_PSK_AES);
    }
    if (wpacm_has(flags, "WPA2-EAP")) {
        return wpacm_family_security(flags, "WPA-", WIFI_SECURITY_WPA2_EAP_TKIP_AES,
                                     WIFI_SECURITY_WPA2_EAP_TKIP, WIFI_SECURITY_WPA2_EAP_AES);
    }
    if (wpacm_has(flags, "WPA-PSK")) {
        return wpacm_family_security(flags, "WPA2-", WIFI_SECURITY_WPA_PSK_TKIP_AES,
                                     WIFI_SECURITY_WPA_PSK_TKIP, WIFI_SECURITY_WPA_PSK_AES);
    }
    if (wpacm_has(flags, "WPA-EAP")) {
        return wpacm_family_security(flags, "WPA2-", WIFI_SECURITY_WPA_EAP_TKIP_AES,
                                     WIFI_SECURITY_WPA_EAP_TKIP, WIFI_SECURITY_WPA_EAP_AES);
    }
    if (wpacm_has(flags, "WEP")) {
        return WIFI_SECURITY_WEP;
    }
    return WIFI_SECURITY_NONE;
}

// dBm levels map -90..-40 onto 1..99; non-negative levels are already a
// quality figure.
int wpacm_signal_to_percent(int level) {
    if (level < 0) {
        if (level >= -40) {
            return 99;
        }
        if (level > -90) {
            return (level + 90) * 100 / 50;
        }
        return 1;
    }
    if (level >= 100) {
        return 99;
    }
    return level > 0 ? level : 1;
}

bool wpacm_parse_scan_line(const std::string& line, wifi_ap_info* ap_info) {
    if (line.empty()) {
        return false;
    }
    std::string text = wpacm_replace_string(line, "\t", " ");
    std::string fields[4];
    size_t start = 0;
    size_t position = 0;
    for (auto& field : fields) {
        if (!wpacm_cut_string(text, ' ', start, position, field)) {
            return false;
        }
    }
    size_t ssid_start = text.find_first_not_of(' ', position);
    if (ssid_start == std::string::npos) {
        return false;
    }
    // The list prints the SSID escaped; the entry holds its name.
    std::string ssid = wpacm_ssid_from_wpa_text(text.substr(ssid_start));
    if (fields[0].empty() || ssid.empty()) {
        return false;
    }
    clear_wifi_ap_info(ap_info);
    ap_info->network_id = -1;
    ap_info->bssid = fields[0];
    ap_info->ssid = ssid;
    ap_info->security = wpacm_security_from_flags(fields[3]);
    ap_info->signal =
        wpacm_signal_to_percent(static_cast<int>(strtol(fields[2].c_str(), nullptr, 10)));
    ap_info->priority = 0;
    ap_info->ascii_key = true;
    ap_info->wps = wpacm_has(fields[3], "WPS");
    ap_info->saved = false;
    ap_info->in_range = true;
    return true;
}

std::string wpacm_scan_key(const wifi_ap_info& ap_info) {
    return ap_info.ssid + "+security_id:" + std::to_string(static_cast<int>(ap_info.security));
}

// The text of the first "key=" line, taken whole: an SSID may begin or end
// with blanks, which an INI reader would trim.
static std::string wpacm_status_line_value(const char* reply, const char* key) {
    std::string text = std::string("\n") + reply;
    std::string start = std::string("\n") + key + "=";
    size_t at = text.find(start);
    if (at == std::string::npos) {
        return "";
    }
    at += start.size();
    size_t end = text.find('\n', at);
    return text.substr(at, end == std::string::npos ? std::string::npos : end - at);
}

bool wpacm_parse_status(const char* reply, wpa_supplicant_status* status) {
    CSimpleIniA ini;
    ini.Reset();
    ini.LoadData(reply, strlen(reply));
    status->bssid = ini.GetValue("", "bssid", "");
    // STATUS prints the SSID escaped, as the scan list does.
    status->ssid = wpacm_ssid_from_wpa_text(wpacm_status_line_value(reply, "ssid"));
    status->wpa_state = ini.GetValue("", "wpa_state", "");
    status->key_mgmt = ini.GetValue("", "key_mgmt", "");
    return !status->ssid.empty() && status->wpa_state == "COMPLETED";
}

void wpacm_merge_scan_results(std::map<std::string, wifi_scan_ap_info>* list, const char* reply,
                              int64_t now) {
    const char* line = strchr(reply, '\n');  // the header line is skipped
    while (line != nullptr && *line != '\0') {
        line++;
        const char* end = strchr(line, '\n');
        std::string text = end == nullptr ? std::string(line) : std::string(line, end);
        line = end;
        wifi_ap_info ap_info;
        if (!wpacm_parse_scan_line(text, &ap_info)) {
            continue;
        }
        // One entry per network and security kind: access points of the
        // same network share it, the last one parsed wins.
        wifi_scan_ap_info& entry = (*list)[wpacm_scan_key(ap_info)];
        entry.ap_info = ap_info;
        entry.timeout_ms = now + WPACM_SCAN_ENTRY_LIFETIME_MS;
        entry.mini_alive_ms = now + WPACM_SCAN_ENTRY_MIN_LIFE_MS;
        entry.not_in_range_count = 0;
        entry.in_scan_result = true;
    }
}

static bool wpacm_entry_expired(const wifi_scan_ap_info& entry, int64_t now) {
    return now >= entry.timeout_ms || (entry.not_in_range_count >= 2 && now > entry.mini_alive_ms);
}

void wpacm_age_scan_list(std::map<std::string, wifi_scan_ap_info>* list, int64_t now) {
    for (auto& item : *list) {
        if (item.second.in_scan_result) {
            item.second.not_in_range_count = 0;
        } else {
            item.second.not_in_range_count++;
        }
    }
    for (auto it = list->begin(); it != list->end();) {
        it = wpacm_entry_expired(it->second, now) ? list->erase(it) : std::next(it);
    }
}
