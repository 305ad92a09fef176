// The worker: everything the daemon does, started and stopped in one order.
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include "../fixed_paths.h"
#include "service_funs/service_funs.h"
#include "socket_communication/socket_communication.h"
#include "wpacli_monitor/wpacli_monitor.h"
#include "wifi_manager.h"

#define WIFIM_SERVICE_THREADS 5
#define WIFIM_NO_CONTROLLER_PAUSE_S 3
#define WIFIM_THREADS_LEAVE_MS 5000

void* g_wpacli_data = nullptr;

// The request channel's failures, in the daemon's log under the channel's
// own name.
static void wifim_log_channel_failure(const char* function, const char* message) {
    WIFIM_LOG_AT(LOG_Error, "socket_communication.cpp", function, "%s", message);
}

void wifim_run_worker(const wifim_options* options) {
    // A handful of threads that each allocate a few kilobytes per request:
    // one heap serves them, where glibc would give each thread an arena of
    // its own and keep their pages resident. Set before any thread starts.
    mallopt(M_ARENA_MAX, 1);  // NOLINT(concurrency-mt-unsafe)
    setsid();
    wifim_install_signal_handlers();
    wifim_prepare_ping_pipe();
    commsvr_set_report_function(wifim_log_channel_failure);
    WIFIM_MAIN_LOG(LOG_FocusWrite, "Program start -- Version: " WIFIM_VERSION);

    g_wpacli_data = wpacm_init(options->wpa_supplicant_config_file, options->wifi_interface,
                               options->max_bound_wifiap_info);
    service_init();
    void* server = commsvr_init(WIFIM_SOCKET_FILE, WIFIM_SERVICE_THREADS,
                                service_call_back_function, g_wpacli_data);
    if (server == nullptr) {
        // A worker nobody can reach is of no use: it ends, and the
        // supervisor starts another once its allowance has run out.
        WIFIM_MAIN_LOG(LOG_FocusWrite, "Can't initialize request server, socket file:%s",
                       WIFIM_SOCKET_FILE);
    } else if (g_wpacli_data == nullptr) {
        // Without a controller the worker never pings: the supervisor
        // restarts it once its allowance has run out.
        WIFIM_MAIN_LOG(LOG_FocusWrite, "Can't initialize wpa monitor");
        wifim_sleep_s(WIFIM_NO_CONTROLLER_PAUSE_S);
    } else {
        wpacm_service(g_wpacli_data);
    }

    commsvr_close(server);
    wpacm_close(g_wpacli_data);
    // The request server's detached service threads leave within about a
    // second of its close; exit handlers and static destructors must not run
    // under them.
    bool threads_gone = commsvr_wait_service_threads(WIFIM_THREADS_LEAVE_MS);
    close(g_ping_pipe_fd[1]);
    WIFIM_MAIN_LOG(LOG_FocusWrite, "Program close");
    if (!threads_gone) {
        // One is stuck: end without the destructors, as a lost worker would.
        fflush(nullptr);
        _exit(0);
    }
    exit(0);  // NOLINT(concurrency-mt-unsafe): the worker's threads have ended
}
