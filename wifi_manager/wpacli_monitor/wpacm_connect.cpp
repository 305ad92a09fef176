// The connect procedure: wipe wpa_supplicant's networks, configure one for
// the job's profile, and wait for the association's outcome.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <wpa_ctrl.h>

#include "../fixed_paths.h"
#include "wpacm_internal.h"

#define WPACM_ENABLE_COMMAND_SIZE 256

// The BSSID under which the network is in range, for the log only.
static std::string wpacm_find_bssid(wpacli_monitor_data* data, const wifi_ap_info& ap_info) {
    std::string bssid;
    if (pthread_mutex_lock(&data->scan_result.scan_result_mutex) != 0) {
        return bssid;
    }
    for (const auto& item : data->scan_result.scan_result_list) {
        const wifi_ap_info& seen = item.second.ap_info;
        if (seen.ssid == ap_info.ssid && wpacm_is_same_security(ap_info.security, seen.security)) {
            bssid = seen.bssid;
            break;
        }
    }
    pthread_mutex_unlock(&data->scan_result.scan_result_mutex);
    return bssid;
}

bool wpacm_job_preempted(wpacli_monitor_data* data, const wpacm_job_data_struct* job) {
    // The reset count only grows, and running_reset_count is the loop's own.
    if (data->request.reset_count != data->request.running_reset_count) {
        return true;
    }
    return !job->high_priority && data->request.heigh_priority_request;
}

void wpacm_ping_if_due(wpacli_monitor_data* data) {
    if (wpacm_clock_s() >= data->next_touch_watch_dog) {
        wpacm_touch_watchdog(data, WPACM_WATCHDOG_NORMAL_S);
    }
}

WiFi_Connection_Status wpacm_wait_job_outcome(wpacli_monitor_data* data, wpacm_job_data_struct* job,
                                              struct wpa_ctrl* event_ctrl,
                                              bool (*ends)(WiFi_Connection_Status)) {
    WiFi_Connection_Status result = WIFI_CONNECT_STATUS_UNKNOW;
    while (true) {
        if (g_program_exist || data->stop_service || job->request_timeout_ms < wpacm_clock_ms() ||
            wpacm_job_preempted(data, job)) {
            return result == WIFI_CONNECT_STATUS_UNKNOW ? WIFI_CONNECT_STATUS_EXPIRE : result;
        }
        wpacm_ping_if_due(data);
        WiFi_Connection_Status event = wpacm_receive_wpa_supplicant_event(data, event_ctrl);
        if (event != WIFI_CONNECT_STATUS_UNKNOW) {
            result = event;
        }
        if (ends(result)) {
            return result;
        }
    }
}

// Only a completed connection (or one denied an address) ends the wait
// early; a rejection lets it run on until the deadline.
static bool wpacm_connect_outcome(WiFi_Connection_Status status) {
    return status == WIFI_CONNECT_STATUS_CONNECTED || status == WIFI_CONNECT_STATUS_DENIAL_BY_IP;
}

// Adds a fresh network; returns its id or -1.
static int wpacm_add_network(struct wpa_ctrl* ctrl, int* ret) {
    char reply[WPACM_REPLY_SIZE + 1];
    memset(reply, 0, sizeof(reply));
    size_t reply_len = WPACM_REPLY_SIZE;
    *ret = wpa_ctrl_request(ctrl, "ADD_NETWORK", strlen("ADD_NETWORK"), reply, &reply_len, nullptr);
    if (*ret != 0) {
        return -1;
    }
    return static_cast<int>(strtol(reply, nullptr, 10));
}

static WiFi_Connection_Status wpacm_connect_failed(struct wpa_ctrl* ctrl,
                                                   WiFi_Connection_Status result) {
    wpacm_clear_all_wpa_network_setting(ctrl);
    WPACM_LOG_AS(wpacm_connect_ap_private, LOG_Info, "connect %s, connect result:%d", "fail",
                 result);
    return result;
}

