// Station controller: everything that speaks to wpa_supplicant. This is what
// the rest of the worker sees of it. The worker's main thread starts it, runs
// its service loop until the worker is to stop, and closes it. The request
// services call its operations on their own threads: work on wpa_supplicant
// is posted as a job for the service loop and waited for, the registered
// profiles and the scan list are read from copies under their mutexes.
// Everything else (job queue, loop state, parsers, timing) is the
// controller's own, in wpacm_internal.h.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "wifi_ap_info/wifi_ap_info.h"
#include "wifi_manager/wifi_manager.h"

// What a job or a connect or WPS run came to; the request services turn it
// into the result of their answer. "UNKNOW" is the device's own spelling.
enum WiFi_Connection_Status : int32_t {
    WIFI_CONNECT_STATUS_UNKNOW = 0,
    WIFI_CONNECT_STATUS_EXPIRE = 1,
    WIFI_CONNECT_STATUS_COMMAND_FAIL = 2,
    WIFI_CONNECT_STATUS_SCANNED = 3,
    WIFI_CONNECT_STATUS_CONNECTING = 4,
    WIFI_CONNECT_STATUS_CONNECTED = 5,
    WIFI_CONNECT_STATUS_DENIAL_BY_IP = 6,
    WIFI_CONNECT_STATUS_ASSOC_REJECT = 7,
    WIFI_CONNECT_STATUS_DISCONNECTED = 8,
    WIFI_CONNECT_STATUS_WPS_START = 9,
    WIFI_CONNECT_STATUS_WPS_OVERLAP = 10,
    WIFI_CONNECT_STATUS_WPS_SUCCESS = 11,
    WIFI_CONNECT_STATUS_WPS_FAIL = 12,
    WIFI_CONNECT_STATUS_WPS_TIMEOUT = 13,
    WIFI_CONNECT_STATUS_FAIL = 14,
    WIFI_CONNECT_STATUS_ABORT = 15,
    WIFI_CONNECT_STATUS_SUCCESS = 16,
};

// ---------------------------------------------------------------------------
// The worker's main thread

// Null when wpa_supplicant's configuration file does not exist.
void* wpacm_init(const std::string& wpa_supplicant_config_file, const std::string& wlan_interface,
                 int max_bound_wifiap_info);
// Returns when the worker is to stop (or at once for a null controller).
void wpacm_service(void* monitor_data);
// Writes the profiles back and frees the controller.
void wpacm_close(void* monitor_data);

// ---------------------------------------------------------------------------
// Operations of the request services. Every one accepts a null controller
// and then does nothing, returning false, 0 or an empty value.

bool wpacm_get_enable(void* monitor_data);
std::string wpacm_get_wlan_interface(void* monitor_data);
// Switching the station off drops the pending jobs and disconnects it.
void wpacm_set_enable(void* monitor_data, bool enable);
// Blocks until the service loop has run the job, or its time-out has passed.
int wpacm_connect_to_ap(void* monitor_data, wifi_ap_info* ap_info_data);
bool wpacm_get_connected_ssid(void* monitor_data, std::string& ssid, std::string& bssid);
bool wpacm_disconnect(void* monitor_data);
// An empty PIN is a push-button run; the profile learnt comes back in
// ap_info_data.
int wpacm_wps(void* monitor_data, const std::string& pin_data, wifi_ap_info* ap_info_data);
std::string wpacm_get_wps_pin(void* monitor_data);
// Also disconnects when the SSID is the connected one; does not wait.
bool wpacm_remove_ssid(void* monitor_data, const std::string& ssid, WiFi_Security security);
// The registered profiles, in priority order.
void wpacm_get_register_profile(void* monitor_data,
                                std::vector<wifi_ap_info>& registed_ap_info_vector);
// Records a profile after a connect or WPS run: updates the profiles of its
// network, or appends it when append_flag is set; then saves the list.
void wpacm_update_wifi_profile(void* monitor_data, wifi_ap_info* ap_info_data, bool append_flag);
// The access points in range, in the scan list's order; asks for a scan.
bool wpacm_get_wifi_ap_list(void* monitor_data, std::vector<wifi_ap_info>& ap_info_vector);

// ---------------------------------------------------------------------------
// Helpers the request services share with the controller

// WPA kinds match each other, WPA2 kinds each other, "any WPA" both.
bool wpacm_is_same_security(WiFi_Security a, WiFi_Security b);
// Every occurrence of `from` replaced; the search resumes one character past
// the replaced text as it stood, as the device's readers have always done.
std::string wpacm_replace_string(const std::string& text, const std::string& from,
                                 const std::string& to);
// Two records of one network: the same SSID and matching security kinds.
bool wpacm_is_same_network(const wifi_ap_info& a, const wifi_ap_info& b);
// Records of the profile's network in the list take its key and priority:
// the first such record only, or every one. Returns the first, or null when
// the list holds none.
wifi_ap_info* wpacm_take_profile(std::vector<wifi_ap_info>& list, const wifi_ap_info& profile,
                                 bool every_record);

// ---------------------------------------------------------------------------
// The controller's log lines: log readers find each by the function named in
// it.

#define WPACM_LOG_SOURCE "wpacli_monitor.cpp"
#define WPACM_LOG(level, fmt, ...) \
    WIFIM_LOG_AT(level, WPACM_LOG_SOURCE, __func__, fmt, ##__VA_ARGS__)
