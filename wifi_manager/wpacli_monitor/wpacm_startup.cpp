// Controller start-up and shut-down, and the one rule by which commands are
// sent to wpa_supplicant.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wpa_ctrl.h>

#include <SimpleIni.h>

#include "../fixed_paths.h"
#include "wpacm_internal.h"

#define WPACM_SHORT_REPLY_SIZE 256
// The marker says only that the station is connected; scripts of any user
// may look at it, none but the daemon write it, whatever the umask.
#define WPACM_MARKER_FILE_MODE 0644

// The signal goes to the calling thread itself, which is at a known point
// (no lock of its own held, not inside the allocator); sent to the process,
// it could land on another thread in the middle of a malloc, and the
// handler's log line could then hang the worker instead of ending it.
void wpacm_raise_fatal_signal() {
    pthread_kill(pthread_self(), SIGILL);
}

// Operations in progress on request threads, and whether the controller is
// being closed. A caller first counts itself in, then looks at the flag, so
// that wpacm_close never frees memory a caller is still using.
static std::atomic<int> g_wpacm_calls{0};
static std::atomic<bool> g_wpacm_closing{false};

bool wpacm_enter_call() {
    g_wpacm_calls++;
    if (g_wpacm_closing) {
        g_wpacm_calls--;
        return false;
    }
    return true;
}

void wpacm_leave_call() {
    g_wpacm_calls--;
}

// Wakes every caller waiting for a job and waits for all to leave; false
// when one is still inside after the bounded wait.
static bool wpacm_wait_for_callers(wpacli_monitor_data* data) {
    if (pthread_mutex_lock(&data->request.job_mutex) == 0) {
        pthread_cond_broadcast(&data->request.job_condition);
        pthread_mutex_unlock(&data->request.job_mutex);
    }
    for (int waited = 0; waited < WPACM_CLOSE_WAIT_MS; waited += 10) {
        if (g_wpacm_calls == 0) {
            return true;
        }
        usleep(10000);
    }
    return g_wpacm_calls == 0;
}

// wpa_supplicant's own configuration names its control directory; only the
// plain directory form of ctrl_interface is understood.
static std::string wpacm_read_ctrl_interface(const std::string& config_file) {
    CSimpleIniA ini;
    FILE* fp = fopen(config_file.c_str(), "rbe");
    if (fp != nullptr) {
        ini.LoadFile(fp);
        fclose(fp);
    }
    return ini.GetValue("", "ctrl_interface", WIFIM_DEFAULT_WPA_CTRL_DIR);
}

static void wpacm_load_registered_profiles(wpacli_monitor_data* data) {
    bool enable = true;
    std::vector<wifi_ap_info>& list = data->registed_ap_info.registed_ap_info_vector;
    wapinfo_read_profile(&enable, &list, nullptr);
    data->enable_feature = enable;
    wapinfo_reindex_ap_list(&list, true);
    // A negative bound, compared as unsigned, keeps everything.
    while (list.size() > static_cast<unsigned>(data->max_bound_wifiap_info)) {
        list.pop_back();
    }
}

void* wpacm_init(const std::string& wpa_supplicant_config_file, const std::string& wlan_interface,
                 int max_bound_wifiap_info) {
    srand(static_cast<unsigned>(time(nullptr)));
    if (!wifim_file_exist(wpa_supplicant_config_file.c_str())) {
        WPACM_LOG(LOG_Error, "the wpa_supplicant config file(%s) not exist",
                  wpa_supplicant_config_file.c_str());
        return nullptr;
    }
    wpacli_monitor_data* data = new wpacli_monitor_data();
    g_wpacm_closing = false;
    wpacm_init_job_queue(&data->request);
    data->wpa_supplicant_config_file = wpa_supplicant_config_file;
    data->wlan_interface = wlan_interface;
    data->stop_service = false;
    pthread_mutex_init(&data->scan_result.scan_result_mutex, nullptr);
    pthread_mutex_init(&data->registed_ap_info.registed_ap_mutex, nullptr);

    data->wpa_socket_file =
        wpacm_read_ctrl_interface(wpa_supplicant_config_file) + "/" + wlan_interface;
    clear_wpa_supplicant_status(&data->scan_result.last_status);
    data->scan_result.scan_result_list.clear();
    data->continue_scan_request = WPACM_INITIAL_SCAN_REQUESTS;
    data->max_bound_wifiap_info = max_bound_wifiap_info;
    data->next_touch_watch_dog = wpacm_clock_s();
    data->next_scan_clock = 0;
    data->next_connect_clock = 0;
    wpacm_load_registered_profiles(data);
    return data;
}

