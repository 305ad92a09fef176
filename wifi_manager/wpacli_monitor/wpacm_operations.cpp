// Operations offered to the request services. They run on request threads:
// work on wpa_supplicant is posted as a job for the service loop; work on
// the registered profiles is done here under their mutex.
#include "wpacm_internal.h"

static wpacli_monitor_data* wpacm_data(void* monitor_data) {
    return static_cast<wpacli_monitor_data*>(monitor_data);
}

static void wpacm_back_off(wpacli_monitor_data* data) {
    wpacm_schedule_scan_and_connect(data, wpacm_clock_ms() + WPACM_BACKOFF_AFTER_REQUEST_MS);
}

// After a client's connect or WPS run the automatic scan and connection wait
// a while, unless the run succeeded (a bare CONNECTED counts as not: the
// device has always backed off then too).
static void wpacm_back_off_unless_success(wpacli_monitor_data* data,
                                          WiFi_Connection_Status result) {
    if (result != WIFI_CONNECT_STATUS_WPS_SUCCESS && result != WIFI_CONNECT_STATUS_SUCCESS) {
        wpacm_back_off(data);
    }
}

// Posts a high-priority job for the service loop and waits until the loop
// has run it or its time-out has passed; *result is what it came to (and
// the job's record is copied to ap_info_out when given). False when the
// queue did not take the job.
static bool wpacm_request_job(wpacli_monitor_data* data, JobID kind, const wifi_ap_info* ap_info,
                              const std::string& wps_pin, int timeout_ms, wifi_ap_info* ap_info_out,
                              WiFi_Connection_Status* result) {
    uint32_t generation = 0;
    wpacm_job_data_struct* job =
        wpacm_new_job(data, kind, ap_info, wps_pin, timeout_ms, true, &generation);
    *result = wpacm_wait_job(data, job, ap_info_out, generation);
    return job != nullptr;
}

// A request thread that cannot lock the profiles gives up its operation;
// the line names that operation.
static bool wpacm_lock_profiles(wpacli_monitor_data* data, const char* operation) {
    if (pthread_mutex_lock(&data->registed_ap_info.registed_ap_mutex) != 0) {
        WIFIM_LOG_AT(LOG_Error, WPACM_LOG_SOURCE, operation, "Can't lock registed_ap_mutex...");
        return false;
    }
    return true;
}

static void wpacm_unlock_profiles(wpacli_monitor_data* data) {
    pthread_mutex_unlock(&data->registed_ap_info.registed_ap_mutex);
}

static void wpacm_save_profiles(wpacli_monitor_data* data) {
    wapinfo_update_profile_to_user_setting(
        data->enable_feature, &data->registed_ap_info.registed_ap_info_vector, nullptr);
}

void wpacm_write_back_profiles(wpacli_monitor_data* data) {
    if (pthread_mutex_lock(&data->registed_ap_info.registed_ap_mutex) == 0) {
        wpacm_save_profiles(data);
        wpacm_unlock_profiles(data);
    }
}

void wpacm_set_enable(void* monitor_data, bool enable) {
    wpacli_monitor_data* data = wpacm_data(monitor_data);
    wpacm_call call;
    if (data == nullptr || !call.entered || enable == data->enable_feature) {
        return;
    }
    // Pending jobs belong to the old state and are dropped.
    if (pthread_mutex_lock(&data->request.job_mutex) == 0) {
        wpacm_reset_job_queue(&data->request);
        pthread_cond_broadcast(&data->request.job_condition);
        pthread_mutex_unlock(&data->request.job_mutex);
    }
    if (enable) {
        data->continue_scan_request = 1;
        wpacm_schedule_scan_and_connect(
            data, wpacm_schedule_clock(wpacm_clock_ms() + WPACM_ENABLE_DELAY_MS));
    } else {
        WiFi_Connection_Status ignored;
        wpacm_request_job(data, JobID_Disconnect, nullptr, "", WPACM_DISABLE_TIMEOUT_MS, nullptr,
                          &ignored);
    }
    data->enable_feature = enable;
    wpacm_write_back_profiles(data);
}

