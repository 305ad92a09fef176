// The request server: a listening thread hands each connection to one of a
// fixed pool of detached service threads; one framed request per connection.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <new>

#include "../slot_list.h"
#include "comm_internal.h"

#define COMM_SOCKET_MODE 0666
// A listener that cannot accept for want of descriptors or memory tries
// again after this pause: the waiting client keeps its socket readable.
#define COMM_ACCEPT_RETRY_MS 1000
#define COMM_REPORT_SIZE 256

static std::atomic<int> g_commsvr_live_threads{0};
static std::atomic<commsvr_report_function> g_commsvr_report{nullptr};

void commsvr_set_report_function(commsvr_report_function report) {
    g_commsvr_report = report;
}

void comm_report(const char* function, const char* format, ...) {
    commsvr_report_function report = g_commsvr_report;
    if (report == nullptr) {
        return;
    }
    char message[COMM_REPORT_SIZE];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof(message), format, args);
    va_end(args);
    report(function, message);
}

int commsvr_live_service_threads() {
    return g_commsvr_live_threads;
}

bool commsvr_wait_service_threads(int timeout_ms) {
    int64_t deadline = comm_now_ms() + timeout_ms;
    while (g_commsvr_live_threads > 0 && comm_now_ms() < deadline) {
        struct timespec pause = {0, 10L * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
    return g_commsvr_live_threads == 0;
}

// Waits on the condition (mutex held) for up to timeout_ms of the monotonic
// clock, which a step of the wall clock does not move.
static void comm_wait_ms(communication_server_data* server, int timeout_ms) {
    struct timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += timeout_ms / 1000;
    deadline.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1000000;
    if (deadline.tv_nsec >= 1000000000) {
        deadline.tv_sec++;
        deadline.tv_nsec -= 1000000000;
    }
    pthread_cond_timedwait(&server->thread_data_condition, &server->thread_data_mutex, &deadline);
}

static void comm_wait_one_second(communication_server_data* server) {
    comm_wait_ms(server, 1000);
}

static void comm_free_server(communication_server_data* server) {
    pthread_mutex_destroy(&server->thread_data_mutex);
    pthread_cond_destroy(&server->thread_data_condition);
    free(server->thread_data_array);
    server->~communication_server_data();
    free(server);
}

// Gives up one hold on the server; the last holder frees it.
static void comm_release_server(communication_server_data* server) {
    pthread_mutex_lock(&server->thread_data_mutex);
    bool last = --server->holders == 0;
    pthread_mutex_unlock(&server->thread_data_mutex);
    if (last) {
        comm_free_server(server);
    }
}

// Slots whose thread is alive go before slots that would need a new thread,
// so live threads are reused first.
static void comm_insert_unused(communication_server_data* server, service_thread_data* slot) {
    wifim_slot_list_insert(
        &server->unuse_list, slot, &service_thread_data::next_data,
        [slot](const service_thread_data& other) {
            return other.thread_id == 0 && slot->thread_id != 0;
        },
        false);
}

void commsvr_return_thread_data_to_unused_list(communication_server_data* commsvr_data,
                                               service_thread_data* thread_data, bool lock_mutex) {
    if (lock_mutex) {
        pthread_mutex_lock(&commsvr_data->thread_data_mutex);
    }
    thread_data->request_start_clock = 0;
    thread_data->socket = 0;
    wifim_slot_list_unlink(&commsvr_data->in_used_list, thread_data,
                           &service_thread_data::next_data);
    if (!wifim_slot_list_holds(commsvr_data->unuse_list, thread_data,
                               &service_thread_data::next_data)) {
        comm_insert_unused(commsvr_data, thread_data);
    }
    if (lock_mutex) {
        pthread_cond_broadcast(&commsvr_data->thread_data_condition);
        pthread_mutex_unlock(&commsvr_data->thread_data_mutex);
    }
}

// Serves one connection. The frame reader closes a connection whose frame
// is bad; a good one is closed here, once, so that a descriptor number that
// another thread may already have been given is never closed twice.
// The request's time runs from the connection's acceptance (accepted_ms).
static void comm_serve_connection(communication_server_data* server, int socket,
                                  int64_t accepted_ms) {
    char buffer[COMM_REQUEST_BUFFER_SIZE];
    memset(buffer, 0, sizeof(buffer));
    int size = comm_receive_frame_until(socket, accepted_ms + COMM_REQUEST_TIMEOUT_MS, buffer,
                                        COMM_REQUEST_BUFFER_SIZE);
    if (size <= 0) {
        return;
    }
    if (!server->stop_service) {
        server->service_callback_fun(socket, buffer, size, server->attach_data);
    }
    close(socket);
}

static void* commsvr_service_thread(void* arg) {
    service_thread_data* slot = static_cast<service_thread_data*>(arg);
    communication_server_data* server = slot->comsvr_data;
    pthread_mutex_lock(&server->thread_data_mutex);
    slot->thread_id = pthread_self();
    bool stopping = false;
    while (slot->request_count <= COMM_MAX_REQUESTS_PER_THREAD && !stopping) {
        while (slot->socket == 0 && !server->stop_service) {
            comm_wait_one_second(server);
        }
        if (slot->socket == 0) {
            break;  // stopping with nothing to serve
        }
        int socket = slot->socket;
        int64_t accepted_ms = slot->request_start_clock;
        pthread_mutex_unlock(&server->thread_data_mutex);
        comm_serve_connection(server, socket, accepted_ms);
        pthread_mutex_lock(&server->thread_data_mutex);
        commsvr_return_thread_data_to_unused_list(server, slot, false);
        pthread_cond_broadcast(&server->thread_data_condition);
        stopping = server->stop_service;
    }
    if (!stopping && slot->request_count > COMM_MAX_REQUESTS_PER_THREAD) {
        // Retire; the listener starts a fresh thread for this slot.
        slot->request_count = 0;
        slot->request_start_clock = 0;
        slot->thread_id = 0;
        slot->socket = 0;
        commsvr_return_thread_data_to_unused_list(server, slot, false);
        pthread_cond_broadcast(&server->thread_data_condition);
    }
    pthread_mutex_unlock(&server->thread_data_mutex);
    comm_release_server(server);
    // The last thing this thread does: the worker waits for the count to
    // reach 0 before it ends the process.
    g_commsvr_live_threads--;
    return nullptr;
}

static bool comm_start_service_thread(communication_server_data* server,
                                      service_thread_data* slot) {
    slot->request_count = 0;
    slot->socket = 0;
    slot->request_start_clock = 0;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    server->holders++;
    g_commsvr_live_threads++;
    pthread_t thread;
    bool started = pthread_create(&thread, &attr, commsvr_service_thread, slot) == 0;
    pthread_attr_destroy(&attr);
    if (started) {
        slot->thread_id = thread;
    } else {
        server->holders--;
        g_commsvr_live_threads--;
    }
    return started;
}

// Takes a free slot for the next connection, waiting while all are busy
// (further clients wait in the kernel's queue meanwhile). Null on stop.
// When the system refuses a thread for the slot (no memory, too many
// threads), the slot goes back and the listener tries again a second
// later; nothing is accepted meanwhile, so no client is left with a
// connection that nobody serves.
static service_thread_data* comm_take_free_slot(communication_server_data* server) {
    pthread_mutex_lock(&server->thread_data_mutex);
    while (!server->stop_service) {
        service_thread_data* slot =
            wifim_slot_list_take(&server->unuse_list, &service_thread_data::next_data);
        if (slot == nullptr) {
            comm_wait_one_second(server);
            continue;
        }
        wifim_slot_list_push(&server->in_used_list, slot, &service_thread_data::next_data);
        if (slot->thread_id != 0 || comm_start_service_thread(server, slot)) {
            pthread_mutex_unlock(&server->thread_data_mutex);
            return slot;
        }
        commsvr_return_thread_data_to_unused_list(server, slot, false);
        comm_wait_ms(server, COMM_THREAD_RETRY_MS);
    }
    pthread_mutex_unlock(&server->thread_data_mutex);
    return nullptr;
}

static bool comm_wait_for_client(communication_server_data* server) {
    while (!server->stop_service) {
        fd_set fds;
        FD_ZERO(&fds);
        FD_SET(server->socket_fp, &fds);
        struct timeval round = {1, 0};
        if (select(server->socket_fp + 1, &fds, nullptr, nullptr, &round) > 0) {
            return !server->stop_service;
        }
    }
    return false;
}

// Failures of accept that a retry at once cannot cure: the client stays
// queued and its socket readable, so the listener would spin.
static bool comm_accept_wants_pause(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

static void* commsvr_listen_thread(void* arg) {
    communication_server_data* server = static_cast<communication_server_data*>(arg);
    bool accept_failing = false;  // reported once per run of failures
    while (!server->stop_service) {
        service_thread_data* slot = comm_take_free_slot(server);
        if (slot == nullptr || !comm_wait_for_client(server)) {
            break;
        }
        // Close-on-exec: the scripts the worker runs must not hold clients.
        int client = accept4(server->socket_fp, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) {
            int error = errno;
            commsvr_return_thread_data_to_unused_list(server, slot, true);
            if (comm_accept_wants_pause(error)) {
                if (!accept_failing) {
                    comm_report(__func__, "Can't accept request connection, errno:%d, pausing",
                                error);
                }
                accept_failing = true;
                pthread_mutex_lock(&server->thread_data_mutex);
                if (!server->stop_service) {
                    comm_wait_ms(server, COMM_ACCEPT_RETRY_MS);
                }
                pthread_mutex_unlock(&server->thread_data_mutex);
            }
            continue;
        }
        accept_failing = false;
        pthread_mutex_lock(&server->thread_data_mutex);
        slot->socket = client;
        slot->request_start_clock = comm_now_ms();
        slot->request_count = slot->request_count + 1;
        pthread_cond_broadcast(&server->thread_data_condition);
        pthread_mutex_unlock(&server->thread_data_mutex);
    }
    return nullptr;
}

static int comm_open_listener(const char* socket_file) {
    unlink(socket_file);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    struct sockaddr_un addr;
    comm_unix_address(socket_file, &addr);
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0 ||
        listen(fd, 0) != 0) {
        close(fd);
        unlink(socket_file);
        return -1;
    }
    // Web pages and scripts of any user may ask.
    chmod(socket_file, COMM_SOCKET_MODE);
    return fd;
}

static communication_server_data* comm_new_server(const char* socket_file, int max_threads) {
    communication_server_data* server =
        static_cast<communication_server_data*>(calloc(1, sizeof(communication_server_data)));
    if (server == nullptr) {
        return nullptr;
    }
    server->thread_data_array = static_cast<service_thread_data*>(
        calloc(static_cast<size_t>(max_threads), sizeof(service_thread_data)));
    if (server->thread_data_array == nullptr) {
        free(server);
        return nullptr;
    }
    pthread_mutex_init(&server->thread_data_mutex, nullptr);
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&server->thread_data_condition, &attr);
    pthread_condattr_destroy(&attr);
    strncpy(server->socket_path, socket_file, COMM_SOCKET_PATH_SIZE - 1);
    server->max_threads = max_threads;
    server->stop_service = 0;
    server->holders = 1;
    // Every slot free, in index order.
    server->unuse_list = nullptr;
    server->in_used_list = nullptr;
    for (int i = 0; i < max_threads; i++) {
        service_thread_data* slot = &server->thread_data_array[i];
        slot->index = i;
        slot->comsvr_data = server;
        wifim_slot_list_append(&server->unuse_list, slot, &service_thread_data::next_data);
    }
    return server;
}

void* commsvr_init(const char* socket_file, int max_listen_thread,
                   commsvr_service_callback service_callback_fun, void* attach_data) {
    if (socket_file == nullptr || max_listen_thread <= 0 || service_callback_fun == nullptr) {
        return nullptr;
    }
    int fd = comm_open_listener(socket_file);
    if (fd < 0) {
        return nullptr;
    }
    communication_server_data* server = comm_new_server(socket_file, max_listen_thread);
    if (server == nullptr) {
        close(fd);
        unlink(socket_file);
        return nullptr;
    }
    server->socket_fp = fd;
    struct stat bound;
    if (lstat(socket_file, &bound) == 0) {
        server->socket_dev = bound.st_dev;
        server->socket_ino = bound.st_ino;
    }
    server->service_callback_fun = service_callback_fun;
    server->attach_data = attach_data;
    if (pthread_create(&server->listen_thread_id, nullptr, commsvr_listen_thread, server) != 0) {
        close(fd);
        unlink(socket_file);
        comm_free_server(server);
        return nullptr;
    }
    return server;
}

// Whether the socket path still names the socket this server bound, and
// not one that a daemon started since has bound in its place.
static bool comm_path_is_our_socket(const communication_server_data* server) {
    struct stat now;
    return lstat(server->socket_path, &now) == 0 && S_ISSOCK(now.st_mode) &&
           now.st_dev == server->socket_dev && now.st_ino == server->socket_ino;
}

// Service threads are not waited for here: they see the stop flag within
// about a second and the last one out frees the server (the worker waits
// for them before it ends, commsvr_wait_service_threads).
void commsvr_close(void* commsvr_data) {
    communication_server_data* server = static_cast<communication_server_data*>(commsvr_data);
    if (server == nullptr) {
        return;
    }
    pthread_mutex_lock(&server->thread_data_mutex);
    server->stop_service = 1;
    pthread_cond_broadcast(&server->thread_data_condition);
    pthread_mutex_unlock(&server->thread_data_mutex);
    pthread_join(server->listen_thread_id, nullptr);
    close(server->socket_fp);
    if (server->socket_path[0] != '\0' && comm_path_is_our_socket(server)) {
        unlink(server->socket_path);
    }
    comm_release_server(server);
}
