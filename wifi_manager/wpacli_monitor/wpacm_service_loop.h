// State of one run of the service loop, shared by the loop's own files.
#pragma once

#include "wpacli_monitor.h"

struct wpacm_loop_state {
    wpacli_monitor_data* data;
    struct wpa_ctrl* event_ctrl;
    struct wpa_ctrl* command_ctrl;
    wpa_supplicant_status last_status;
    std::string last_bssid;  // avoided by the next automatic choice
    wifi_ap_info candidate;
    int force_scan_count;
    int no_profile_count;
};

// Automatic connection: the best registered profile in range.
int wpacm_choose_profile(wpacm_loop_state* loop);
void wpacm_auto_connect(wpacm_loop_state* loop);
// Jobs the loop performs; each returns the result to post.
WiFi_Connection_Status wpacm_run_scan_job(wpacm_loop_state* loop, wpacm_job_data_struct* job,
                                          bool* keep_connection);
// Posts its own result before cleaning up.
void wpacm_run_disconnect_job(wpacm_loop_state* loop, wpacm_job_data_struct* job);
