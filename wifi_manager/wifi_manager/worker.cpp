// The worker: everything the daemon does, started and stopped in one order.
#include <malloc.h>
#include <sys/stat.h>
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

void* g_wpacli_data = nullptr;

void wifim_run_worker(const wifim_options* options) {
    // A handful of threads that each allocate a few kilobytes per request:
    // one heap serves them, where glibc would give each thread an arena of
    // its own and keep their pages resident. Set before any thread starts.
    mallopt(M_ARENA_MAX, 1);  // NOLINT(concurrency-mt-unsafe)
    umask(0);
    setsid();
    wifim_install_signal_handlers();
    WIFIM_MAIN_LOG(LOG_FocusWrite, "Program start -- Version: " WIFIM_VERSION);

    g_wpacli_data = wpacm_init(options->wpa_supplicant_config_file, options->wifi_interface,
                               options->max_bound_wifiap_info);
    service_init();
    void* server = commsvr_init(WIFIM_SOCKET_FILE, WIFIM_SERVICE_THREADS,
                                service_call_back_function, g_wpacli_data);
    if (g_wpacli_data == nullptr) {
        // Without a controller the worker never pings: the supervisor
        // restarts it once its allowance has run out.
        WIFIM_MAIN_LOG(LOG_FocusWrite, "Can't initialize wpa monitor");
        wifim_sleep_s(WIFIM_NO_CONTROLLER_PAUSE_S);
    } else {
        wpacm_service(g_wpacli_data);
    }

    commsvr_close(server);
    wpacm_close(g_wpacli_data);
    close(g_ping_pipe_fd[0]);
    close(g_ping_pipe_fd[1]);
    WIFIM_MAIN_LOG(LOG_FocusWrite, "Program close");
    // The controller is closed, so no request can reach it any more.
    exit(0);  // NOLINT(concurrency-mt-unsafe)
}
