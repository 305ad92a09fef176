// The log: one line per call, shared by the supervisor, the worker and all of
// the worker's threads, serialised only by an exclusive lock on the file.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
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
static bool wifim_lock_log_file(FILE* fp) {
    for (int attempt = 1; attempt <= WIFIM_LOG_LOCK_ATTEMPTS; attempt++) {
        if (flock(fileno(fp), LOCK_EX | LOCK_NB) == 0) {
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
    if (n == 1) {
        *keep_size = 1;
        return;
    }
    if (tail[0] != '\r') {
        *keep_size = 1;
        return;
    }
    long skip = 1;
    if (tail[1] == '\n') {
        skip = 2;
    }
    if (skip >= n - 1) {
        skip = 0;
    }
    *keep_from = skip;
    *keep_size = n - skip;
}

// Cuts a full log down to its tail. Returns false when the lock could not be
// had, in which case the caller's line is dropped.
static bool wifim_shrink_log_file(const char* filename) {
    char* tail = static_cast<char*>(malloc(WIFIM_LOG_KEEP_SIZE));
    if (tail == nullptr) {
        return true;
    }
    FILE* fp = fopen(filename, "r");
    if (fp == nullptr) {
        free(tail);
        return true;
    }
    if (!wifim_lock_log_file(fp)) {
        fclose(fp);
        free(tail);
        return false;
    }
    fseek(fp, -WIFIM_LOG_KEEP_SIZE, SEEK_END);
    long n = static_cast<long>(fread(tail, 1, WIFIM_LOG_KEEP_SIZE, fp));
    fclose(fp);

    long keep_from = 0;
    long keep_size = 0;
    wifim_choose_kept_tail(tail, n, &keep_from, &keep_size);

    fp = fopen(filename, "w");
    if (fp == nullptr) {
        free(tail);
        return true;
    }
    if (!wifim_lock_log_file(fp)) {
        fclose(fp);
        free(tail);
        return false;
    }
    if (keep_size > 0) {
        fwrite(tail + keep_from, 1, static_cast<size_t>(keep_size), fp);
    }
    fclose(fp);
    free(tail);
    return true;
}

void wifim_append_str_to_file(const char* filename, const char* msg, long file_max_size) {
    struct stat st;
    if (stat(filename, &st) == 0 && st.st_size >= file_max_size) {
        if (!wifim_shrink_log_file(filename)) {
            return;
        }
    }
    FILE* fp = fopen(filename, "a+");
    if (fp == nullptr) {
        return;
    }
    if (!wifim_lock_log_file(fp)) {
        fclose(fp);
        return;
    }
    fseek(fp, 0, SEEK_END);
    fputs(msg, fp);
    size_t len = strlen(msg);
    if (len == 0 || msg[len - 1] != '\n') {
        fputc('\n', fp);
    }
    fclose(fp);
}

void wifim_insert_log(LogLevel msg_level, const char* str, ...) {
    if (msg_level < 0 && !g_foreground_flag) {
        return;
    }
    char line[WIFIM_LOG_LINE_SIZE];
    memset(line, 0, sizeof(line));
    if (str == nullptr) {
        line[0] = '\n';
    } else {
        time_t now = time(nullptr);
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
    if (msg_level < 0) {
        return;
    }
    wifim_append_str_to_file(WIFIM_LOG_FILE, line, WIFIM_LOG_MAX_SIZE);
}
