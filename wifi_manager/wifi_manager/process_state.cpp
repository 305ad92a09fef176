// Process-wide state of the supervisor and the worker.
#include "wifi_manager.h"

#include <stdlib.h>
#include <time.h>

bool g_foreground_flag = false;
volatile pid_t g_child_pid = 0;
std::atomic<bool> g_program_exist{false};
int g_ping_pipe_fd[2] = {-1, -1};

// glibc's sleep() is not safe to call from several threads (it may touch
// the process's SIGCHLD disposition); nanosleep() is.
void wifim_sleep_s(unsigned seconds) {
    struct timespec pause = {static_cast<time_t>(seconds), 0};
    nanosleep(&pause, nullptr);
}

void wifim_exit(int status) {
    exit(status);  // NOLINT(concurrency-mt-unsafe): single-threaded here
}
