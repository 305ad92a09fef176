// Entry point: the command line decides between the client, the daemon and
// the daemon kept in the foreground.
#include <fcntl.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "../fixed_paths.h"
#include "wifi_manager.h"

#define WIFIM_MIN_BOUND_WIFIAP_INFO 1
#define WIFIM_MAX_BOUND_WIFIAP_INFO 50
// What the daemon's scripts, and what they start, may create: wpa_supplicant
// writes its pid file and, after WPS, its configuration with every key, and
// neither may be writable by others. The daemon's own files get their modes
// explicitly.
#define WIFIM_DAEMON_UMASK 022

static const struct option g_long_options[] = {
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'v'},
    {"foreground", no_argument, nullptr, 'F'},
    {"config", required_argument, nullptr, 'c'},
    {"interface", required_argument, nullptr, 'i'},
    {"timeout", required_argument, nullptr, 'T'},
    {"command", required_argument, nullptr, 'C'},
    {"max_record", required_argument, nullptr, 'm'},
    {nullptr, 0, nullptr, 0},
};

// Numbers are taken as the device's scripts have always passed them: text
// that is not a number counts as 0.
static int wifim_option_number(const char* text) {
    return static_cast<int>(strtol(text, nullptr, 10));
}

static void wifim_parse_options(int argc, char* argv[], wifim_options* options) {
    int opt;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): options are read before any thread
    while ((opt = getopt_long(argc, argv, "hvFc:i:T:C:m:", g_long_options, nullptr)) != -1) {
        switch (opt) {
            case 'F':
                g_foreground_flag = true;
                break;
            case 'c':
                options->wpa_supplicant_config_file = optarg;
                break;
            case 'i':
                options->wifi_interface = optarg;
                break;
            case 'm':
                options->max_bound_wifiap_info = wifim_option_number(optarg);
                break;
            case 'T':
                options->request_timeout = wifim_option_number(optarg);
                break;
            case 'C':
                options->request_command = optarg;
                break;
            default:  // -h, -v and anything unknown
                wifim_display_help(argv[0]);
                wifim_exit(0);
        }
    }
}

static bool wifim_settings_valid(const wifim_options* options) {
    return wifim_file_exist(options->wpa_supplicant_config_file) &&
           options->max_bound_wifiap_info >= WIFIM_MIN_BOUND_WIFIAP_INFO &&
           options->max_bound_wifiap_info <= WIFIM_MAX_BOUND_WIFIAP_INFO;
}

// Keeps a stricter umask the daemon was started with.
static void wifim_restrict_umask() {
    mode_t inherited = umask(WIFIM_DAEMON_UMASK);
    umask(inherited | WIFIM_DAEMON_UMASK);
}

// Leaves the terminal: the first parent exits, the child leads a new session.
static void wifim_detach() {
    pid_t pid = fork();
    if (pid < 0) {
        WIFIM_MAIN_LOG(LOG_FocusWrite, "Can't fork process!!");
        wifim_exit(1);
    }
    if (pid > 0) {
        wifim_exit(0);
    }
    if (setsid() < 0) {
        wifim_exit(1);
    }
    // A daemon started from a script must not hold the script's output
    // open: nothing is printed in the background anyway.
    int null_fd = open("/dev/null", O_RDWR);
    if (null_fd >= 0) {
        dup2(null_fd, STDIN_FILENO);
        dup2(null_fd, STDOUT_FILENO);
        dup2(null_fd, STDERR_FILENO);
        if (null_fd > STDERR_FILENO) {
            close(null_fd);
        }
    }
}

int main(int argc, char* argv[]) {
    // The log is also written from signal handlers: read the time zone now,
    // so that no log line ever has to load it there.
    tzset();
    wifim_options options = {WIFIM_DEFAULT_WPA_CONFIG_FILE, "wlan0", 10, 10, ""};
    wifim_parse_options(argc, argv, &options);

    if (options.request_command[0] != '\0') {
        return wifim_run_client(options.request_command, options.request_timeout);
    }

    if (!wifim_settings_valid(&options)) {
        fprintf(stderr,
                "the config file of wpa_supplicant not exist  or maximum WiFi AP setting "
                "illegal!!\n");
        wifim_display_help(argv[0]);
        return 0;
    }

    wifim_restrict_umask();
    if (g_foreground_flag) {
        // Console lines of a foreground daemon are read as they come. The
        // buffer is given here so that a log line printed from a signal
        // handler never has to allocate one.
        static char console_buffer[BUFSIZ];
        setvbuf(stdout, console_buffer, _IOLBF, sizeof(console_buffer));
    } else {
        wifim_detach();
    }

    wifim_install_signal_handlers();

    // Close-on-exec: a script that held an end would keep a dead worker's
    // pipe open, or a dead supervisor's.
    if (pipe2(g_ping_pipe_fd, O_CLOEXEC) != 0) {
        WIFIM_MAIN_LOG(LOG_FocusWrite, "Can't create pipe, program terminate");
        wifim_exit(1);
    }
    g_supervisor_pid = getpid();
    g_child_pid = fork();
    if (g_child_pid < 0) {
        WIFIM_MAIN_LOG(LOG_FocusWrite, "Can't fork process!!");
        wifim_exit(1);
    }
    if (g_child_pid > 0) {
        // Returns only in a worker forked anew after a restart.
        wifim_monitor_child_process();
    }
    wifim_run_worker(&options);
    return 0;
}
