// Requests that change the station's connection or its registered networks.
#include <strings.h>

#include "service_funs.h"
#include "wpacli_monitor/wpacli_monitor.h"

#define SERVICE_WEP_KEY_LENGTHS_OK(n) ((n) == 5 || (n) == 10 || (n) == 13 || (n) == 26)

// Security names accepted in requests. Returns false for a name outside
// the table.
static bool service_request_security(const std::string& name, WiFi_Security* security) {
    const char* text = name.c_str();
    if (strcasecmp(text, "none") == 0 || strcasecmp(text, "open") == 0) {
        *security = WIFI_SECURITY_NONE;
        return true;
    }
    if (strcasecmp(text, "wep") == 0) {
        *security = WIFI_SECURITY_WEP;
        return true;
    }
    if (strcasecmp(text, "wpa") == 0 || strcasecmp(text, "wpa2") == 0 ||
        strcasecmp(text, "anywpa") == 0 || strcasecmp(text, "mixed") == 0) {
        *security = WIFI_SECURITY_ANY_WPA;
        return true;
    }
    return false;
}

// Passphrases of 8..64 characters, and every other length except short or
// overlong even ones, are let through: web pages of the field send keys
// of odd lengths that wpa_supplicant then judges itself.
static bool service_wpa_key_length_ok(size_t n) {
    if (n >= 8 && n <= 64) {
        return true;
    }
    if (n % 2 == 1) {
        return true;
    }
    return n >= 16 && n <= 126;
}

// The answer every connection command writes.
static void service_command_answer(service_stream& response_stream, const char* root, int result,
                                   int enable) {
    service_begin_answer(response_stream, root, result);
    service_write_element(response_stream, "enable", std::to_string(enable));
    service_end_answer(response_stream, root);
}

// Connects and, after a success, records the profile first in priority. A
// failed attempt records nothing: a mistyped key must not replace the key
// of the network the camera lives on, nor keep the automatic connection
// away from it.
static int service_connect_and_record(void* monitor_data, wifi_ap_info* record) {
    int result = service_connect_result(wpacm_connect_to_ap(monitor_data, record));
    if (result == API_SUCCESS) {
        record->priority = 1;
        wpacm_update_wifi_profile(monitor_data, record, true);
    }
    return result;
}

static int service_connect_request(CSimpleIniA& receive_data, void* monitor_data) {
    std::string ssid = receive_data.GetValue("", "ssid", "");
    std::string password = receive_data.GetValue("", "password", "");
    std::string security = receive_data.GetValue("", "security", "");
    long ascii_key = receive_data.GetLongValue("", "ascii_key", 1);
    if (ssid.empty() || security.empty()) {
        return API_INPUTERR;
    }
    wifi_ap_info record;
    clear_wifi_ap_info(&record);
    record.ascii_key = (ascii_key != 0);
    record.ssid = ssid;
    record.password = password;
    // A name outside the table is tried with the cleared security kind.
    if (service_request_security(security, &record.security)) {
        if (record.security == WIFI_SECURITY_WEP && !SERVICE_WEP_KEY_LENGTHS_OK(password.size())) {
            return API_INPUTERR;
        }
        if (record.security == WIFI_SECURITY_ANY_WPA &&
            !service_wpa_key_length_ok(password.size())) {
            return API_INPUTERR;
        }
    }
    return service_connect_and_record(monitor_data, &record);
}

void service_connect_ap(CSimpleIniA& receive_data, service_stream& response_stream,
                        void* monitor_data) {
    int enable = wpacm_get_enable(monitor_data) ? 1 : 0;
    int result = enable ? service_connect_request(receive_data, monitor_data) : API_SUCCESS;
    service_command_answer(response_stream, "wifista_connecte", result, enable);
}

static int service_reconnect_request(CSimpleIniA& receive_data, void* monitor_data) {
    std::string ssid = receive_data.GetValue("", "ssid", "");
    if (ssid.empty()) {
        return API_INPUTERR;
    }
    std::vector<wifi_ap_info> profiles;
    wpacm_get_register_profile(monitor_data, profiles);
    for (wifi_ap_info& profile : profiles) {
        if (profile.ssid == ssid) {
            wifi_ap_info record;
            copy_wifi_ap_info(&record, &profile);
            return service_connect_and_record(monitor_data, &record);
        }
    }
    return API_SSID_NOT_EXIST;
}

void service_reconnect_ap(CSimpleIniA& receive_data, service_stream& response_stream,
                          void* monitor_data) {
    int enable = wpacm_get_enable(monitor_data) ? 1 : 0;
    int result = enable ? service_reconnect_request(receive_data, monitor_data) : API_SUCCESS;
    service_command_answer(response_stream, "wifista_reconnecte", result, enable);
}

static int service_disconnect_request(void* monitor_data) {
    std::string ssid;
    std::string bssid;
    wpacm_get_connected_ssid(monitor_data, ssid, bssid);
    if (ssid.empty()) {
        return API_NOT_ANY_CONNECTION;
    }
    return wpacm_disconnect(monitor_data) ? API_SUCCESS : API_FAIL;
}

// Answers under the reconnect root, as the device's pages expect.
void service_disconnect(CSimpleIniA& receive_data, service_stream& response_stream,
                        void* monitor_data) {
    (void)receive_data;
    int enable = wpacm_get_enable(monitor_data) ? 1 : 0;
    int result = enable ? service_disconnect_request(monitor_data) : API_SUCCESS;
    service_command_answer(response_stream, "wifista_reconnecte", result, enable);
}

static int service_remove_request(CSimpleIniA& receive_data, void* monitor_data) {
    std::string ssid = receive_data.GetValue("", "ssid", "");
    std::string security_name = receive_data.GetValue("", "security", "");
    if (ssid.empty() || security_name.empty()) {
        return API_INPUTERR;
    }
    WiFi_Security security = WIFI_SECURITY_UNKNOWN;
    if (!service_request_security(security_name, &security)) {
        return API_INPUTERR;
    }
    return wpacm_remove_ssid(monitor_data, ssid, security) ? API_SUCCESS : API_FAIL;
}

void service_remove_profile(CSimpleIniA& receive_data, service_stream& response_stream,
                            void* monitor_data) {
    int enable = wpacm_get_enable(monitor_data) ? 1 : 0;
    int result = enable ? service_remove_request(receive_data, monitor_data) : API_SUCCESS;
    service_command_answer(response_stream, "wifista_remove", result, enable);
}

// Acts whether or not the station is enabled; any value other than 1 (and
// the missing key's -1) switches the station off.
void service_set_enable(CSimpleIniA& receive_data, service_stream& response_stream,
                        void* monitor_data) {
    long value = receive_data.GetLongValue("", "enable", -1);
    if (value != -1) {
        wpacm_set_enable(monitor_data, value == 1);
    }
    int enable = wpacm_get_enable(monitor_data) ? 1 : 0;
    service_command_answer(response_stream, "wifista_enable", API_SUCCESS, enable);
}