void wpacm_close(void* monitor_data) {
    wpacli_monitor_data* data = static_cast<wpacli_monitor_data*>(monitor_data);
    if (data == nullptr) {
        return;
    }
    data->stop_service = true;
    g_wpacm_closing = true;
    bool idle = wpacm_wait_for_callers(data);
    wpacm_write_back_profiles(data);
    if (!idle) {
        // A caller is stuck inside; keeping the memory is safer than
        // freeing it under that caller on the way out.
        return;
    }
    pthread_mutex_destroy(&data->scan_result.scan_result_mutex);
    pthread_mutex_destroy(&data->request.job_mutex);
    pthread_mutex_destroy(&data->registed_ap_info.registed_ap_mutex);
    pthread_cond_destroy(&data->request.job_condition);
    delete data;
}

bool wpacm_get_enable(void* monitor_data) {
    wpacli_monitor_data* data = static_cast<wpacli_monitor_data*>(monitor_data);
    if (data == nullptr || !wpacm_enter_call()) {
        return false;
    }
    bool enable = data->enable_feature;
    wpacm_leave_call();
    return enable;
}

std::string wpacm_get_wlan_interface(void* monitor_data) {
    wpacli_monitor_data* data = static_cast<wpacli_monitor_data*>(monitor_data);
    if (data == nullptr || !wpacm_enter_call()) {
        return std::string();
    }
    std::string name = data->wlan_interface;
    wpacm_leave_call();
    return name;
}

static void wpacm_sleep_ms(int ms) {
    usleep(static_cast<useconds_t>(ms) * 1000);
}

// Waits after a failed transport attempt grow with each attempt: 10..20,
// 20..40, 30..60, 40..80 and finally 50..100 ms.
static int wpacm_retry_wait_ms(int attempt) {
    int base = attempt * WPACM_REQUEST_RETRY_STEP_MS;
    return base + rand() % (base + 1);
}

bool wpacm_send_wpa_request(struct wpa_ctrl* ctrl, const char* command) {
    char reply[WPACM_SHORT_REPLY_SIZE];
    for (int attempt = 1; attempt <= WPACM_REQUEST_ATTEMPTS; attempt++) {
        memset(reply, 0, sizeof(reply));
        size_t reply_len = sizeof(reply);
        if (wpa_ctrl_request(ctrl, command, strlen(command), reply, &reply_len, nullptr) == 0) {
            return strncmp(reply, "OK", 2) == 0;
        }
        wpacm_sleep_ms(wpacm_retry_wait_ms(attempt));
    }
    WPACM_LOG(LOG_Error, "Request fail, command:%s,result:%s", command, reply);
    return false;
}

void wpacm_clear_all_event(struct wpa_ctrl* ctrl) {
    char event[WPACM_REPLY_SIZE];
    int fd = wpa_ctrl_get_fd(ctrl);
    while (true) {
        fd_set fds;
        FD_ZERO(&fds);
        FD_SET(fd, &fds);
        struct timeval wait = {0, 1000};
        if (select(fd + 1, &fds, nullptr, nullptr, &wait) < 0 || g_program_exist ||
            wpa_ctrl_pending(ctrl) <= 0) {
            return;
        }
        memset(event, 0, sizeof(event));
        size_t len = sizeof(event);
        wpa_ctrl_recv(ctrl, event, &len);
    }
}

// The marker lives at a fixed name in world-writable /tmp: anything already
// there, a planted symbolic link too, counts as the marker and is never
// opened, and the create itself refuses to follow a link.
int touch_file(const char* path) {
    struct stat st;
    if (lstat(path, &st) == 0) {
        return 0;
    }
    int fd = open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, WPACM_MARKER_FILE_MODE);
    if (fd < 0) {
        return -1;
    }
    fchmod(fd, WPACM_MARKER_FILE_MODE);
    close(fd);
    return 0;
}
