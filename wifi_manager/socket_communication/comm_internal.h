// Internals of the request server, shared by its own files and its tests.
#pragma once

#include <pthread.h>
#include <sys/times.h>
#include <sys/un.h>

#include <atomic>

#include "socket_communication.h"

#define COMM_MAX_REQUESTS_PER_THREAD 100
#define COMM_SOCKET_PATH_SIZE 256

struct communication_server_data;

// One slot of the pool of service threads.
struct service_thread_data {
    int index;
    pthread_t thread_id;  // 0 when the slot has no thread
    volatile int request_count;
    volatile int socket;  // connection to serve; 0 when idle
    volatile clock_t request_start_clock;
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
};

// The socket address of a path, cut to what the address can hold.
void comm_unix_address(const char* path, struct sockaddr_un* addr);

void commsvr_return_thread_data_to_unused_list(communication_server_data* commsvr_data,
                                               service_thread_data* thread_data, bool lock_mutex);
