// The log: one line per call, shared by the supervisor, the worker and all of
// the worker's threads. A process's threads take turns through a mutex; the
// processes through an exclusive lock on the file, which a writer holds from
// the size check to the end of its line.
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

#include <atomic>

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

static long wifim_read_all_at(int fd, char* data, size_t size, off_t offset) {
    size_t total = 0;
    while (total < size) {
        ssize_t n = pread(fd, data + total, size - total, offset + static_cast<off_t>(total));
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

// The log is a root daemon's file at a fixed name in world-writable /tmp,
// and its lines can carry the user's keys. Only a regular file of the
// daemon's own user with no other name is written to; anything else found at
// the path was planted there (a link to another file, a FIFO that would hang
// every writer, a file another user can read) and is replaced by a fresh
// file. The file is the owner's alone whatever the umask, also when an older
// file was more open.
static bool wifim_log_file_is_own(int fd, struct stat* st) {
    return fstat(fd, st) == 0 && S_ISREG(st->st_mode) && st->st_uid == geteuid() &&
           st->st_nlink == 1;
}

// Removes what was found at the log's path, but only while the path still
// names it, so that two writers replacing the same planted file never
// remove each other's fresh log.
static void wifim_remove_planted(const char* filename, const struct stat* planted) {
    struct stat now;
    if (lstat(filename, &now) == 0 && now.st_dev == planted->st_dev &&
        now.st_ino == planted->st_ino && !S_ISDIR(now.st_mode)) {
        unlink(filename);
    }
}

// Opens the log for appending (and reading, for the shrink), without
// blocking on whatever the path names. -1 when no log can be had: the line
// is lost.
static int wifim_open_log_file(const char* filename) {
    const int flags = O_RDWR | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    int fd = open(filename, flags | O_CREAT, WIFIM_LOG_FILE_MODE);
    struct stat st;
    if (fd >= 0 && wifim_log_file_is_own(fd, &st)) {
        if ((st.st_mode & 07777) != WIFIM_LOG_FILE_MODE) {
            fchmod(fd, WIFIM_LOG_FILE_MODE);
        }
        return fd;
    }
    if (fd >= 0) {
        close(fd);
        wifim_remove_planted(filename, &st);
    } else if (errno == ELOOP || errno == ENXIO || errno == EACCES || errno == EPERM) {
        // A link, a FIFO without reader, a socket, another user's file.
        if (lstat(filename, &st) == 0) {
            wifim_remove_planted(filename, &st);
        }
    } else {
        return -1;
    }
    fd = open(filename, flags | O_CREAT | O_EXCL, WIFIM_LOG_FILE_MODE);
    if (fd >= 0 && !wifim_log_file_is_own(fd, &st)) {
        close(fd);
        return -1;
    }
    if (fd >= 0) {
        fchmod(fd, WIFIM_LOG_FILE_MODE);
    }
    return fd;
}

// Cuts a full log down to its tail. Runs under the writer's lock, from the
// read of the tail to the rewrite, so that no line another writer appends
// meanwhile is lost with the cut. The log is also written from signal
// handlers, so it uses plain system calls and no heap.
static void wifim_shrink_locked_log(int fd, off_t size) {
    void* mem = mmap(nullptr, WIFIM_LOG_KEEP_SIZE, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) {
        return;
    }
    char* tail = static_cast<char*>(mem);
    off_t from = size > WIFIM_LOG_KEEP_SIZE ? size - WIFIM_LOG_KEEP_SIZE : 0;
    long n = wifim_read_all_at(fd, tail, WIFIM_LOG_KEEP_SIZE, from);

    long keep_from = 0;
    long keep_size = 0;
    wifim_choose_kept_tail(tail, n, &keep_from, &keep_size);
    if (ftruncate(fd, 0) == 0 && keep_size > 0) {
        wifim_write_all(fd, tail + keep_from, static_cast<size_t>(keep_size));
    }
    munmap(mem, WIFIM_LOG_KEEP_SIZE);
}

// Appends one line; false when it was lost (no file, no lock).
static bool wifim_append_line(const char* filename, const char* msg, long file_max_size) {
    int fd = wifim_open_log_file(filename);
    if (fd < 0) {
        return false;
    }
    if (!wifim_lock_log_file(fd)) {
        close(fd);
        return false;
    }
    struct stat st;
    if (fstat(fd, &st) == 0 && st.st_size >= file_max_size) {
        wifim_shrink_locked_log(fd, st.st_size);
    }
    size_t len = strlen(msg);
    wifim_write_all(fd, msg, len);
    if (len == 0 || msg[len - 1] != '\n') {
        wifim_write_all(fd, "\n", 1);
    }
    close(fd);
    return true;
}

// The threads of one process take turns on the log through a mutex of its
// own, so they wait for each other without sleeping; the file lock, with its
// paced attempts, is left to the two processes that share the file (the
// supervisor and the worker). The mutex is recursive: a fault raised inside
// a log write runs its handler, which logs too, on the same thread, and that
// handler must get its turn rather than wait for ever on its own thread.
// (The other signals whose handlers log are held back during a write.)
static pthread_mutex_t g_wifim_log_mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

static bool wifim_append_line_in_turn(const char* filename, const char* msg, long file_max_size) {
    pthread_mutex_lock(&g_wifim_log_mutex);
    bool written = wifim_append_line(filename, msg, file_max_size);
    pthread_mutex_unlock(&g_wifim_log_mutex);
    return written;
}

void wifim_append_str_to_file(const char* filename, const char* msg, long file_max_size) {
    wifim_append_line_in_turn(filename, msg, file_max_size);
}

#ifdef WIFIM_LOG_COUNTERS
// Benchmark builds count every line the daemon tries to write and every line
// that reaches the file, in a small file that the supervisor and the worker
// both map, so that a benchmark can tell how many lines were lost under
// load. (A reader following the log could not: the cut of a full log
// removes whatever was appended since that reader's last look.)
struct wifim_log_counters {
    std::atomic<uint64_t> attempted;
    std::atomic<uint64_t> written;
};

static wifim_log_counters* wifim_map_log_counters() {
    int fd = open(WIFIM_LOG_COUNTERS_FILE, O_RDWR | O_CREAT | O_CLOEXEC, WIFIM_LOG_FILE_MODE);
    if (fd < 0) {
        return nullptr;
    }
    void* mem = MAP_FAILED;
    if (ftruncate(fd, sizeof(wifim_log_counters)) == 0) {
        mem = mmap(nullptr, sizeof(wifim_log_counters), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    }
    close(fd);
    return mem == MAP_FAILED ? nullptr : static_cast<wifim_log_counters*>(mem);
}

static void wifim_count_log_line(bool written) {
    static wifim_log_counters* counters = wifim_map_log_counters();
    if (counters != nullptr) {
        counters->attempted++;
        if (written) {
            counters->written++;
        }
    }
}
#else
static void wifim_count_log_line(bool) {}
#endif

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
        wifim_count_log_line(wifim_append_line_in_turn(WIFIM_LOG_FILE, line, WIFIM_LOG_MAX_SIZE));
    }
    pthread_sigmask(SIG_SETMASK, &saved_mask, nullptr);
}
