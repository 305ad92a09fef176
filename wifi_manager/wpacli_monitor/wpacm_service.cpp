// The service loop: the worker's main thread, and the only code that talks
// to wpa_supplicant. It runs queued jobs, reads events when idle, keeps the
// scan schedule and connects on its own to the best registered network.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>
#include <wpa_ctrl.h>

#include "../fixed_paths.h"
#include "wpacm_internal.h"

// A connection to wpa_supplicant is not passed on to the scripts the worker
// runs, nor to what they leave running.
static struct wpa_ctrl* wpacm_open_ctrl(const char* socket_file) {
    struct wpa_ctrl* ctrl = wpa_ctrl_open(socket_file);
    if (ctrl != nullptr) {
        fcntl(wpa_ctrl_get_fd(ctrl), F_SETFD, FD_CLOEXEC);
    }
    return ctrl;
}

// A command connection that cannot be opened means wpa_supplicant is gone:
// the worker ends itself and its supervisor restarts it.
static bool wpacm_open_command_connection(wpacm_loop_state* loop) {
    if (loop->command_ctrl != nullptr) {
        return true;
    }
    loop->command_ctrl = wpacm_open_ctrl(loop->data->wpa_socket_file.c_str());
    if (loop->command_ctrl == nullptr) {
        WPACM_LOG_AS(wpacm_service, LOG_Error, "Can't connect to wpa_supplicant, socket file:%s",
                     loop->data->wpa_socket_file.c_str());
        wpacm_raise_fatal_signal();
        return false;
    }
    return true;
}

static void wpacm_close_command_connection(wpacm_loop_state* loop) {
    if (loop->command_ctrl != nullptr) {
        wpa_ctrl_close(loop->command_ctrl);
        loop->command_ctrl = nullptr;
    }
}

static bool wpacm_open_event_connection(wpacm_loop_state* loop) {
    const char* socket_file = loop->data->wpa_socket_file.c_str();
    loop->event_ctrl = wpacm_open_ctrl(socket_file);
    if (loop->event_ctrl == nullptr) {
        WPACM_LOG_AS(wpacm_service, LOG_Error,
                     "Can't connect to wpa_supplicant for monitor event by wpa_ctrl_open(), socket "
                     "file:%s",
                     socket_file);
        wpacm_raise_fatal_signal();
        return false;
    }
    if (wpa_ctrl_attach(loop->event_ctrl) != 0) {
        wpa_ctrl_close(loop->event_ctrl);
        loop->event_ctrl = nullptr;
        WPACM_LOG_AS(wpacm_service, LOG_Error,
                     "Can't attach to wpa_supplicant for monitor event, socket file:%s",
                     socket_file);
        wpacm_raise_fatal_signal();
        return false;
    }
    return true;
}

static bool wpacm_service_start(wpacm_loop_state* loop) {
    wpacli_monitor_data* data = loop->data;
    if (!wpacm_open_event_connection(loop) || !wpacm_open_command_connection(loop)) {
        return false;
    }
    wpacm_touch_watchdog(data, WPACM_WATCHDOG_NORMAL_S);
    wpacm_send_wpa_request(loop->command_ctrl, "SCAN");
    wpacm_update_status(loop->command_ctrl, data);
    wpacm_get_last_status(data, &loop->last_status);
    loop->last_bssid = loop->last_status.bssid;
    if (!loop->last_status.ssid.empty() && loop->last_status.wpa_state == "COMPLETED") {
        touch_file(WIFIM_CONNECTED_MARKER_FILE);
        data->next_connect_clock = 0;
    } else {
        unlink(WIFIM_CONNECTED_MARKER_FILE);
        wpacm_clear_all_wpa_network_setting(loop->command_ctrl);
        data->next_connect_clock =
            wpacm_schedule_clock(wpacm_clock_ms() + WPACM_FIRST_CONNECT_DELAY_MS);
    }
    wpacm_close_command_connection(loop);
    data->next_scan_clock = wpacm_clock_ms();
    loop->force_scan_count = WPACM_FORCED_SCANS;
    loop->no_profile_count = 0;
    return true;
}

static bool wpacm_scan_due(wpacli_monitor_data* data) {
    return data->next_scan_clock != 0 && wpacm_clock_ms() >= data->next_scan_clock;
}

