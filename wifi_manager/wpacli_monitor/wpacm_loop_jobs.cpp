// The scan and disconnect jobs of the service loop.
#include <unistd.h>
#include <wpa_ctrl.h>

#include "../fixed_paths.h"
#include "wpacm_internal.h"

// Reads events until one returns the wanted status; false when the wait
// was cut short (shutdown, deadline, or a high-priority job waiting).
static bool wpacm_wait_for_event(wpacm_loop_state* loop, wpacm_job_data_struct* job,
                                 WiFi_Connection_Status wanted) {
    wpacli_monitor_data* data = loop->data;
    while (true) {
        if (g_program_exist || data->stop_service || wpacm_clock_ms() > job->request_timeout_ms ||
            wpacm_job_preempted(data, job)) {
            return false;
        }
        wpacm_ping_if_due(data);
        if (wpacm_receive_wpa_supplicant_event(data, loop->event_ctrl) == wanted) {
            return true;
        }
    }
}

// After each scan: scan again soon while scan requests last, then slowly.
static void wpacm_schedule_next_scan(wpacli_monitor_data* data) {
    int64_t now = wpacm_clock_ms();
    if (data->continue_scan_request < 1) {
        data->next_scan_clock = now + WPACM_SLOW_SCAN_INTERVAL_MS;
    } else {
        data->next_scan_clock = now + WPACM_SCAN_INTERVAL_MS;
        data->continue_scan_request = data->continue_scan_request - 1;
    }
}

WiFi_Connection_Status wpacm_run_scan_job(wpacm_loop_state* loop, wpacm_job_data_struct* job,
                                          bool* keep_connection) {
    wpacli_monitor_data* data = loop->data;
    wpacm_touch_watchdog(data, WPACM_WATCHDOG_NORMAL_S);
    if (!wpacm_send_wpa_request(loop->command_ctrl, "SCAN")) {
        WPACM_LOG_AS(wpacm_service, LOG_Info, "send SCAN command fail, scan late, priority:%s",
                     wpacm_priority_word(job->high_priority));
        data->next_scan_clock = wpacm_clock_ms() + WPACM_SCAN_RETRY_MS;
        // The scan is tried again later on the same connection.
        *keep_connection = true;
        return WIFI_CONNECT_STATUS_COMMAND_FAIL;
    }
    if (!wpacm_wait_for_event(loop, job, WIFI_CONNECT_STATUS_SCANNED)) {
        wpacm_touch_watchdog(data, WPACM_WATCHDOG_NORMAL_S);
        return WIFI_CONNECT_STATUS_EXPIRE;
    }
    wpacm_update_scan_result(data, loop->command_ctrl);
    wpacm_schedule_next_scan(data);
    wpacm_touch_watchdog(data, WPACM_WATCHDOG_NORMAL_S);
    wpacm_get_last_status(data, &loop->last_status);
    int64_t now = wpacm_clock_ms();
    if (loop->last_status.wpa_state != "COMPLETED") {
        if (data->next_connect_clock != 0 && now >= data->next_connect_clock &&
            loop->force_scan_count == 0) {
            wpacm_auto_connect(loop);
        }
    } else {
        // Connected: scanning stops once the requested scans are done.
        if (data->continue_scan_request < 1) {
            data->next_scan_clock = 0;
        }
        data->next_connect_clock = 0;
        clear_wifi_ap_info(&loop->candidate);
    }
    WPACM_LOG_AS(
        wpacm_service, LOG_Debug,
        "Scan success, force_scan_count:%d, next scan clock:%lld, next connect clock:%lld, "
        "now:%lld, scan request count:%d",
        loop->force_scan_count, static_cast<long long>(wpacm_wall_ms(data->next_scan_clock)),
        static_cast<long long>(wpacm_wall_ms(data->next_connect_clock)),
        static_cast<long long>(get_now_time_ms()), data->continue_scan_request.load());
    wpacm_touch_watchdog(data, WPACM_WATCHDOG_NORMAL_S);
    return WIFI_CONNECT_STATUS_SUCCESS;
}

// The result is posted as soon as the link is down; the clean-up that
// follows does not hold the caller up.
void wpacm_run_disconnect_job(wpacm_loop_state* loop, wpacm_job_data_struct* job) {
    wpacli_monitor_data* data = loop->data;
    WiFi_Connection_Status result = WIFI_CONNECT_STATUS_SUCCESS;
    wpacm_touch_watchdog(data, WPACM_WATCHDOG_NORMAL_S);
    if (!loop->last_status.ssid.empty() && loop->last_status.wpa_state == "COMPLETED") {
        if (!wpacm_send_wpa_request(loop->command_ctrl, "DISCONNECT")) {
            WPACM_LOG_AS(wpacm_service, LOG_Error, "Discinnect fail!!");
        }
        if (wpacm_wait_for_event(loop, job, WIFI_CONNECT_STATUS_DISCONNECTED)) {
            wpacm_schedule_scan_and_connect(data,
                                            wpacm_clock_ms() + WPACM_RESCHEDULE_AFTER_DROP_MS);
        } else {
            result = WIFI_CONNECT_STATUS_FAIL;
        }
        loop->last_bssid.clear();
    }
    wpacm_update_job_result(data, job, result);
    wpacm_touch_watchdog(data, WPACM_WATCHDOG_NORMAL_S);
    wpacm_update_status(loop->command_ctrl, data);
    wpacm_clear_all_wpa_network_setting(loop->command_ctrl);
    wpacm_touch_watchdog(data, WPACM_WATCHDOG_NORMAL_S);
    wpacm_clear_all_event(loop->event_ctrl);
    wpacm_touch_watchdog(data, WPACM_WATCHDOG_NORMAL_S);
    unlink(WIFIM_CONNECTED_MARKER_FILE);
    wpacm_schedule_scan_and_connect(data, wpacm_clock_ms() + WPACM_RESCHEDULE_AFTER_DROP_MS);
    loop->no_profile_count = 0;
}