int wpacm_connect_to_ap(void* monitor_data, wifi_ap_info* ap_info_data) {
    wpacli_monitor_data* data = wpacm_data(monitor_data);
    wpacm_call call;
    if (data == nullptr || !call.entered) {
        return WIFI_CONNECT_STATUS_UNKNOW;
    }
    WiFi_Connection_Status result;
    if (!wpacm_request_job(data, JobID_ConnectAP, ap_info_data, "", WPACM_CONNECT_TIMEOUT_MS,
                           nullptr, &result)) {
        return WIFI_CONNECT_STATUS_UNKNOW;
    }
    wpacm_back_off_unless_success(data, result);
    return result;
}

bool wpacm_get_connected_ssid(void* monitor_data, std::string& ssid, std::string& bssid) {
    wpacli_monitor_data* data = wpacm_data(monitor_data);
    ssid.clear();
    bssid.clear();
    wpacm_call call;
    if (data == nullptr || !call.entered) {
        return false;
    }
    WiFi_Connection_Status ignored;
    wpacm_request_job(data, JobID_GetStatus, nullptr, "", WPACM_STATUS_TIMEOUT_MS, nullptr,
                      &ignored);
    wpa_supplicant_status status;
    wpacm_get_last_status(data, &status);
    if (status.ssid.empty() || status.wpa_state != "COMPLETED") {
        return false;
    }
    ssid = status.ssid;
    bssid = status.bssid;
    return !ssid.empty();
}

// Demotes every profile of the SSID the user disconnected from, so that the
// automatic connection does not pick it again at once.
static void wpacm_demote_profile(wpacli_monitor_data* data, const std::string& ssid) {
    std::vector<wifi_ap_info>& list = data->registed_ap_info.registed_ap_info_vector;
    bool changed = false;
    for (wifi_ap_info& profile : list) {
        if (profile.ssid == ssid) {
            profile.priority = -1;
            changed = true;
        }
    }
    if (changed) {
        wapinfo_reindex_ap_list(&list, true);
        wpacm_save_profiles(data);
    }
}

bool wpacm_disconnect(void* monitor_data) {
    wpacli_monitor_data* data = wpacm_data(monitor_data);
    wpacm_call call;
    if (data == nullptr || !call.entered) {
        return false;
    }
    std::string ssid;
    std::string bssid;
    wpacm_get_connected_ssid(data, ssid, bssid);
    if (ssid.empty()) {
        return false;
    }
    WiFi_Connection_Status result;
    if (!wpacm_request_job(data, JobID_Disconnect, nullptr, "", WPACM_DISCONNECT_TIMEOUT_MS,
                           nullptr, &result)) {
        return false;
    }
    if (!wpacm_lock_profiles(data, __func__)) {
        return false;
    }
    wpacm_demote_profile(data, ssid);
    wpacm_unlock_profiles(data);
    wpacm_back_off(data);
    return result != WIFI_CONNECT_STATUS_UNKNOW;
}

int wpacm_wps(void* monitor_data, const std::string& pin_data, wifi_ap_info* ap_info_data) {
    wpacli_monitor_data* data = wpacm_data(monitor_data);
    wpacm_call call;
    if (data == nullptr || !call.entered) {
        return WIFI_CONNECT_STATUS_UNKNOW;
    }
    if (ap_info_data != nullptr) {
        clear_wifi_ap_info(ap_info_data);
    }
    JobID kind = pin_data.empty() ? JobID_WPS_PBC : JobID_WPS_PIN;
    WiFi_Connection_Status result;
    if (!wpacm_request_job(data, kind, nullptr, pin_data, WPACM_WPS_TIMEOUT_MS, ap_info_data,
                           &result)) {
        return WIFI_CONNECT_STATUS_UNKNOW;
    }
    wpacm_back_off_unless_success(data, result);
    return result;
}

bool wpacm_remove_ssid(void* monitor_data, const std::string& ssid, WiFi_Security security) {
    wpacli_monitor_data* data = wpacm_data(monitor_data);
    wpacm_call call;
    if (data == nullptr || !call.entered) {
        return false;
    }
    std::string connected;
    std::string bssid;
    wpacm_get_connected_ssid(data, connected, bssid);
    if (!wpacm_lock_profiles(data, __func__)) {
        return false;
    }
    std::vector<wifi_ap_info>& list = data->registed_ap_info.registed_ap_info_vector;
    for (auto it = list.begin(); it != list.end(); ++it) {
        if (it->ssid == ssid && wpacm_is_same_security(security, it->security)) {
            list.erase(it);
            wapinfo_reindex_ap_list(&list, true);
            wpacm_save_profiles(data);
            break;
        }
    }
    wpacm_unlock_profiles(data);
    if (!connected.empty() && connected == ssid) {
        wpacm_new_job(data, JobID_Disconnect, nullptr, "", WPACM_DISCONNECT_TIMEOUT_MS, true);
    }
    return true;
}

