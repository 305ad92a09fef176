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

static int comm_try_send(const char* socket_file, const void* buf, int buf_size) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) {
        return -1;
    }
    struct sockaddr_un addr;
    comm_unix_address(socket_file, &addr);
    struct timeval receive_timeout = {COMM_CLIENT_RECEIVE_TIMEOUT_S, 0};
    transfer_data_head head = {COMM_IDENTIFY_NUM, static_cast<uint32_t>(buf_size), 0};
    if (setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &receive_timeout, sizeof(receive_timeout)) != 0 ||
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
    // A daemon that is not running fails fast: no socket file, no retries.
    struct stat st;
    if (lstat(socket_file, &st) != 0 || S_ISDIR(st.st_mode)) {
        return -1;
    }
    for (int attempt = 1; attempt <= COMM_CONNECT_ATTEMPTS; attempt++) {
        int fd = comm_try_send(socket_file, buf, buf_size);
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
