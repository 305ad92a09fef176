// The supervisor: watches the worker's pings and restarts a worker that has
// fallen silent, together with the station, through the station scripts.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include "../fixed_paths.h"
#include "wifi_manager.h"

#define WIFIM_FIRST_PING_ALLOWANCE_S 30
#define WIFIM_PING_MIN_S 10
#define WIFIM_PING_MAX_S 150
#define WIFIM_KILL_WAIT_S 2
#define WIFIM_AFTER_STOP_SCRIPT_S 10
#define WIFIM_AFTER_START_SCRIPT_S 5
// How long a terminated supervisor waits for its worker's orderly end: the
// worker's service loop and its request listener see the signal within
// about a second, the controller waits up to 10 s for callers still inside
// it and writes the profile back (about a second with its retries), and the
// request threads get up to 5 s: 18 s at most. systemd (KillMode=mixed)
// kills what is left once the supervisor has exited, and its stop time-out
// of 20 s comes after this.
#define WIFIM_WORKER_END_WAIT_MS 18000
#define WIFIM_WORKER_END_POLL_MS 20

// Seconds the worker asks for until its next ping, kept within what a healthy
// worker can need.
int wifim_clamp_ping(int seconds) {
    if (seconds < WIFIM_PING_MIN_S) {
        return WIFIM_PING_MIN_S;
    }
    if (seconds > WIFIM_PING_MAX_S) {
        return WIFIM_PING_MAX_S;
    }
    return seconds;
}

static void wifim_close_pipe_end(int end) {
    if (g_ping_pipe_fd[end] >= 0) {
        close(g_ping_pipe_fd[end]);
        g_ping_pipe_fd[end] = -1;
    }
}

// Waits one second for a ping. Returns the new allowance, or the old one
// when nothing arrived. The end of the pipe means that the worker has
// ended (only it holds the write end): the pipe is no longer watched, and
// the rest of the allowance runs out as for a worker fallen silent.
static int wifim_wait_for_ping(int l_timeout, unsigned* l_wait_count) {
    fd_set l_fds;
    FD_ZERO(&l_fds);
    int watched = g_ping_pipe_fd[0];
    if (watched >= 0) {
        FD_SET(watched, &l_fds);
    }
    struct timeval wait = {1, 0};
    if (select(watched + 1, &l_fds, nullptr, nullptr, &wait) <= 0 || watched < 0 ||
        !FD_ISSET(watched, &l_fds)) {
        return l_timeout;
    }
    int l_receive_data = 0;
    ssize_t got = read(watched, &l_receive_data, sizeof(l_receive_data));
    if (got == 0) {
        wifim_close_pipe_end(0);
        return l_timeout;
    }
    *l_wait_count = 0;
    if (got > 0) {
        return wifim_clamp_ping(l_receive_data);
    }
    return WIFIM_FIRST_PING_ALLOWANCE_S;
}

// Counts down the worker's allowance; returns false when the daemon is to end.
static bool wifim_watch_until_overdue(unsigned* l_wait_count) {
    int l_timeout = WIFIM_FIRST_PING_ALLOWANCE_S;
    do {
        l_timeout = wifim_wait_for_ping(l_timeout, l_wait_count);
        if (g_program_exist) {
            return false;
        }
        // Every round counts, also the one in which a ping arrived.
        l_timeout--;
    } while (l_timeout > 0);
    return true;
}

static void wifim_kill_child() {
    kill(g_child_pid, SIGTERM);
    wifim_sleep_s(WIFIM_KILL_WAIT_S);
    kill(g_child_pid, SIGKILL);
    wifim_sleep_s(WIFIM_KILL_WAIT_S);
    kill(g_child_pid, SIGKILL);
    wait(nullptr);
}

static void wifim_restart_station() {
    wifim_close_pipe_end(0);
    wifim_close_pipe_end(1);
    // The scripts report nothing the supervisor could act on: the new
    // worker finds out itself whether the station came back.
    int stop_status = system(WIFIM_STATION_STOP_COMMAND);
    (void)stop_status;
    wifim_sleep_s(WIFIM_AFTER_STOP_SCRIPT_S);
    int start_status = system(WIFIM_STATION_START_COMMAND);
    (void)start_status;
    wifim_sleep_s(WIFIM_AFTER_START_SCRIPT_S);
}

// A terminated supervisor ends only after its worker, which it has passed
// the signal on to; a worker that overstays the bound is killed.
static void wifim_wait_for_worker_end() {
    int64_t deadline = wifim_monotonic_ms() + WIFIM_WORKER_END_WAIT_MS;
    for (;;) {
        pid_t ended = waitpid(g_child_pid, nullptr, WNOHANG);
        if (ended == g_child_pid || (ended < 0 && errno != EINTR)) {
            return;  // ended, or already reaped by a restart
        }
        if (wifim_monotonic_ms() >= deadline) {
            break;
        }
        struct timespec pause = {0, WIFIM_WORKER_END_POLL_MS * 1000L * 1000L};
        nanosleep(&pause, nullptr);
    }
    WIFIM_LOG(LOG_FocusWrite, "Child process not closed in time, kill it");
    kill(g_child_pid, SIGKILL);
    waitpid(g_child_pid, nullptr, 0);
}

void wifim_monitor_child_process() {
    unsigned l_wait_count = 0;
    // The write end is the worker's alone: its end then shows as the pipe's.
    wifim_close_pipe_end(1);
    while (!g_program_exist && g_child_pid > 0) {
        if (!wifim_watch_until_overdue(&l_wait_count)) {
            break;
        }
        l_wait_count++;
        WIFIM_LOG(LOG_Info,
                  "Can't receive child ping message, wait count:%u, terminating child process",
                  l_wait_count);
        wifim_kill_child();
        if (g_program_exist) {
            break;
        }
        WIFIM_LOG(LOG_FocusWrite, "Restart child process");
        wifim_restart_station();
        if (pipe2(g_ping_pipe_fd, O_CLOEXEC) != 0) {
            WIFIM_LOG(LOG_FocusWrite, "Can't create pipe, program terminate");
            wifim_exit(1);
        }
        g_supervisor_pid = getpid();
        g_child_pid = fork();
        if (g_child_pid < 0) {
            WIFIM_LOG(LOG_FocusWrite, "Can't fork process!!");
            wifim_exit(1);
        }
        if (g_child_pid > 0) {
            wifim_close_pipe_end(1);
        }
    }
    if (g_child_pid > 0) {
        wifim_wait_for_worker_end();
        wifim_exit(0);
    }
}
