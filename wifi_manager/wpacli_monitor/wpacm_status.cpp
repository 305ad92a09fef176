// The STATUS snapshot and the scan list, refreshed by the service loop over
// its command connection and copied by readers under the scan mutex.
#include <string.h>
#include <wpa_ctrl.h>

#include "wpacm_internal.h"

#define WPACM_SCAN_RESULTS_HEADER "bssid / frequency / signal level / flags / ssid"

bool wpacm_update_status(struct wpa_ctrl* ctrl, void* monitor_data) {
    wpacli_monitor_data* data = static_cast<wpacli_monitor_data*>(monitor_data);
    if (ctrl == nullptr || data == nullptr) {
        return false;
    }
    char reply[WPACM_REPLY_SIZE + 1];
    memset(reply, 0, sizeof(reply));
    size_t reply_len = WPACM_REPLY_SIZE;
    // Only the reply's length tells whether wpa_supplicant answered.
    wpa_ctrl_request(ctrl, "STATUS", strlen("STATUS"), reply, &reply_len, nullptr);
    scan_result_data* scan = &data->scan_result;
    if (reply_len == 0) {
        WPACM_LOG(LOG_Warn, "Get status fail");
        if (pthread_mutex_trylock(&scan->scan_result_mutex) == 0) {
            clear_wpa_supplicant_status(&scan->last_status);
            pthread_mutex_unlock(&scan->scan_result_mutex);
        }
        return false;
    }
    wpa_supplicant_status status;
    bool connected = wpacm_parse_status(reply, &status);
    if (!connected && data->next_connect_clock == 0) {
        // A station that lost its link is looked after again soon.
        wpacm_schedule_scan_and_connect(data, wpacm_clock_ms() + WPACM_RESCHEDULE_AFTER_DROP_MS);
    }
    // The service loop never waits for a reader.
    if (pthread_mutex_trylock(&scan->scan_result_mutex) != 0) {
        return false;
    }
    copy_wpa_supplicant_status(&scan->last_status, &status);
    pthread_mutex_unlock(&scan->scan_result_mutex);
    return true;
}

void wpacm_get_last_status(void* monitor_data, wpa_supplicant_status* status) {
    wpacli_monitor_data* data = static_cast<wpacli_monitor_data*>(monitor_data);
    if (data == nullptr || status == nullptr) {
        return;
    }
    if (pthread_mutex_lock(&data->scan_result.scan_result_mutex) != 0) {
        clear_wpa_supplicant_status(status);
        WPACM_FATAL_LOCK_FAILURE();
        return;
    }
    copy_wpa_supplicant_status(status, &data->scan_result.last_status);
    pthread_mutex_unlock(&data->scan_result.scan_result_mutex);
}

void wpacm_status_after_run(wpacli_monitor_data* data, struct wpa_ctrl* ctrl,
                            wpa_supplicant_status* status) {
    wpacm_touch_watchdog(data, WPACM_WATCHDOG_NORMAL_S);
    wpacm_update_status(ctrl, data);
    wpacm_get_last_status(data, status);
}

bool wpacm_update_scan_result(void* monitor_data, struct wpa_ctrl* ctrl) {
    wpacli_monitor_data* data = static_cast<wpacli_monitor_data*>(monitor_data);
    if (data == nullptr || ctrl == nullptr) {
        return false;
    }
    wpacm_update_status(ctrl, data);
    scan_result_data* scan = &data->scan_result;
    if (pthread_mutex_lock(&scan->scan_result_mutex) != 0) {
        WPACM_FATAL_LOCK_FAILURE();
        return false;
    }
    for (auto& item : scan->scan_result_list) {
        item.second.in_scan_result = false;
    }
    char reply[WPACM_REPLY_SIZE];
    memset(reply, 0, sizeof(reply));
    size_t reply_len = WPACM_REPLY_SIZE - 1;
    bool result = false;
    if (wpa_ctrl_request(ctrl, "SCAN_RESULTS", strlen("SCAN_RESULTS"), reply, &reply_len,
                         nullptr) != 0) {
        WPACM_LOG(LOG_Error, "send SCAN_RESULT command fail, ret=%d", static_cast<int>(reply_len));
    } else {
        WPACM_LOG(LOG_Debug, "get SCAN_RESULT, size:%d,data:%s", static_cast<int>(reply_len),
                  reply);
        if (strncmp(reply, WPACM_SCAN_RESULTS_HEADER, strlen(WPACM_SCAN_RESULTS_HEADER)) != 0) {
            // Deliberately returns with the scan mutex still held: a
            // wpa_supplicant that answers garbage wedges the service loop,
            // its pings stop, and the supervisor restarts the worker.
            return false;
        }
        wpacm_merge_scan_results(&scan->scan_result_list, reply, wpacm_clock_ms());
        result = true;
    }
    wpacm_age_scan_list(&scan->scan_result_list, wpacm_clock_ms());
    pthread_mutex_unlock(&scan->scan_result_mutex);
    return result;
}
