// Reading back the networks wpa_supplicant saved after WPS, and WPS PINs.
#include <stdio.h>
#include <stdlib.h>

#include <SimpleIni.h>

#include "../fixed_paths.h"
#include "wpacm_internal.h"

#define WPACM_PIN_DIGITS 10000000u

// Lines are compared and parsed with every blank and tab removed, values
// included; that is how the device has always read this file.
static std::string wpacm_strip_blanks(const std::string& line) {
    std::string out;
    for (char c : line) {
        if (c != ' ' && c != '\t') {
            out += c;
        }
    }
    return out;
}

// One network={ ... } block of the file: its lines with the blanks
// stripped, as the table match reads them, and as they stand, for the
// block's own words when the table knows none of them.
struct wpacm_config_block {
    std::string stripped;
    std::string raw;
};

// The network={ ... } blocks of the file.
static std::vector<wpacm_config_block> wpacm_network_blocks(const std::string& text) {
    std::vector<wpacm_config_block> blocks;
    wpacm_config_block block;
    bool inside = false;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        std::string raw = text.substr(start, end - start);
        std::string line = wpacm_strip_blanks(raw);
        start = end + 1;
        if (!inside) {
            inside = (line == "network={");
            block = wpacm_config_block();
        } else if (line == "}") {
            inside = false;
            if (!block.stripped.empty()) {
                blocks.push_back(block);
            }
        } else {
            block.stripped += line + "\n";
            block.raw += raw + "\n";
        }
    }
    if (inside && !block.stripped.empty()) {
        blocks.push_back(block);
    }
    return blocks;
}

static const wpa_cli_security* wpacm_match_security_row(const std::string& key_mgmt,
                                                        const std::string& proto,
                                                        const std::string& pairwise) {
    for (const auto& row : g_wpa_security_array) {
        if (row.security_str == key_mgmt &&
            (row.protocol_str.empty() || row.protocol_str == proto) &&
            (row.pairwise_str.empty() || row.pairwise_str == pairwise)) {
            return &row;
        }
    }
    return nullptr;
}

// A quoted key is text; a bare one is hexadecimal.
static void wpacm_take_key(const std::string& value, wifi_ap_info* ap_info) {
    if (value.empty()) {
        ap_info->ascii_key = true;
        ap_info->password = value;
    } else if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
        ap_info->ascii_key = true;
        ap_info->password = value.substr(1, value.size() - 2);
    } else {
        ap_info->ascii_key = false;
        ap_info->password = value;
    }
}

// The ciphers of a pairwise list: which kinds it names, and whether it
// names anything else.
struct wpacm_cipher_words {
    bool aes = false;
    bool tkip = false;
    bool other = false;
};

static wpacm_cipher_words wpacm_read_cipher_words(const std::string& pairwise) {
    wpacm_cipher_words words;
    size_t start = 0;
    size_t position = 0;
    std::string word;
    std::string list = wpacm_replace_string(pairwise, "\t", " ") + " ";
    while (wpacm_cut_string(list, ' ', start, position, word)) {
        if (word == "CCMP" || word == "GCMP" || word == "CCMP-256" || word == "GCMP-256") {
            words.aes = true;
        } else if (word == "TKIP") {
            words.tkip = true;
        } else {
            words.other = true;
        }
    }
    return words;
}

WiFi_Security wpacm_security_from_block_words(const std::string& key_mgmt, const std::string& proto,
                                              const std::string& pairwise, bool has_wep_key0) {
    if (key_mgmt == "NONE") {
        return has_wep_key0 ? WIFI_SECURITY_UNKNOWN : WIFI_SECURITY_NONE;
    }
    bool rsn = proto == "RSN";
    if (key_mgmt != "WPA-PSK" || (!rsn && proto != "WPA")) {
        return WIFI_SECURITY_UNKNOWN;
    }
    wpacm_cipher_words words = wpacm_read_cipher_words(pairwise);
    if (words.other || (!words.aes && !words.tkip)) {
        return WIFI_SECURITY_UNKNOWN;
    }
    if (words.aes && words.tkip) {
        return rsn ? WIFI_SECURITY_WPA2_PSK_TKIP_AES : WIFI_SECURITY_WPA_PSK_TKIP_AES;
    }
    if (words.aes) {
        return rsn ? WIFI_SECURITY_WPA2_PSK_AES : WIFI_SECURITY_WPA_PSK_AES;
    }
    return rsn ? WIFI_SECURITY_WPA2_PSK_TKIP : WIFI_SECURITY_WPA_PSK_TKIP;
}

