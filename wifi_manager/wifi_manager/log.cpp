// The log: one line per call, shared by the supervisor, the worker and all of
// the worker's threads, serialised only by an exclusive lock on the file.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "../fixed_paths.h"
#include "wifi_manager.h"

static const char* wifim_log_prefix_format(LogLevel level) {
    switch (level) {
        case LOG_Debug:
            return "%Y/%m/%d %H:%M:%S,DEBUG,";
        case LOG_Info:
            return "%Y/%m/%d %H:%M:%S,INFO ,";
        case LOG_Warn:
            return "%Y/%m/%d %H:%M:%S,WARN ,";
        case LOG_Error:
            return "%Y/%m/%d %H:%M:%S,ERROR,";
        default:
            return "%Y/%m/%d %H:%M:%S,FOCUS,";
    }
}

// A writer that cannot get the lock within about 100 ms gives up: losing a
// line is better than stalling a request thread or the supervisor.
static bool wifim_lock_log_file(int fd) {
    for (int attempt = 1; attempt <= WIFIM_LOG_LOCK_ATTEMPTS; attempt++) {
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
            return true;
        }
        usleep(WIFIM_LOG_LOCK_RETRY_US);
    }
    return false;
}

// Which part of the tail read from a full log survives the cut. Lines end in
// a bare line feed, so a full log normally restarts with a single byte.
static void wifim_choose_kept_tail(const char* tail, long n, long* keep_from, long* keep_size) {
    *keep_from = 0;
    if (n <= 0) {
        *keep_size = 0;
        return;
    }
    if (n == 1 || tail[0] != '\r') {
        *keep_size = 1;
        return;
    }
    long skip = (tail[1] == '\n') ? 2 : 1;
    if (skip >= n - 1) {
        skip = 0;
    }
    *keep_from = skip;
    *keep_size = n - skip;
}

static void wifim_write_all(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t n = write(fd, data, size);
        if (n <= 0) {
            if (n < 0 && errno == EINTR) {
                continue;
            }
            return;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
}

static long wifim_read_all(int fd, char* data, size_t size) {
    size_t total = 0;
    while (total < size) {
        ssize_t n = read(fd, data + total, size - total);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        total += static_cast<size_t>(n);
    }
    return static_cast<long>(total);
}

// Cuts a full log down to its tail. Returns false when the lock could not be
// had, in which case the caller's line is dropped. The log is also written
// from signal handlers, so it uses plain system calls and no heap.
// The log is a root daemon's file at a fixed name in world-writable /tmp:
// a symbolic link planted there must not make the daemon append to, or
// empty, another file, so the open fails instead and the line is lost. The
// lines may carry keys, so the file is the owner's alone whatever the umask
// (the worker runs with umask 0), also when an older file was more open.
static int wifim_open_log_file(const char* filename, int extra_flags) {
    int fd = open(filename, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | extra_flags,
                  WIFIM_LOG_FILE_MODE);
    if (fd < 0) {
        return -1;
    }
    struct stat st;
    if (fstat(fd, &st) == 0 && (st.st_mode & 07777) != WIFIM_LOG_FILE_MODE) {
        fchmod(fd, WIFIM_LOG_FILE_MODE);
    }
    return fd;
}

static bool wifim_shrink_log_file(const char* filename) {
    void* mem = mmap(nullptr, WIFIM_LOG_KEEP_SIZE, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) {
        return true;
    }
    char* tail = static_cast<char*>(mem);
    int fd = open(filename, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        munmap(mem, WIFIM_LOG_KEEP_SIZE);
        return true;
    }
    if (!wifim_lock_log_file(fd)) {
        close(fd);
        munmap(mem, WIFIM_LOG_KEEP_SIZE);
        return false;
    }
    lseek(fd, -WIFIM_LOG_KEEP_SIZE, SEEK_END);
    long n = wifim_read_all(fd, tail, WIFIM_LOG_KEEP_SIZE);
    close(fd);

    long keep_from = 0;
    long keep_size = 0;
    wifim_choose_kept_tail(tail, n, &keep_from, &keep_size);

    bool keep_line = true;
    fd = wifim_open_log_file(filename, O_TRUNC);
    if (fd >= 0) {
        keep_line = wifim_lock_log_file(fd);
        if (keep_line && keep_size > 0) {
            wifim_write_all(fd, tail + keep_from, static_cast<size_t>(keep_size));
        }
        close(fd);
    }
    munmap(mem, WIFIM_LOG_KEEP_SIZE);
    return keep_line;
}

void wifim_append_str_to_file(const char* filename, const char* msg, long file_max_size) {
    struct stat st;
    if (lstat(filename, &st) == 0 && st.st_size >= file_max_size) {
        if (!wifim_shrink_log_file(filename)) {
            return;
        }
    }
    int fd = wifim_open_log_file(filename, O_APPEND);
    if (fd < 0) {
        return;
    }
    if (!wifim_lock_log_file(fd)) {
        close(fd);
        return;
    }
    size_t len = strlen(msg);
    wifim_write_all(fd, msg, len);
    if (len == 0 || msg[len - 1] != '\n') {
        wifim_write_all(fd, "\n", 1);
    }
    close(fd);
}

// The signals whose handlers log. They are held back while this thread
// writes a line, so that a handler never re-enters the log (or the time
// conversion it uses) on the thread it interrupted.
static void wifim_block_logging_signals(sigset_t* saved) {
    sigset_t block;
    sigemptyset(&block);
    sigaddset(&block, SIGTERM);
    sigaddset(&block, SIGINT);
    sigaddset(&block, SIGILL);
    pthread_sigmask(SIG_BLOCK, &block, saved);
}

void wifim_insert_log(LogLevel msg_level, const char* str, ...) {
    if (msg_level < 0 && !g_foreground_flag) {
        return;
    }
    sigset_t saved_mask;
    wifim_block_logging_signals(&saved_mask);
    char line[WIFIM_LOG_LINE_SIZE];
    memset(line, 0, sizeof(line));
    if (str == nullptr) {
        line[0] = '\n';
    } else {
        time_t now = static_cast<time_t>(wifim_wall_clock_ms() / 1000);
        struct tm local;
        localtime_r(&now, &local);
        size_t prefix_len =
            strftime(line, sizeof(line), wifim_log_prefix_format(msg_level), &local);
        va_list args;
        va_start(args, str);
        vsnprintf(line + prefix_len, WIFIM_LOG_LINE_SIZE - 1 - prefix_len, str, args);
        va_end(args);
        if (g_foreground_flag) {
            puts(line);
        }
    }
    if (msg_level >= 0) {
        wifim_append_str_to_file(WIFIM_LOG_FILE, line, WIFIM_LOG_MAX_SIZE);
    }
    pthread_sigmask(SIG_SETMASK, &saved_mask, nullptr);
}
