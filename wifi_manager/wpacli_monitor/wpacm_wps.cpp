// The WPS procedure: join by push button or PIN, then read the network that
// WPS obtained back from wpa_supplicant's configuration file as a profile.
#include <string.h>
#include <unistd.h>
#include <wpa_ctrl.h>

#include "../fixed_paths.h"
#include "wpacm_internal.h"

// Start from nothing: no network configured or saved.
static void wpacm_prepare_wps(wpacli_monitor_data* data, struct wpa_ctrl* ctrl) {
    wpacm_touch_watchdog(data, WPACM_WATCHDOG_NORMAL_S);
    wpacm_send_wpa_request(ctrl, "DISCONNECT");
    wpacm_touch_watchdog(data, WPACM_WATCHDOG_NORMAL_S);
    wpacm_clear_all_wpa_network_setting(ctrl);
    wpacm_send_wpa_request(ctrl, "SAVE_CONFIG");
    wpacm_touch_watchdog(data, WPACM_WATCHDOG_NORMAL_S);
    wpacm_send_wpa_request(ctrl, "RECONNECT");
}

// Only a WPS outcome (or an overlap) ends the wait; a plain connection
// does not.
static bool wpacm_wps_outcome(WiFi_Connection_Status status) {
    return status == WIFI_CONNECT_STATUS_DENIAL_BY_IP ||
           status == WIFI_CONNECT_STATUS_WPS_SUCCESS || status == WIFI_CONNECT_STATUS_WPS_FAIL ||
           status == WIFI_CONNECT_STATUS_WPS_TIMEOUT || status == WIFI_CONNECT_STATUS_WPS_OVERLAP;
}

static std::vector<wifi_ap_info> wpacm_read_saved_profiles(const std::string& config_file) {
    if (!wifim_file_exist(config_file.c_str())) {
        return {};
    }
    std::string text;
    if (!wifim_read_text_file(config_file.c_str(), &text)) {
        return {};
    }
    return wpacm_read_wpa_config_profiles(text);
}

int wpacm_wps_private(void* monitor_data, wpacm_job_data_struct* job_data,
                      struct wpa_ctrl* wpa_command_ctrl, struct wpa_ctrl* wpa_event_ctrl) {
    wpacli_monitor_data* data = static_cast<wpacli_monitor_data*>(monitor_data);
    wpacm_prepare_wps(data, wpa_command_ctrl);

    std::string command = job_data->job_id == JobID_WPS_PBC ? std::string("WPS_PBC any")
                                                            : "WPS_PIN any " + job_data->wps_pin;
    char reply[WPACM_REPLY_SIZE + 1];
    memset(reply, 0, sizeof(reply));
    size_t reply_len = WPACM_REPLY_SIZE;
    int ret = wpa_ctrl_request(wpa_command_ctrl, command.c_str(), command.size(), reply, &reply_len,
                               nullptr);
    if (ret != 0) {
        WPACM_LOG(LOG_Error, "WPS fail, return code:%d, command:%s", ret, command.c_str());
        return WIFI_CONNECT_STATUS_WPS_FAIL;
    }
    unlink(WIFIM_CONNECTED_MARKER_FILE);

    WiFi_Connection_Status result =
        wpacm_wait_job_outcome(data, job_data, wpa_event_ctrl, wpacm_wps_outcome);

    wpa_supplicant_status status;
    wpacm_status_after_run(data, wpa_command_ctrl, &status);
    wpacm_touch_watchdog(data, WPACM_WATCHDOG_NORMAL_S);
    if (result != WIFI_CONNECT_STATUS_WPS_SUCCESS || status.wpa_state != "COMPLETED") {
        WPACM_LOG(LOG_Error,
                  "Connected by WPS success, but can't read profile from config file, status:%d",
                  result);
        wpacm_clear_all_wpa_network_setting(wpa_command_ctrl);
        return result;
    }

    // The success lines are written at the error level so that they survive
    // any filtering of the log on the device.
    wpacm_send_wpa_request(wpa_command_ctrl, "SAVE_CONFIG");
    WPACM_LOG(LOG_Error, "Connected by WPS success, reading config file....");
    std::vector<wifi_ap_info> l_ap_info_vector =
        wpacm_read_saved_profiles(data->wpa_supplicant_config_file);
    WPACM_LOG(LOG_Error, "Connected by WPS success, readed config file....");
    if (l_ap_info_vector.size() == 1) {
        copy_wifi_ap_info(&job_data->ap_info, &l_ap_info_vector[0]);
        WPACM_LOG(LOG_Error, "Connected by WPS success, ssid:%s, security:%d, password:%s",
                  job_data->ap_info.ssid.c_str(), job_data->ap_info.security,
                  job_data->ap_info.password.c_str());
        touch_file(WIFIM_CONNECTED_MARKER_FILE);
        return WIFI_CONNECT_STATUS_SUCCESS;
    }
    WPACM_LOG(LOG_Error, "Connected by WPS success, but can't read profile from config file");
    wpacm_send_wpa_request(wpa_command_ctrl, "DISCONNECT");
    return WIFI_CONNECT_STATUS_FAIL;
}
