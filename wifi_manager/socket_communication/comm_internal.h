// Internals of the request server, shared by its own files and its tests.
#pragma once

#include <pthread.h>
#include <stdint.h>
#include <sys/types.h>
#include <sys/un.h>
#include <time.h>

#include <atomic>

#include "socket_communication.h"

#define COMM_MAX_REQUESTS_PER_THREAD 100
#define COMM_SOCKET_PATH_SIZE 256
// A service thread that the system refused is tried again after this pause.
#define COMM_THREAD_RETRY_MS 1000

struct communication_server_data;

// One slot of the pool of service threads.
struct service_thread_data {
    int index;
    pthread_t thread_id;  // 0 when the slot has no thread
    volatile int request_count;
    volatile int socket;                   // connection to serve; 0 when idle
    volatile int64_t request_start_clock;  // ms of the monotonic clock
    communication_server_data* comsvr_data;
    service_thread_data* next_data;
};

struct communication_server_data {
    char socket_path[COMM_SOCKET_PATH_SIZE];
    commsvr_service_callback service_callback_fun;
    int socket_fp;
    int max_threads;
    std::atomic<int> stop_service;  // read by every thread without the lock
    pthread_t listen_thread_id;
    pthread_mutex_t thread_data_mutex;
    pthread_cond_t thread_data_condition;
    service_thread_data* thread_data_array;
    service_thread_data* in_used_list;
    service_thread_data* unuse_list;
    void* attach_data;
    // Holders of the server's memory: its owner until commsvr_close, plus
    // every service thread still alive. The last one to leave frees it, so
    // a detached thread never touches freed memory.
    int holders;
    // The socket file this server bound. A worker shutting down removes the
    // path only while it still names this socket: a daemon restarted at once
    // may already have bound a fresh one there.
    dev_t socket_dev;
    ino_t socket_ino;
};

// Milliseconds of the monotonic clock: request time-outs must hold across a
// step of the wall clock, and times() wraps on a 32-bit device.
inline int64_t comm_now_ms() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// A wait without deadline, for the frame readers below.
#define COMM_NO_DEADLINE INT64_MAX

// Frame reading up to a deadline of comm_now_ms's clock (COMM_NO_DEADLINE:
// none): exactly buf_size bytes, or the count read when the deadline
// passed, or -1 on an error or a closed peer.
int comm_receive_until(int fd, void* receive_buf, int buf_size, int64_t deadline_ms);
// One frame by deadline_ms; as commsvr_receive_transfer_data otherwise.
int comm_receive_frame_until(int socket, int64_t deadline_ms, void* buf, int buf_size);

// The channel's report of a failure, when the process has given a function
// for it (commsvr_set_report_function); message is printf-formatted.
void comm_report(const char* function, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// The socket address of a path, cut to what the address can hold.
void comm_unix_address(const char* path, struct sockaddr_un* addr);

void commsvr_return_thread_data_to_unused_list(communication_server_data* commsvr_data,
                                               service_thread_data* thread_data, bool lock_mutex);
