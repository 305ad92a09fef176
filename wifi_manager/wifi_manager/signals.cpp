// Signal handlers of the supervisor and the worker. They log like everything
// else; the log keeps these signals blocked while a thread writes a line, so
// a handler never interrupts a log write of its own thread.
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include "wifi_manager.h"

void wifim_signal_term(int) {
    g_program_exist = true;
    WIFIM_LOG(LOG_Info, "Received terminate signal. program closing..");
    if (g_child_pid > 0) {
        kill(g_child_pid, SIGTERM);
    }
    // A second terminate signal ends the process at once.
    signal(SIGTERM, SIG_DFL);
    signal(SIGINT, SIG_DFL);
}

void wifim_signal_illegal(int) {
    if (g_child_pid > 0) {
        WIFIM_LOG(LOG_Info,
                  "Received exception or illegal signal, child pid:%d, send termate signal to "
                  "child process",
                  static_cast<int>(g_child_pid));
        kill(g_child_pid, SIGTERM);
        return;
    }
    WIFIM_LOG(LOG_Error, "Received exception or illegal signal, child pid:%d, closed process",
              static_cast<int>(g_child_pid));
    g_program_exist = true;
    signal(SIGSEGV, SIG_DFL);
    signal(SIGILL, SIG_DFL);
    signal(SIGFPE, SIG_DFL);
    // Other threads of the worker may still be running (or be the reason for
    // this signal): leave without running exit handlers under their feet.
    _exit(0);
}

// A fault the kernel raised for this very process (si_code above 0) comes
// back as soon as the handler returns to the faulting instruction: after
// the usual handling (the supervisor passes SIGTERM on to its worker), the
// process takes the default action. The same signal sent by another process
// (si_code 0 or below) leaves the supervisor running, as it always has.
static void wifim_signal_fault(int sig, siginfo_t* info, void*) {
    wifim_signal_illegal(sig);
    if (info != nullptr && info->si_code > 0) {
        signal(sig, SIG_DFL);
        raise(sig);
    }
}

void wifim_install_signal_handlers() {
    signal(SIGTERM, wifim_signal_term);
    signal(SIGINT, wifim_signal_term);
    struct sigaction fault = {};
    fault.sa_sigaction = wifim_signal_fault;
    fault.sa_flags = SA_SIGINFO;
    sigemptyset(&fault.sa_mask);
    for (int sig : {SIGSEGV, SIGILL, SIGFPE}) {
        sigaction(sig, &fault, nullptr);
    }
}
