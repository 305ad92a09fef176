// Process-wide state of the supervisor and the worker.
#include "wifi_manager.h"

#include <stdlib.h>
#include <sys/time.h>
#include <time.h>

bool g_foreground_flag = false;
volatile pid_t g_child_pid = 0;
std::atomic<bool> g_program_exist{false};
int g_ping_pipe_fd[2] = {-1, -1};
volatile pid_t g_supervisor_pid = 0;

// glibc's sleep() is not safe to call from several threads (it may touch
// the process's SIGCHLD disposition); nanosleep() is.
void wifim_sleep_s(unsigned seconds) {
    struct timespec pause = {static_cast<time_t>(seconds), 0};
    nanosleep(&pause, nullptr);
}

void wifim_exit(int status) {
    exit(status);  // NOLINT(concurrency-mt-unsafe): single-threaded here
}

int64_t wifim_monotonic_ms() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

static std::atomic<int64_t> g_wifim_wall_clock_step_ms{0};

int64_t wifim_wall_clock_ms() {
    struct timeval now;
    gettimeofday(&now, nullptr);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_usec / 1000 +
           g_wifim_wall_clock_step_ms.load();
}

void wifim_step_wall_clock(int64_t delta_ms) {
    g_wifim_wall_clock_step_ms += delta_ms;
}
