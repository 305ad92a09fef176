// The network block that a connect job configures into wpa_supplicant, and
// the removal of every network it holds.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wpa_ctrl.h>

#include "wpacm_internal.h"

#define WPACM_COMMAND_SIZE 512
#define WPACM_REMOVE_COMMAND_SIZE 128
#define WPACM_REMOVE_ATTEMPTS 5
#define WPACM_LIST_NETWORKS_HEADER "network id / ssid / bssid / flags"

// wpa_supplicant answers GET_NETWORK with the value as it stores it, quoted
// for strings; compare without line ends, trailing blanks and quotes.
static std::string wpacm_current_value(const char* reply) {
    std::string value;
    for (const char* p = reply; *p != '\0'; p++) {
        if (*p != '\n') {
            value += *p;
        }
    }
    size_t end = value.find_last_not_of(' ');
    value = (end == std::string::npos) ? std::string() : value.substr(0, end + 1);
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
        value = value.substr(1, value.size() - 2);
    } else if (value == "\"") {
        value.clear();
    }
    return value;
}

bool wpacm_set_network_value(struct wpa_ctrl* ctrl, int network_id, const char* key,
                             const char* value, bool quote_falg) {
    if (ctrl == nullptr || key == nullptr || value == nullptr || network_id < 0) {
        return false;
    }
    char command[WPACM_COMMAND_SIZE];
    snprintf(command, sizeof(command), "GET_NETWORK %d %s", network_id, key);
    char reply[WPACM_REPLY_SIZE + 1];
    memset(reply, 0, sizeof(reply));
    size_t reply_len = WPACM_REPLY_SIZE;
    std::string current;
    if (wpa_ctrl_request(ctrl, command, strlen(command), reply, &reply_len, nullptr) == 0) {
        current = wpacm_current_value(reply);
    }
    if (current == value) {
        return true;
    }
    const char* quote = quote_falg ? "\"" : "";
    snprintf(command, sizeof(command), "SET_NETWORK %d %s %s%s%s", network_id, key, quote, value,
             quote);
    if (!wpacm_send_wpa_request(ctrl, command)) {
        WPACM_LOG(LOG_Error, "update network id:%d, key: %s fail", network_id, key);
        return false;
    }
    return true;
}

// Sends one whole command of the network block; format takes the id only.
static bool wpacm_send_block_command(struct wpa_ctrl* ctrl, const char* format, int network_id) {
    char command[WPACM_COMMAND_SIZE];
    snprintf(command, sizeof(command), format, network_id);
    return wpacm_send_wpa_request(ctrl, command);
}

// Sets a key variable (psk, wep_key0) in one command, the key in the quotes
// its form needs.
static bool wpacm_send_block_key(struct wpa_ctrl* ctrl, int network_id, const char* variable,
                                 const char* quote, const char* key) {
    char command[WPACM_COMMAND_SIZE];
    snprintf(command, sizeof(command), "SET_NETWORK %d %s %s%s%s", network_id, variable, quote, key,
             quote);
    return wpacm_send_wpa_request(ctrl, command);
}

// A PSK is quoted as a passphrase unless it is a 64-digit hex key or the
// user said it is hexadecimal.
static const char* wpacm_psk_quote(const wifi_ap_info& ap_info) {
    return (ap_info.ascii_key && ap_info.password.size() != 64) ? "\"" : "";
}

// WEP keys are quoted exactly at the text lengths of 40- and 104-bit keys.
static const char* wpacm_wep_quote(const wifi_ap_info& ap_info) {
    size_t len = ap_info.password.size();
    return (len == 5 || len == 13) ? "\"" : "";
}

#define WPACM_BLOCK_FAIL(what)                                                          \
    do {                                                                                \
        WPACM_LOG_AS(wpacm_update_wpa_network_setting, LOG_Error,                       \
                     "update network id:%d, ssid:%s, " what, id, ap_info.ssid.c_str()); \
        return false;                                                                   \
    } while (0)

static bool wpacm_write_keys(struct wpa_ctrl* ctrl, int id, const wifi_ap_info& ap_info) {
    const char* key = ap_info.password.c_str();
    if (ap_info.security != WIFI_SECURITY_NONE && ap_info.security != WIFI_SECURITY_WEP) {
        if (!wpacm_send_block_key(ctrl, id, "psk", wpacm_psk_quote(ap_info), key)) {
            WPACM_BLOCK_FAIL("set psk fail");
        }
        return true;
    }
    if (!wpacm_send_block_command(ctrl, "SET_NETWORK %d auth_alg OPEN", id)) {
        WPACM_BLOCK_FAIL("auth_alg OPEN fail");
    }
    if (!wpacm_send_block_command(ctrl, "SET_NETWORK %d key_mgmt NONE", id)) {
        WPACM_BLOCK_FAIL("key_mgmt NONE fail");
    }
    if (!wpacm_send_block_command(ctrl, "SET_NETWORK %d mode 0", id)) {
        WPACM_BLOCK_FAIL("mode 0 fail");
    }
    if (ap_info.security == WIFI_SECURITY_WEP) {
        if (!wpacm_send_block_key(ctrl, id, "wep_key0", wpacm_wep_quote(ap_info), key)) {
            WPACM_BLOCK_FAIL("set wep_key0 fail");
        }
        if (!wpacm_send_block_command(ctrl, "SET_NETWORK %d wep_tx_keyidx 0", id)) {
            WPACM_BLOCK_FAIL("set wep_tx_keyidx fail");
        }
    }
    return true;
}

