// One request through the dispatcher and whichever handler it names, with a
// stand-in controller: a thread that answers every queued job at once with
// a status taken from the request's own bytes. Runs in the test sandbox
// (the log, the profile file and the wpa_supplicant configuration are the
// sandbox's own).
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include "service_funs/service_funs.h"
#include "socket_communication/socket_communication.h"
#include "wpacli_monitor/wpacm_internal.h"

namespace {

const char* kWpaConfig = "/tmp/fuzz_wpa_supplicant.conf";

// Thirty networks in range, as a scan would have left them.
std::string scan_reply() {
    std::string reply = "bssid / frequency / signal level / flags / ssid\n";
    const char* flags[] = {"[WPA2-PSK-CCMP][WPS][ESS]", "[ESS]", "[WEP][ESS]",
                           "[WPA-PSK-TKIP][ESS]", "[WPA2-EAP-CCMP][ESS]"};
    for (int i = 0; i < 30; i++) {
        char line[160];
        snprintf(line, sizeof(line), "00:11:22:33:44:%02x\t%d\t%d\t%s\tnet %d\n", i,
                 2412 + 5 * (i % 13), -40 - i, flags[i % 5], i);
        reply += line;
    }
    return reply;
}

struct stand_in {
    wpacli_monitor_data* data = nullptr;
    std::atomic<int> next_status{WIFI_CONNECT_STATUS_CONNECTED};
};

stand_in g_stand_in;

// Answers every job of the queue as soon as it is posted.
void* stand_in_controller(void*) {
    wpa_request* request = &g_stand_in.data->request;
    while (true) {
        pthread_mutex_lock(&request->job_mutex);
        wpacm_job_data_struct* job = wpacm_take_job(request);
        pthread_mutex_unlock(&request->job_mutex);
        if (job == nullptr) {
            usleep(50);
            continue;
        }
        wpacm_update_job_result(g_stand_in.data, job,
                                static_cast<WiFi_Connection_Status>(g_stand_in.next_status.load()));
    }
    return nullptr;
}

void start_stand_in() {
    FILE* fp = fopen(kWpaConfig, "w");
    if (fp != nullptr) {
        fputs("ctrl_interface=/tmp/fuzz_wpa_ctrl\nupdate_config=1\n", fp);
        fclose(fp);
    }
    service_init();
    g_stand_in.data = static_cast<wpacli_monitor_data*>(wpacm_init(kWpaConfig, "wlan0", 10));
    if (g_stand_in.data == nullptr) {
        __builtin_trap();
    }
    std::string reply = scan_reply();
    wpacm_merge_scan_results(&g_stand_in.data->scan_result.scan_result_list, reply.c_str(),
                             wpacm_clock_ms());
    pthread_t thread;
    pthread_create(&thread, nullptr, stand_in_controller, nullptr);
    pthread_detach(thread);
}

}  // namespace

// The handlers start the station's connected script through the shell; here
// the command is only taken note of.
extern "C" int __wrap_system(const char* command) {
    return command == nullptr ? 1 : 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool started = (start_stand_in(), true);
    (void)started;
    if (size == 0 || size > COMM_REQUEST_BUFFER_SIZE) {
        return 0;
    }
    g_stand_in.next_status = data[0] % 17;
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
        return 0;
    }
    // The server hands the handler a buffer of exactly the request's size.
    std::vector<char> request(data, data + size);
    service_call_back_function(fds[0], request.data(), static_cast<int>(request.size()),
                               g_stand_in.data);
    close(fds[0]);
    close(fds[1]);
    return 0;
}