void wpacm_get_register_profile(void* monitor_data,
                                std::vector<wifi_ap_info>& registed_ap_info_vector) {
    wpacli_monitor_data* data = wpacm_data(monitor_data);
    registed_ap_info_vector.clear();
    wpacm_call call;
    if (data == nullptr || !call.entered || !wpacm_lock_profiles(data, __func__)) {
        return;
    }
    registed_ap_info_vector = data->registed_ap_info.registed_ap_info_vector;
    wpacm_unlock_profiles(data);
}

static void wpacm_reorder_and_trim(wpacli_monitor_data* data) {
    std::vector<wifi_ap_info>& list = data->registed_ap_info.registed_ap_info_vector;
    wapinfo_reindex_ap_list(&list, true);
    while (list.size() > static_cast<unsigned>(data->max_bound_wifiap_info)) {
        list.pop_back();
    }
}

// Other profiles at or below the new profile's priority move down one place
// to make room for it.
static void wpacm_make_room(std::vector<wifi_ap_info>& list, const wifi_ap_info& added) {
    for (wifi_ap_info& profile : list) {
        if (!wpacm_is_same_network(added, profile) && added.priority > 0 &&
            added.priority <= profile.priority) {
            profile.priority++;
        }
    }
}

void wpacm_update_wifi_profile(void* monitor_data, wifi_ap_info* ap_info_data, bool append_flag) {
    wpacli_monitor_data* data = wpacm_data(monitor_data);
    wpacm_call call;
    if (data == nullptr || !call.entered || ap_info_data == nullptr ||
        !wpacm_lock_profiles(data, __func__)) {
        return;
    }
    std::vector<wifi_ap_info>& list = data->registed_ap_info.registed_ap_info_vector;
    // Every profile of the network is updated.
    wpacm_make_room(list, *ap_info_data);
    bool found = wpacm_take_profile(list, *ap_info_data, true) != nullptr;
    if (!found && !append_flag) {
        // Nothing to record: undo the room made above from the file.
        // (The read holds the profile file's lock, taken after ours.)
        bool enable = data->enable_feature;
        wapinfo_read_profile(&enable, &list, nullptr);
        wpacm_reorder_and_trim(data);
        wpacm_unlock_profiles(data);
        return;
    }
    if (!found) {
        list.push_back(*ap_info_data);
    }
    wpacm_reorder_and_trim(data);
    wpacm_save_profiles(data);
    wpacm_unlock_profiles(data);
}

bool wpacm_get_wifi_ap_list(void* monitor_data, std::vector<wifi_ap_info>& ap_info_vector) {
    wpacli_monitor_data* data = wpacm_data(monitor_data);
    ap_info_vector.clear();
    wpacm_call call;
    if (data == nullptr || !call.entered) {
        return false;
    }
    if (pthread_mutex_lock(&data->scan_result.scan_result_mutex) != 0) {
        WPACM_FATAL_LOCK_FAILURE();
        return false;
    }
    int64_t now = wpacm_clock_ms();
    for (const auto& item : data->scan_result.scan_result_list) {
        const wifi_scan_ap_info& entry = item.second;
        bool stale = entry.not_in_range_count > 1 && now > entry.mini_alive_ms;
        if (now < entry.timeout_ms && !stale) {
            ap_info_vector.push_back(entry.ap_info);
        }
    }
    // Ask the service loop for a fresh scan.
    if (!(data->continue_scan_request > 0 && data->next_scan_clock != 0)) {
        data->next_scan_clock = wpacm_schedule_clock(now);
    }
    if (data->continue_scan_request < 2) {
        data->continue_scan_request = 2;
    }
    pthread_mutex_unlock(&data->scan_result.scan_result_mutex);
    return true;
}