// The block is written disabled; the connect procedure enables it. Pairwise
// and group ciphers are written only for rows without a cipher list (with
// the empty value), and the priority sent is always 1: the device has always
// configured networks this way.
bool wpacm_update_wpa_network_setting(struct wpa_ctrl* ctrl, wifi_ap_info& ap_info) {
    int id = ap_info.network_id;
    if (ctrl == nullptr || id < 0) {
        return false;
    }
    const wpa_cli_security* row = wpacm_find_wpa_security(ap_info.security);
    if (row == nullptr) {
        return false;
    }
    if (ap_info.priority < 0) {
        ap_info.priority = 0;
    }
    if (!wpacm_send_block_command(ctrl, "DISABLE_NETWORK %d", id)) {
        WPACM_BLOCK_FAIL("disable network fail");
    }
    // A name that is not plain ASCII goes in hexadecimal, which
    // wpa_supplicant takes byte for byte.
    bool quoted = true;
    std::string ssid_value = wpacm_ssid_network_value(ap_info.ssid, &quoted);
    if (!wpacm_set_network_value(ctrl, id, "ssid", ssid_value.c_str(), quoted)) {
        WPACM_BLOCK_FAIL("set ssid fail");
    }
    if (!wpacm_set_network_value(ctrl, id, "key_mgmt", row->security_str.c_str(), false)) {
        WPACM_BLOCK_FAIL("set key_mgmt fail");
    }
    if (!row->protocol_str.empty() &&
        !wpacm_set_network_value(ctrl, id, "proto", row->protocol_str.c_str(), false)) {
        WPACM_BLOCK_FAIL("set proto fail");
    }
    if (row->pairwise_str.empty()) {
        if (!wpacm_set_network_value(ctrl, id, "pairwise", row->pairwise_str.c_str(), false)) {
            WPACM_BLOCK_FAIL("set pairwise fail");
        }
        if (!wpacm_set_network_value(ctrl, id, "group", row->pairwise_str.c_str(), false)) {
            WPACM_BLOCK_FAIL("set group fail");
        }
    }
    char command[WPACM_COMMAND_SIZE];
    snprintf(command, sizeof(command), "SET_NETWORK %d priority %d", id, 1);
    if (!wpacm_send_wpa_request(ctrl, command)) {
        WPACM_BLOCK_FAIL("set priority fail");
    }
    if (!wpacm_write_keys(ctrl, id, ap_info)) {
        return false;
    }
    if (!wpacm_send_block_command(ctrl, "DISABLE_NETWORK %d", id)) {
        WPACM_BLOCK_FAIL("disable network fail");
    }
    return true;
}

// Network ids of a LIST_NETWORKS reply (header already checked).
std::vector<int> wpacm_parse_network_ids(const char* reply) {
    std::vector<int> ids;
    const char* line = strchr(reply, '\n');
    while (line != nullptr && *line != '\0') {
        line++;
        const char* end = strchr(line, '\n');
        std::string text = end == nullptr ? std::string(line) : std::string(line, end);
        line = end;
        if (text.empty()) {
            continue;
        }
        text = wpacm_replace_string(text, "\t", " ");
        size_t start = 0;
        size_t position = 0;
        std::string token;
        if (!wpacm_cut_string(text, ' ', start, position, token) || token.empty()) {
            continue;
        }
        long id = strtol(token.c_str(), nullptr, 10);
        if (id >= 0) {
            ids.push_back(static_cast<int>(id));
        }
    }
    return ids;
}

// Keeps asking until wpa_supplicant lists its networks: only the
// supervisor's watchdog bounds a wpa_supplicant that never does.
bool wpacm_clear_all_wpa_network_setting(struct wpa_ctrl* ctrl) {
    char reply[WPACM_REPLY_SIZE + 1];
    while (true) {
        memset(reply, 0, sizeof(reply));
        size_t reply_len = WPACM_REPLY_SIZE;
        int ret = wpa_ctrl_request(ctrl, "LIST_NETWORKS", 13, reply, &reply_len, nullptr);
        if (ret != 0) {
            WPACM_LOG(LOG_Error, "send LIST_NETWORKS command fail, ret=%d", ret);
            return false;
        }
        WPACM_LOG(LOG_Debug, "list network, count:%d, data:%s", static_cast<int>(reply_len), reply);
        if (strncmp(reply, WPACM_LIST_NETWORKS_HEADER, strlen(WPACM_LIST_NETWORKS_HEADER)) == 0) {
            break;
        }
    }
    for (int id : wpacm_parse_network_ids(reply)) {
        char command[WPACM_REMOVE_COMMAND_SIZE];
        snprintf(command, sizeof(command), "REMOVE_NETWORK %d", id);
        for (int attempt = 0; attempt < WPACM_REMOVE_ATTEMPTS; attempt++) {
            if (wpacm_send_wpa_request(ctrl, command)) {
                break;
            }
        }
    }
    return true;
}
