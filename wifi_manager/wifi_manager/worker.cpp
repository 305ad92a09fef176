// The worker: everything the daemon does, started and stopped in one order.
#include <sys/stat.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include "../fixed_paths.h"
#include "service_funs/service_funs.h"
#include "socket_communication/socket_communication.h"
#include "wifi_manager.h"

#define WIFIM_SERVICE_THREADS 5
#define WIFIM_IDLE_PING_S 30
#define WIFIM_IDLE_PING_PERIOD_S 2

// Keeps the worker alive and pinging until it is told to stop.
static void wifim_serve_until_stopped() {
    time_t next_ping = 0;
    while (!g_program_exist) {
        time_t now = time(nullptr);
        if (now >= next_ping) {
            int seconds = WIFIM_IDLE_PING_S;
            ssize_t ignored = write(g_ping_pipe_fd[1], &seconds, sizeof(seconds));
            (void)ignored;
            next_ping = now + WIFIM_IDLE_PING_PERIOD_S;
        }
        sleep(1);
    }
}

void wifim_run_worker(const wifim_options* options) {
    (void)options;
    umask(0);
    setsid();
    wifim_install_signal_handlers();
    WIFIM_MAIN_LOG(LOG_FocusWrite, "Program start -- Version: " WIFIM_VERSION);

    void* controller = nullptr;
    service_init();
    void* server = commsvr_init(WIFIM_SOCKET_FILE, WIFIM_SERVICE_THREADS,
                                service_call_back_function, controller);
    wifim_serve_until_stopped();

    commsvr_close(server);
    close(g_ping_pipe_fd[0]);
    close(g_ping_pipe_fd[1]);
    WIFIM_MAIN_LOG(LOG_FocusWrite, "Program close");
    exit(0);
}