// The table knows the ciphers wpa_supplicant used to write; newer ones write
// longer lists for the same network (a WPS credential on a driver with GCMP
// and the 256-bit ciphers comes back as pairwise=CCMP-256 GCMP-256 CCMP
// GCMP). Such a block is read from its own words, blanks kept.
static WiFi_Security wpacm_security_of_block(CSimpleIniA& ini, const wpacm_config_block& block) {
    const wpa_cli_security* row =
        wpacm_match_security_row(wpacm_remove_quote(ini.GetValue("", "key_mgmt", "")),
                                 wpacm_remove_quote(ini.GetValue("", "proto", "")),
                                 wpacm_remove_quote(ini.GetValue("", "pairwise", "")));
    if (row != nullptr) {
        return row->value;
    }
    CSimpleIniA words;
    words.LoadData(block.raw.c_str(), block.raw.size());
    return wpacm_security_from_block_words(wpacm_remove_quote(words.GetValue("", "key_mgmt", "")),
                                           wpacm_remove_quote(words.GetValue("", "proto", "")),
                                           wpacm_remove_quote(words.GetValue("", "pairwise", "")),
                                           words.GetValue("", "wep_key0", nullptr) != nullptr);
}

static bool wpacm_profile_from_block(CSimpleIniA& ini, const wpacm_config_block& block,
                                     wifi_ap_info* ap_info) {
    ini.Reset();
    ini.LoadData(block.stripped.c_str(), block.stripped.size());
    clear_wifi_ap_info(ap_info);
    // Saved quoted when printable ASCII, else in hexadecimal; P"..." is read too.
    ap_info->ssid = wpacm_ssid_from_config_value(ini.GetValue("", "ssid", ""));
    WiFi_Security security = wpacm_security_of_block(ini, block);
    if (ap_info->ssid.empty() || security < WIFI_SECURITY_NONE ||
        security > WIFI_SECURITY_ANY_WPA) {
        return false;
    }
    ap_info->security = security;
    switch (ap_info->security) {
        case WIFI_SECURITY_NONE:
            ap_info->password.clear();
            ap_info->ascii_key = true;
            return true;
        case WIFI_SECURITY_WEP:
            wpacm_take_key(ini.GetValue("", "wep_key0", ""), ap_info);
            return true;
        case WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES:
        case WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES:
            return false;
        default:
            wpacm_take_key(ini.GetValue("", "psk", ""), ap_info);
            return true;
    }
}

std::vector<wifi_ap_info> wpacm_read_wpa_config_profiles(const std::string& text) {
    std::vector<wifi_ap_info> profiles;
    CSimpleIniA ini;
    for (const wpacm_config_block& block : wpacm_network_blocks(text)) {
        wifi_ap_info ap_info;
        if (wpacm_profile_from_block(ini, block, &ap_info)) {
            profiles.push_back(ap_info);
        }
    }
    return profiles;
}

std::string wpacm_wps_pin_from_value(uint32_t value) {
    unsigned pin = value % WPACM_PIN_DIGITS;
    unsigned sum = 0;
    unsigned rest = pin;
    for (int digit = 0; digit < 7; digit++) {
        sum += (digit % 2 == 0 ? 3 : 1) * (rest % 10);
        rest /= 10;
    }
    unsigned check = (10 - sum % 10) % 10;
    char text[16];
    snprintf(text, sizeof(text), "%08u", pin * 10 + check);
    return text;
}

std::string wpacm_get_wps_pin(void* monitor_data) {
    (void)monitor_data;
    uint32_t value = 0;
    FILE* fp = fopen(WIFIM_URANDOM_FILE, "rbe");
    if (fp != nullptr) {
        if (fread(&value, sizeof(value), 1, fp) != 1) {
            value = 0;
        }
        fclose(fp);
    }
    if (value == 0) {
        value = static_cast<uint32_t>(rand());
    }
    return wpacm_wps_pin_from_value(value);
}
