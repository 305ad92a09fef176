// Process frame: command line, run modes, worker supervision and the log.
#pragma once

#include <pthread.h>
#include <stdint.h>
#include <sys/types.h>

#include <atomic>
#include <string>

#define WIFIM_VERSION "1.0.4"

// Log levels. Any value other than 0..3 is written with the "FOCUS," prefix.
enum LogLevel {
    LOG_None = -1,  // console only, and only in foreground mode
    LOG_Debug = 0,
    LOG_Info = 1,
    LOG_Warn = 2,
    LOG_Error = 3,
    LOG_FocusWrite = 999,
};

// Log file limits: a file that reaches the limit is cut down to its tail.
#define WIFIM_LOG_LINE_SIZE 1024
#define WIFIM_LOG_MAX_SIZE 102400
#define WIFIM_LOG_KEEP_SIZE 92160
#define WIFIM_LOG_LOCK_ATTEMPTS 10
#define WIFIM_LOG_LOCK_RETRY_US 10000
// Only the owner reads the log: its lines can carry the user's keys.
#define WIFIM_LOG_FILE_MODE 0600

// Process-wide state shared by the supervisor, the worker and the log.
extern bool g_foreground_flag;
extern volatile pid_t g_child_pid;
// Set by the terminate signal; every wait loop of both processes polls it.
// Atomic because it is written by a handler and read by many threads.
extern std::atomic<bool> g_program_exist;
extern int g_ping_pipe_fd[2];
// The supervisor's pid, as the worker was forked; 0 where there is no
// supervisor (a process that only uses the controller).
extern volatile pid_t g_supervisor_pid;
// The worker's station controller, once started.
extern void* g_wpacli_data;

// Writes one line "<date> <time>,<LEVEL>,<message>" to the log file (and to
// the console in foreground mode). Never fails visibly: a line that cannot be
// written is lost.
void wifim_insert_log(LogLevel msg_level, const char* str, ...)
    __attribute__((format(printf, 2, 3)));
// The file half of the log: appends msg, first shrinking a file that has
// reached file_max_size bytes to its last WIFIM_LOG_KEEP_SIZE bytes.
void wifim_append_str_to_file(const char* filename, const char* msg, long file_max_size);

// Every message starts with the thread id, the source file's name, the
// function and the line, so that log readers can find where it came from.
#define WIFIM_LOG_AT(level, source, function, fmt, ...)                              \
    wifim_insert_log(level, "tid:%lu," source "-%s[%d], " fmt,                       \
                     static_cast<unsigned long>(pthread_self()), function, __LINE__, \
                     ##__VA_ARGS__)
#define WIFIM_LOG(level, fmt, ...) \
    WIFIM_LOG_AT(level, "wifi_manager.cpp", __func__, fmt, ##__VA_ARGS__)
// Start-up and shut-down lines of the daemon are reported as coming from main.
#define WIFIM_MAIN_LOG(level, fmt, ...) \
    WIFIM_LOG_AT(level, "wifi_manager.cpp", "main", fmt, ##__VA_ARGS__)

// Ends the supervisor, or the process before it forks: one thread only, so
// the exit handlers run alone.
[[noreturn]] void wifim_exit(int status);

// Sleeps whole seconds; a signal cuts the sleep short, as with sleep().
void wifim_sleep_s(unsigned seconds);

// The two clocks of the daemon. A camera without a battery-backed clock steps
// its wall clock when it first reaches a time server, so every decision (a
// deadline, a schedule, a time-out) is taken on the monotonic clock, which
// only moves forward; the wall clock is read only for what people read: the
// log's dates and the times its lines print.
int64_t wifim_monotonic_ms();
int64_t wifim_wall_clock_ms();
// Moves the daemon's own wall-clock reads by delta_ms, as a step of the
// system clock would; lets tests step the clock without owning the host's.
void wifim_step_wall_clock(int64_t delta_ms);

// lstat-based existence checks: a symbolic link counts as a file whatever it
// points to; a directory is not a file.
bool wifim_file_exist(const char* path);
bool wifim_folder_exist(const char* path);
// The whole of a file as text; false (and text empty) when it cannot be
// opened.
bool wifim_read_text_file(const char* path, std::string* text);

void wifim_display_help(const char* program_name);

// Options of the command line.
struct wifim_options {
    const char* wpa_supplicant_config_file;
    const char* wifi_interface;
    int max_bound_wifiap_info;
    int request_timeout;  // seconds, client mode
    const char* request_command;
};
// Client mode: one request to the running daemon; prints the outcome lines.
int wifim_run_client(const char* request_command, int request_timeout);
// The worker: starts the controller, the request services and the request
// server, serves until told to stop, then shuts down in order and exits.
void wifim_run_worker(const wifim_options* options);
// Installs the terminate and illegal-signal handlers.
void wifim_install_signal_handlers();
// Worker side of the ping pipe: closes the supervisor's end and makes the
// worker's own end never block.
void wifim_prepare_ping_pipe();
// Sends a ping granting `seconds` until the next one. A worker whose
// supervisor is gone logs it and ends itself in order (g_program_exist); a
// ping that does not fit into a full pipe is dropped.
void wifim_ping_supervisor(int seconds);

// The allowance a ping grants, clamped to 10..150 seconds.
int wifim_clamp_ping(int seconds);
// Supervisor loop; returns only in a freshly forked worker (g_child_pid 0).
void wifim_monitor_child_process();
void wifim_signal_term(int sig);
void wifim_signal_illegal(int sig);