int wpacm_connect_ap_private(void* monitor_data, wpacm_job_data_struct* job_data,
                             struct wpa_ctrl* wpa_command_ctrl, struct wpa_ctrl* wpa_event_ctrl) {
    wpacli_monitor_data* data = static_cast<wpacli_monitor_data*>(monitor_data);
    wifi_ap_info& ap_info = job_data->ap_info;
    ap_info.bssid = "";
    ap_info.bssid = wpacm_find_bssid(data, ap_info);

    wpacm_touch_watchdog(data, WPACM_WATCHDOG_NORMAL_S);
    unlink(WIFIM_CONNECTED_MARKER_FILE);
    wpacm_send_wpa_request(wpa_command_ctrl, "DISCONNECT");
    usleep(WPACM_DISCONNECT_PAUSE_US);
    wpacm_touch_watchdog(data, WPACM_WATCHDOG_NORMAL_S);
    wpacm_clear_all_wpa_network_setting(wpa_command_ctrl);

    int ret = 0;
    int network_id = wpacm_add_network(wpa_command_ctrl, &ret);
    if (ret != 0) {
        WPACM_LOG(LOG_Error, "add network id fail, ret:%d", ret);
        return WIFI_CONNECT_STATUS_FAIL;
    }
    ap_info.network_id = network_id;
    WPACM_LOG(LOG_Debug, "add network id:%d for connect to SSID:%s, BSSID:%s", network_id,
              ap_info.ssid.c_str(), ap_info.bssid.c_str());
    wpacm_touch_watchdog(data, WPACM_WATCHDOG_NORMAL_S);

    if (!wpacm_update_wpa_network_setting(wpa_command_ctrl, ap_info)) {
        WPACM_LOG(LOG_Error, "Can't update network id:%d,ssid:%s", network_id,
                  ap_info.ssid.c_str());
        wpacm_clear_all_wpa_network_setting(wpa_command_ctrl);
        return WIFI_CONNECT_STATUS_FAIL;
    }
    wpacm_touch_watchdog(data, WPACM_WATCHDOG_SHORT_S);
    wpacm_clear_all_event(wpa_event_ctrl);
    wpacm_touch_watchdog(data, WPACM_WATCHDOG_NORMAL_S);

    char command[WPACM_ENABLE_COMMAND_SIZE];
    snprintf(command, sizeof(command), "ENABLE_NETWORK %d", network_id);
    if (!wpacm_send_wpa_request(wpa_command_ctrl, command)) {
        WPACM_LOG(LOG_Error, "Can't enable network id:%d, ssid:%s", network_id,
                  ap_info.ssid.c_str());
        wpacm_clear_all_wpa_network_setting(wpa_command_ctrl);
        return WIFI_CONNECT_STATUS_FAIL;
    }
    wpacm_touch_watchdog(data, WPACM_WATCHDOG_NORMAL_S);
    wpacm_send_wpa_request(wpa_command_ctrl, "RECONNECT");

    WiFi_Connection_Status result =
        wpacm_wait_job_outcome(data, job_data, wpa_event_ctrl, wpacm_connect_outcome);

    wpa_supplicant_status status;
    wpacm_status_after_run(data, wpa_command_ctrl, &status);
    if (result != WIFI_CONNECT_STATUS_CONNECTED) {
        return wpacm_connect_failed(wpa_command_ctrl, result);
    }
    if (status.wpa_state == "COMPLETED" || status.wpa_state.empty()) {
        touch_file(WIFIM_CONNECTED_MARKER_FILE);
        WPACM_LOG(LOG_Info, "connect %s, connect result:%d", "success", result);
        return result;
    }
    WPACM_LOG(LOG_Info,
              "already connected, but status of wpa_supplicant is not match, status: %d / %s",
              result, status.wpa_state.c_str());
    return wpacm_connect_failed(wpa_command_ctrl, WIFI_CONNECT_STATUS_FAIL);
}
