// The job queue: other threads ask the service loop for work here and may
// wait for its result; the worker's pings to its supervisor start here too.
#include <unistd.h>

#include "../slot_list.h"
#include "wpacm_internal.h"

const char* wpacm_priority_word(bool high_priority) {
    return high_priority ? "hight" : "normal";
}

// Waits on the job condition until the start of the next second of the
// monotonic clock, so that a missed wake-up costs at most about a second and
// a step of the wall clock neither stretches nor shortens the wait.
void wpacm_wait_job_condition(wpa_request* request) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    struct timespec deadline = {now.tv_sec + 1, 0};
    pthread_cond_timedwait(&request->job_condition, &request->job_mutex, &deadline);
}

void clear_wpacm_job_data(wpacm_job_data_struct* slot) {
    slot->in_used_flag = false;
    slot->high_priority = false;
    slot->job_id = JobID_Nothing;
    slot->wps_pin.clear();
    slot->result_value = WIFI_CONNECT_STATUS_UNKNOW;
    clear_wifi_ap_info(&slot->ap_info);
}

// A new generation for a slot; 0 is kept for callers that wait for any.
static void wpacm_next_generation(wpacm_job_data_struct* slot) {
    slot->generation++;
    if (slot->generation == WPACM_ANY_GENERATION) {
        slot->generation++;
    }
}

void wpacm_init_job_queue(wpa_request* request) {
    pthread_mutex_init(&request->job_mutex, nullptr);
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&request->job_condition, &attr);
    pthread_condattr_destroy(&attr);
    for (wpacm_job_data_struct& slot : request->job_array) {
        slot.generation = 0;
    }
    request->running_job = nullptr;
    request->reset_count = 0;
    request->running_reset_count = 0;
    wpacm_reset_job_queue(request);
}

void wpacm_reset_job_queue(wpa_request* request) {
    request->unused_job_list = nullptr;
    for (int i = 0; i < WPACM_JOB_SLOTS; i++) {
        wpacm_job_data_struct* slot = &request->job_array[i];
        if (slot == request->running_job) {
            continue;
        }
        clear_wpacm_job_data(slot);
        wpacm_next_generation(slot);
        slot->request_timeout_ms = 0;
        slot->job_index = static_cast<uint32_t>(i + 1);
        wifim_slot_list_append(&request->unused_job_list, slot, &wpacm_job_data_struct::next);
    }
    request->in_used_job_list = nullptr;
    request->heigh_priority_request = false;
    request->reset_count++;
}

// High-priority jobs go before the first normal one (a lone normal job
// too); normal jobs go to the tail.
static void wpacm_insert_in_use(wpa_request* request, wpacm_job_data_struct* slot) {
    wifim_slot_list_insert(
        &request->in_used_job_list, slot, &wpacm_job_data_struct::next,
        [slot](const wpacm_job_data_struct& other) {
            return slot->high_priority && !other.high_priority;
        },
        true);
}

wpacm_job_data_struct* wpacm_new_job(void* monitor_data, JobID job_id, const wifi_ap_info* ap_info,
                                     const std::string& wps_pin, int timeout_ms,
                                     bool heigh_priority, uint32_t* generation) {
    wpacli_monitor_data* data = static_cast<wpacli_monitor_data*>(monitor_data);
    if (data == nullptr) {
        return nullptr;
    }
    wpa_request* request = &data->request;
    if (pthread_mutex_lock(&request->job_mutex) != 0) {
        WPACM_FATAL_LOCK_FAILURE();
        return nullptr;
    }
    // A full queue holds its caller until a slot is freed; nothing is dropped.
    while (request->unused_job_list == nullptr) {
        wpacm_wait_job_condition(request);
    }
    wpacm_job_data_struct* slot =
        wifim_slot_list_take(&request->unused_job_list, &wpacm_job_data_struct::next);
    clear_wpacm_job_data(slot);
    wpacm_next_generation(slot);
    if (generation != nullptr) {
        *generation = slot->generation;
    }
    if (ap_info != nullptr) {
        slot->ap_info = *ap_info;
    }
    slot->high_priority = heigh_priority;
    slot->wps_pin = wps_pin;
    slot->job_id = job_id;
    slot->request_timeout_ms = wpacm_clock_ms() + timeout_ms;
    slot->result_value = WIFI_CONNECT_STATUS_UNKNOW;
    slot->in_used_flag = true;
    wpacm_insert_in_use(request, slot);
    request->heigh_priority_request = request->in_used_job_list->high_priority;
    pthread_cond_broadcast(&request->job_condition);
    pthread_mutex_unlock(&request->job_mutex);
    return slot;
}

