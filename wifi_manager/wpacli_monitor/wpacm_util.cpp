// Small helpers shared by the controller's parsers and procedures, and the
// table that maps wpa_supplicant's key management words to security kinds.
#include "wpacm_internal.h"

// Order matters: lookups by value take the first matching row, and the scan
// and WPS parsers rely on it. Open networks carry proto "WPA" while WEP
// carries none; WPA2-EAP with both ciphers has no row on purpose.
const wpa_cli_security g_wpa_security_array[WPACM_SECURITY_ROWS] = {
    {"NONE", "WPA", "NONE", WIFI_SECURITY_NONE},
    {"NONE", "", "NONE", WIFI_SECURITY_WEP},
    {"WPA-PSK", "WPA", "TKIP", WIFI_SECURITY_WPA_PSK_TKIP},
    {"WPA-PSK", "WPA", "CCMP", WIFI_SECURITY_WPA_PSK_AES},
    {"WPA-PSK", "WPA", "CCMP TKIP", WIFI_SECURITY_WPA_PSK_TKIP_AES},
    {"WPA-EAP", "WPA", "TKIP", WIFI_SECURITY_WPA_EAP_TKIP},
    {"WPA-EAP", "WPA", "CCMP", WIFI_SECURITY_WPA_EAP_AES},
    {"WPA-EAP", "WPA", "CCMP TKIP", WIFI_SECURITY_WPA_EAP_TKIP_AES},
    {"WPA-PSK WPA-EAP", "WPA", "CCMP TKIP", WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES},
    {"WPA-PSK", "RSN", "TKIP", WIFI_SECURITY_WPA2_PSK_TKIP},
    {"WPA-PSK", "RSN", "CCMP", WIFI_SECURITY_WPA2_PSK_AES},
    {"WPA-PSK", "RSN", "CCMP TKIP", WIFI_SECURITY_WPA2_PSK_TKIP_AES},
    {"WPA-EAP", "RSN", "TKIP", WIFI_SECURITY_WPA2_EAP_TKIP},
    {"WPA-EAP", "RSN", "CCMP", WIFI_SECURITY_WPA2_EAP_AES},
    {"WPA-PSK WPA-EAP", "RSN", "CCMP TKIP", WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES},
    {"WPA-PSK WPA-EAP", "WPA RSN", "CCMP TKIP", WIFI_SECURITY_ANY_WPA},
};

const wpa_cli_security* wpacm_find_wpa_security(WiFi_Security value) {
    for (const auto& row : g_wpa_security_array) {
        if (row.value == value) {
            return &row;
        }
    }
    return nullptr;
}

int64_t get_now_time_ms() {
    return wifim_wall_clock_ms();
}

int64_t wpacm_clock_ms() {
    // One millisecond ahead of the monotonic clock, so never 0.
    return wifim_monotonic_ms() + 1;
}

int64_t wpacm_wall_ms(int64_t clock_ms) {
    if (clock_ms == 0) {
        return 0;
    }
    return clock_ms + (get_now_time_ms() - wpacm_clock_ms());
}

int64_t wpacm_schedule_clock(int64_t when) {
    return when == 0 ? 1 : when;
}

void wpacm_schedule_scan_and_connect(wpacli_monitor_data* data, int64_t when) {
    data->next_connect_clock = when;
    data->next_scan_clock = when;
}

time_t wpacm_clock_s() {
    return static_cast<time_t>(wifim_monotonic_ms() / 1000);
}

void clear_wpa_supplicant_status(wpa_supplicant_status* status) {
    status->bssid.clear();
    status->ssid.clear();
    status->wpa_state.clear();
    status->key_mgmt.clear();
}

void copy_wpa_supplicant_status(wpa_supplicant_status* dst, const wpa_supplicant_status* src) {
    dst->bssid = src->bssid;
    dst->ssid = src->ssid;
    dst->wpa_state = src->wpa_state;
    dst->key_mgmt = src->key_mgmt;
}

std::string wpacm_remove_quote(const std::string& text) {
    size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos) {
        return "";
    }
    size_t last = text.find_last_not_of(' ');
    std::string trimmed = text.substr(first, last - first + 1);
    if (trimmed.front() != '"' || trimmed.back() != '"') {
        return trimmed;
    }
    // A lone quote mark is both the opening and the closing one.
    return trimmed.size() < 2 ? "" : trimmed.substr(1, trimmed.size() - 2);
}

bool wpacm_cut_string(const std::string& text, char delimiter, size_t& start, size_t& position,
                      std::string& field) {
    start = text.find_first_not_of(delimiter, position);
    position = (start == std::string::npos) ? std::string::npos : text.find(delimiter, start);
    if (start == std::string::npos || position == std::string::npos || start == position) {
        return false;
    }
    field = text.substr(start, position - start);
    return true;
}

// The search resumes one character past the replaced text as it stood
// before the replacement; with a one-character pattern this skips the
// character right after each replacement.
std::string wpacm_replace_string(const std::string& text, const std::string& from,
                                 const std::string& to) {
    std::string result = text;
    if (from.empty()) {
        return result;
    }
    size_t position = result.find(from);
    while (position != std::string::npos) {
        result.replace(position, from.size(), to);
        position = result.find(from, position + from.size() + 1);
    }
    return result;
}

static bool wpacm_in_wpa_family(WiFi_Security s) {
    return (s >= WIFI_SECURITY_WPA_PSK_TKIP && s <= WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES) ||
           s == WIFI_SECURITY_ANY_WPA;
}

static bool wpacm_in_wpa2_family(WiFi_Security s) {
    return s >= WIFI_SECURITY_WPA2_PSK_TKIP && s <= WIFI_SECURITY_ANY_WPA;
}

bool wpacm_is_same_security(WiFi_Security a, WiFi_Security b) {
    return a == b || (wpacm_in_wpa_family(a) && wpacm_in_wpa_family(b)) ||
           (wpacm_in_wpa2_family(a) && wpacm_in_wpa2_family(b));
}

bool wpacm_is_same_network(const wifi_ap_info& a, const wifi_ap_info& b) {
    return a.ssid == b.ssid && wpacm_is_same_security(a.security, b.security);
}

wifi_ap_info* wpacm_take_profile(std::vector<wifi_ap_info>& list, const wifi_ap_info& profile,
                                 bool every_record) {
    wifi_ap_info* first = nullptr;
    for (wifi_ap_info& record : list) {
        if (!wpacm_is_same_network(profile, record)) {
            continue;
        }
        record.password = profile.password;
        record.ascii_key = profile.ascii_key;
        record.priority = profile.priority;
        if (first == nullptr) {
            first = &record;
        }
        if (!every_record) {
            break;
        }
    }
    return first;
}
