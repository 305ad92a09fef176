// Automatic connection: after a scan, the first registered profile (in
// priority order) that is in range is queued for connection.
#include "wpacm_internal.h"

#define WPACM_CHOICE_NO_PROFILE (-2)
#define WPACM_CHOICE_NO_SCAN (-1)
#define WPACM_CHOICE_BUSY (-3)

// The first scan entry in key order that can serve this profile.
static const wifi_scan_ap_info* wpacm_entry_for_profile(wpacli_monitor_data* data,
                                                        const wifi_ap_info& profile,
                                                        const std::string& skip_bssid) {
    for (const auto& item : data->scan_result.scan_result_list) {
        const wifi_scan_ap_info& entry = item.second;
        if (entry.in_scan_result && entry.ap_info.ssid == profile.ssid &&
            (skip_bssid.empty() || entry.ap_info.bssid != skip_bssid) &&
            wpacm_is_same_security(profile.security, entry.ap_info.security)) {
            return &entry;
        }
    }
    return nullptr;
}

int wpacm_choose_profile(wpacm_loop_state* loop) {
    wpacli_monitor_data* data = loop->data;
    std::string skip_bssid = loop->last_bssid;
    // The loop never waits on a request thread: busy lists put the
    // attempt off instead.
    if (pthread_mutex_trylock(&data->registed_ap_info.registed_ap_mutex) != 0) {
        WPACM_LOG_AS(wpacm_service, LOG_Warn, "Can't lock registed_ap_mutex...");
        return WPACM_CHOICE_BUSY;
    }
    std::vector<wifi_ap_info> profiles = data->registed_ap_info.registed_ap_info_vector;
    pthread_mutex_unlock(&data->registed_ap_info.registed_ap_mutex);
    if (profiles.empty()) {
        WPACM_LOG_AS(wpacm_service, LOG_Warn, "Registed WiFi AP list is empty!!");
        return WPACM_CHOICE_NO_PROFILE;
    }
    if (pthread_mutex_trylock(&data->scan_result.scan_result_mutex) != 0) {
        WPACM_LOG_AS(wpacm_service, LOG_Warn, "Can't lock scan_result_mutex");
        return WPACM_CHOICE_BUSY;
    }
    if (data->scan_result.scan_result_list.empty()) {
        pthread_mutex_unlock(&data->scan_result.scan_result_mutex);
        WPACM_LOG_AS(wpacm_service, LOG_Warn, "Scan result is empty!!");
        return WPACM_CHOICE_NO_SCAN;
    }
    wapinfo_reindex_ap_list(&profiles, true);
    int result = WPACM_CHOICE_NO_PROFILE;
    for (const wifi_ap_info& profile : profiles) {
        if (profile.priority < 1 || wpacm_entry_for_profile(data, profile, skip_bssid) == nullptr) {
            continue;
        }
        WPACM_LOG_AS(wpacm_service, LOG_Info,
                     "Try to connect to SSID : %s, network id:%d, skip bssid:%s",
                     profile.ssid.c_str(), profile.network_id, skip_bssid.c_str());
        loop->candidate = profile;
        result = 0;
        break;
    }
    pthread_mutex_unlock(&data->scan_result.scan_result_mutex);
    return result;
}

void wpacm_auto_connect(wpacm_loop_state* loop) {
    wpacli_monitor_data* data = loop->data;
    int result = wpacm_choose_profile(loop);
    int64_t now = wpacm_clock_ms();
    if (result != 0 || loop->candidate.ssid.empty()) {
        WPACM_LOG_AS(wpacm_service, LOG_Warn,
                     "No any available WiFi profile, lsat bssid:%s, ret:%d",
                     loop->last_bssid.c_str(), result);
        if (result == WPACM_CHOICE_NO_PROFILE) {
            data->next_connect_clock = now + (loop->no_profile_count < WPACM_NO_PROFILE_SHORT_TRIES
                                                  ? WPACM_NO_PROFILE_BACKOFF_MS
                                                  : WPACM_NO_PROFILE_LONG_BACKOFF_MS);
            loop->no_profile_count++;
        } else {
            data->next_connect_clock = now + WPACM_CHOICE_RETRY_MS;
        }
        return;
    }
    if (wpacm_new_job(data, JobID_ConnectAP, &loop->candidate, "", WPACM_CONNECT_TIMEOUT_MS,
                      false) != nullptr) {
        data->next_connect_clock = now + WPACM_CONNECT_TIMEOUT_MS;
    }
}