// Waits in one-second steps until there is a job, an event or a scan due.
// Returns false when the loop is to end; *job is the head of the queue.
static bool wpacm_idle_wait(wpacm_loop_state* loop, wpacm_job_data_struct** job) {
    wpacli_monitor_data* data = loop->data;
    wpa_request* request = &data->request;
    if (pthread_mutex_lock(&request->job_mutex) != 0) {
        WPACM_LOG_AS(wpacm_service, LOG_Error, "Locking job mutex fail!!");
        wpacm_raise_fatal_signal();
        return false;
    }
    *job = nullptr;
    while (!data->stop_service) {
        *job = wpacm_take_job(request);
        if (*job != nullptr || g_program_exist || wpa_ctrl_pending(loop->event_ctrl) > 0 ||
            wpacm_scan_due(data)) {
            break;
        }
        wpacm_wait_job_condition(request);
        wpacm_ping_if_due(data);
    }
    pthread_mutex_unlock(&request->job_mutex);
    wpacm_ping_if_due(data);
    return !data->stop_service && !g_program_exist;
}

// Nothing queued: queue a scan when one is due, else read one event.
static bool wpacm_idle_pass(wpacm_loop_state* loop) {
    wpacli_monitor_data* data = loop->data;
    // A connection is decided after a scan, so a due connection pulls the
    // next scan forward.
    if (data->next_connect_clock != 0 && data->next_scan_clock != 0 &&
        data->next_connect_clock < data->next_scan_clock) {
        data->next_scan_clock = data->next_connect_clock.load();
    }
    if (loop->force_scan_count > 0 || wpacm_scan_due(data)) {
        wpacm_new_job(data, JobID_Scan, nullptr, "", WPACM_SCAN_JOB_TIMEOUT_MS, false);
        data->next_scan_clock = wpacm_clock_ms() + WPACM_SCAN_INTERVAL_MS;
        if (loop->force_scan_count > 0) {
            loop->force_scan_count--;
        }
        return true;
    }
    WiFi_Connection_Status event = wpacm_receive_wpa_supplicant_event(data, loop->event_ctrl);
    if (event == WIFI_CONNECT_STATUS_SCANNED) {
        if (!wpacm_open_command_connection(loop)) {
            return false;
        }
        wpacm_update_scan_result(data, loop->command_ctrl);
        wpacm_close_command_connection(loop);
    } else if (event == WIFI_CONNECT_STATUS_CONNECTED ||
               event == WIFI_CONNECT_STATUS_DENIAL_BY_IP ||
               event == WIFI_CONNECT_STATUS_DISCONNECTED) {
        if (!wpacm_open_command_connection(loop)) {
            return false;
        }
        wpacm_update_status(loop->command_ctrl, data);
        wpacm_close_command_connection(loop);
    }
    return true;
}

// The access point the next automatic choice passes over after a connect
// job: the one the job used, so that an automatic attempt that failed there
// tries another access point before that one again. A client's attempt
// that failed (a mistyped key, say) says nothing against the access point
// or the registered profile, so nothing is passed over and the station
// goes back to its own network.
std::string wpacm_bssid_to_pass_over(const wpacm_job_data_struct& job, int result) {
    if (job.high_priority && result != WIFI_CONNECT_STATUS_CONNECTED) {
        return "";
    }
    return job.ap_info.bssid;
}

static WiFi_Connection_Status wpacm_run_connect_job(wpacm_loop_state* loop,
                                                    wpacm_job_data_struct* job) {
    WPACM_LOG_AS(wpacm_service, LOG_Info, "priority:%s, Connect to AP, ssid:%s",
                 wpacm_priority_word(job->high_priority), job->ap_info.ssid.c_str());
    wpacm_touch_watchdog(loop->data, WPACM_WATCHDOG_NORMAL_S);
    int r = wpacm_connect_ap_private(loop->data, job, loop->command_ctrl, loop->event_ctrl);
    loop->last_bssid = wpacm_bssid_to_pass_over(*job, r);
    loop->no_profile_count = 0;
    return r == WIFI_CONNECT_STATUS_CONNECTED ? WIFI_CONNECT_STATUS_SUCCESS
                                              : static_cast<WiFi_Connection_Status>(r);
}

static WiFi_Connection_Status wpacm_run_wps_job(wpacm_loop_state* loop,
                                                wpacm_job_data_struct* job) {
    WPACM_LOG_AS(wpacm_service, LOG_Info, "priority:%s, WPS %s, pin:%s",
                 wpacm_priority_word(job->high_priority),
                 job->job_id == JobID_WPS_PBC ? "PBC" : "PIN", job->wps_pin.c_str());
    wpacm_touch_watchdog(loop->data, WPACM_WATCHDOG_NORMAL_S);
    int r = wpacm_wps_private(loop->data, job, loop->command_ctrl, loop->event_ctrl);
    loop->last_bssid = job->ap_info.bssid;
    loop->no_profile_count = 0;
    return r == WIFI_CONNECT_STATUS_WPS_SUCCESS ? WIFI_CONNECT_STATUS_SUCCESS
                                                : static_cast<WiFi_Connection_Status>(r);
}