WiFi_Connection_Status wpacm_wait_job(void* monitor_data, wpacm_job_data_struct* job_data,
                                      wifi_ap_info* ap_info_data, uint32_t generation) {
    wpacli_monitor_data* data = static_cast<wpacli_monitor_data*>(monitor_data);
    if (data == nullptr || job_data == nullptr) {
        return WIFI_CONNECT_STATUS_UNKNOW;
    }
    wpa_request* request = &data->request;
    if (pthread_mutex_lock(&request->job_mutex) != 0) {
        WPACM_FATAL_LOCK_FAILURE();
        return WIFI_CONNECT_STATUS_UNKNOW;
    }
    if (generation == WPACM_ANY_GENERATION) {
        generation = job_data->generation;
    }
    while (job_data->generation == generation && job_data->in_used_flag && !g_program_exist &&
           !data->stop_service) {
        wpacm_wait_job_condition(request);
    }
    // A job dropped by a queue reset has no result of its own, whatever the
    // slot holds by now.
    WiFi_Connection_Status result = WIFI_CONNECT_STATUS_UNKNOW;
    if (job_data->generation == generation) {
        result = job_data->result_value;
        if (ap_info_data != nullptr) {
            *ap_info_data = job_data->ap_info;
        }
    }
    pthread_mutex_unlock(&request->job_mutex);
    return result;
}

wpacm_job_data_struct* wpacm_take_job(wpa_request* request) {
    wpacm_job_data_struct* job = request->in_used_job_list;
    request->running_job = job;
    request->running_reset_count = request->reset_count;
    return job;
}

void wpacm_update_job_result(void* monitor_data, wpacm_job_data_struct* job_data,
                             WiFi_Connection_Status result) {
    wpacli_monitor_data* data = static_cast<wpacli_monitor_data*>(monitor_data);
    if (data == nullptr || job_data == nullptr) {
        return;
    }
    wpa_request* request = &data->request;
    if (pthread_mutex_lock(&request->job_mutex) != 0) {
        WPACM_FATAL_LOCK_FAILURE();
        return;
    }
    job_data->result_value = result;
    job_data->in_used_flag = false;
    if (request->running_job == job_data) {
        request->running_job = nullptr;
    }
    wifim_slot_list_unlink(&request->in_used_job_list, job_data, &wpacm_job_data_struct::next);
    if (!wifim_slot_list_holds(request->unused_job_list, job_data, &wpacm_job_data_struct::next)) {
        wifim_slot_list_append(&request->unused_job_list, job_data, &wpacm_job_data_struct::next);
    }
    WPACM_LOG(LOG_Info,
              "updated result, index:%d, priority:%s, Job ID:%d, result:%d, time out:%lld/%lld",
              job_data->job_index, wpacm_priority_word(job_data->high_priority), job_data->job_id,
              result, static_cast<long long>(wpacm_wall_ms(job_data->request_timeout_ms)),
              static_cast<long long>(get_now_time_ms()));
    pthread_cond_broadcast(&request->job_condition);
    pthread_mutex_unlock(&request->job_mutex);
}

void wpacm_touch_watchdog(void* monitor_data, int watchdog_count, int next_resend_time) {
    wpacli_monitor_data* data = static_cast<wpacli_monitor_data*>(monitor_data);
    wifim_ping_supervisor(watchdog_count);
    if (data != nullptr) {
        data->next_touch_watch_dog = wpacm_clock_s() + next_resend_time;
    }
}
