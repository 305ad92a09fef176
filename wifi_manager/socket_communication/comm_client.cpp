// The client half of the request channel, used by the command-line client.
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "comm_internal.h"

#define COMM_CONNECT_ATTEMPTS 10
#define COMM_CLIENT_RECEIVE_TIMEOUT_S 3

// A connect to a daemon whose service threads are all busy waits in the
// kernel until one is free: on Linux SO_SNDTIMEO bounds it (send_ms 0: no
// bound).
static int comm_try_send(const char* socket_file, const void* buf, int buf_size, int64_t send_ms) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    struct sockaddr_un addr;
    comm_unix_address(socket_file, &addr);
    struct timeval receive_timeout = {COMM_CLIENT_RECEIVE_TIMEOUT_S, 0};
    struct timeval send_timeout = {static_cast<time_t>(send_ms / 1000),
                                   static_cast<suseconds_t>(send_ms % 1000 * 1000)};
    transfer_data_head head = {COMM_IDENTIFY_NUM, static_cast<uint32_t>(buf_size), 0};
    if (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &receive_timeout, sizeof(receive_timeout)) != 0 ||
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &send_timeout, sizeof(send_timeout)) != 0 ||
        connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0 ||
        send(fd, &head, sizeof(head), MSG_NOSIGNAL) < 0 ||
        send(fd, buf, static_cast<size_t>(buf_size), MSG_NOSIGNAL) < 0) {
        close(fd);
        return -1;
    }
    fsync(fd);
    return fd;
}

int commcli_send_request(const char* socket_file, const void* buf, int buf_size) {
    return commcli_send_request_within(socket_file, buf, buf_size, 0);
}

int commcli_send_request_within(const char* socket_file, const void* buf, int buf_size,
                                int timeout_ms) {
    // A daemon that is not running fails fast: no socket file, no retries.
    struct stat st;
    if (lstat(socket_file, &st) != 0 || S_ISDIR(st.st_mode)) {
        return -1;
    }
    bool bounded = timeout_ms > 0;
    int64_t deadline = comm_now_ms() + (bounded ? timeout_ms : 0);
    for (int attempt = 1; attempt <= COMM_CONNECT_ATTEMPTS; attempt++) {
        int64_t left = bounded ? deadline - comm_now_ms() : 0;
        if (bounded && left <= 0) {
            return -1;
        }
        int fd = comm_try_send(socket_file, buf, buf_size, left);
        if (fd >= 0) {
            return fd;
        }
        if (attempt < COMM_CONNECT_ATTEMPTS) {
            usleep(static_cast<useconds_t>(attempt) * 5000);
        }
    }
    return -1;
}

int commcli_receive_response(int socket, int timeout_ms, void* buf, int buf_size) {
    int size = commsvr_receive_transfer_data(socket, timeout_ms, buf, buf_size);
    // On a failure the frame reader has closed it already; closing again is
    // harmless in the single-threaded client.
    close(socket);
    return size;
}
