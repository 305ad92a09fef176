// The worker's side of the ping pipe. A ping must never hold the worker:
// it may be sent with the job mutex held, so the write end does not block,
// and a supervisor that is gone ends the worker in order instead of leaving
// it to ping into a pipe that nobody reads.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "wifi_manager.h"

void wifim_prepare_ping_pipe() {
    if (g_ping_pipe_fd[0] >= 0) {
        close(g_ping_pipe_fd[0]);
        g_ping_pipe_fd[0] = -1;
    }
    if (g_ping_pipe_fd[1] >= 0) {
        int flags = fcntl(g_ping_pipe_fd[1], F_GETFL);
        if (flags >= 0) {
            fcntl(g_ping_pipe_fd[1], F_SETFL, flags | O_NONBLOCK);
        }
    }
}

// Writes one ping; false only when the pipe has no reader left. SIGPIPE is
// blocked in this thread alone for the write, and the one the write raises
// is taken before the mask is restored: ignoring it process-wide would pass
// the ignored SIGPIPE on to every script the worker runs.
static bool wifim_write_ping(int seconds) {
    sigset_t pipe_signal;
    sigset_t previous;
    sigemptyset(&pipe_signal);
    sigaddset(&pipe_signal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_signal, &previous);
    ssize_t written = write(g_ping_pipe_fd[1], &seconds, sizeof(seconds));
    bool reader_gone = written < 0 && errno == EPIPE;
    if (reader_gone && !sigismember(&previous, SIGPIPE)) {
        struct timespec none = {0, 0};
        sigtimedwait(&pipe_signal, nullptr, &none);
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return !reader_gone;
}

// A worker whose supervisor has died has been handed to another parent.
static bool wifim_supervisor_gone() {
    return g_supervisor_pid > 0 && getppid() != g_supervisor_pid;
}

void wifim_ping_supervisor(int seconds) {
    static std::atomic<bool> reported{false};
    if (g_ping_pipe_fd[1] < 0) {
        return;
    }
    if (wifim_supervisor_gone() || !wifim_write_ping(seconds)) {
        if (!reported.exchange(true)) {
            WIFIM_LOG(LOG_FocusWrite, "Supervisor gone, program closing..");
        }
        g_program_exist = true;
    }
}