static WiFi_Connection_Status wpacm_run_status_job(wpacm_loop_state* loop) {
    wpacm_touch_watchdog(loop->data, WPACM_WATCHDOG_NORMAL_S);
    return wpacm_update_status(loop->command_ctrl, loop->data) ? WIFI_CONNECT_STATUS_SUCCESS
                                                               : WIFI_CONNECT_STATUS_FAIL;
}

// Performs the job at the head of the queue and posts its result. Returns
// false when the loop is to end.
static bool wpacm_run_job(wpacm_loop_state* loop, wpacm_job_data_struct* job) {
    wpacli_monitor_data* data = loop->data;
    int64_t now = wpacm_clock_ms();
    if (now > job->request_timeout_ms) {
        wpacm_update_job_result(data, job, WIFI_CONNECT_STATUS_EXPIRE);
        return true;
    }
    WPACM_LOG_AS(wpacm_service, LOG_Debug,
                 "Got job, index:%d, priority:%s, Job ID:%d, time out:%lld, next scan clock:%lld, "
                 "next connect clock:%lld, now:%lld, scan request count:%d",
                 job->job_index, wpacm_priority_word(job->high_priority), job->job_id,
                 static_cast<long long>(wpacm_wall_ms(job->request_timeout_ms)),
                 static_cast<long long>(wpacm_wall_ms(data->next_scan_clock)),
                 static_cast<long long>(wpacm_wall_ms(data->next_connect_clock)),
                 static_cast<long long>(wpacm_wall_ms(now)), data->continue_scan_request.load());
    if (job->job_id != JobID_Nothing && !wpacm_open_command_connection(loop)) {
        return false;
    }
    bool keep_connection = false;
    switch (job->job_id) {
        case JobID_Scan:
            wpacm_update_job_result(data, job, wpacm_run_scan_job(loop, job, &keep_connection));
            break;
        case JobID_GetStatus:
            wpacm_update_job_result(data, job, wpacm_run_status_job(loop));
            break;
        case JobID_ConnectAP:
            wpacm_update_job_result(data, job, wpacm_run_connect_job(loop, job));
            break;
        case JobID_Disconnect:
            wpacm_run_disconnect_job(loop, job);
            break;
        case JobID_WPS_PBC:
        case JobID_WPS_PIN:
            wpacm_update_job_result(data, job, wpacm_run_wps_job(loop, job));
            break;
        default:
            wpacm_update_job_result(data, job, WIFI_CONNECT_STATUS_SUCCESS);
            break;
    }
    if (!keep_connection) {
        wpacm_close_command_connection(loop);
    }
    return true;
}

// With the station switched off every job fails and nothing is scheduled.
static void wpacm_disabled_pass(wpacm_loop_state* loop, wpacm_job_data_struct* job) {
    if (job != nullptr) {
        wpacm_update_job_result(loop->data, job, WIFI_CONNECT_STATUS_FAIL);
    }
    wifim_sleep_s(1);
    loop->data->next_scan_clock = 0;
    loop->data->next_connect_clock = 0;
}

void wpacm_service(void* monitor_data) {
    wpacli_monitor_data* data = static_cast<wpacli_monitor_data*>(monitor_data);
    if (data == nullptr) {
        return;
    }
    wpacm_loop_state loop;
    loop.data = data;
    loop.event_ctrl = nullptr;
    loop.command_ctrl = nullptr;
    clear_wifi_ap_info(&loop.candidate);
    loop.force_scan_count = 0;
    loop.no_profile_count = 0;
    if (!wpacm_service_start(&loop)) {
        return;
    }
    while (!data->stop_service && !g_program_exist) {
        wpacm_job_data_struct* job = nullptr;
        if (!wpacm_idle_wait(&loop, &job)) {
            break;
        }
        bool go_on = true;
        if (!data->enable_feature) {
            wpacm_disabled_pass(&loop, job);
        } else if (job == nullptr) {
            go_on = wpacm_idle_pass(&loop);
        } else {
            go_on = wpacm_run_job(&loop, job);
        }
        if (!go_on) {
            break;
        }
    }
    wpa_ctrl_close(loop.event_ctrl);
    wpacm_close_command_connection(&loop);
}
