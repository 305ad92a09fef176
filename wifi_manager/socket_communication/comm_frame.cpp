// Frame I/O of the request channel: a 12-byte header, then the payload.
#include <errno.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "comm_internal.h"

// Waits for readability: in one-second rounds while a deadline applies,
// without limit otherwise. Returns >0 when readable, 0 after an empty
// round, <0 on error.
static int comm_wait_readable(int fd, bool bounded) {
    fd_set fds;
    FD_ZERO(&fds);
    FD_SET(fd, &fds);
    struct timeval round = {1, 0};
    int ret = select(fd + 1, &fds, nullptr, nullptr, bounded ? &round : nullptr);
    if (ret < 0 && errno == EINTR) {
        return 0;
    }
    return ret;
}

int commsvr_receive_data(int fd, void* receive_buf, int buf_size, int timeout_ms) {
    bool bounded = timeout_ms != 0;
    int64_t deadline = 0;
    if (bounded) {
        deadline = comm_now_ms() + timeout_ms;
    }
    memset(receive_buf, 0, static_cast<size_t>(buf_size));
    char* buf = static_cast<char*>(receive_buf);
    int count = 0;
    while (count < buf_size) {
        if (bounded && comm_now_ms() >= deadline) {
            return count;
        }
        int ready = comm_wait_readable(fd, bounded);
        if (ready < 0) {
            return -1;
        }
        if (ready == 0) {
            continue;
        }
        ssize_t n = read(fd, buf + count, static_cast<size_t>(buf_size - count));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return -1;
        }
        count += static_cast<int>(n);
    }
    return count;
}

// A bad frame costs only its connection, which is closed without an answer.
int commsvr_receive_transfer_data(int socket, int timeout_ms, void* buf, int buf_size) {
    transfer_data_head head;
    if (commsvr_receive_data(socket, &head, sizeof(head), timeout_ms) !=
            static_cast<int>(sizeof(head)) ||
        head.identify_num != COMM_IDENTIFY_NUM || head.data_size < 1 ||
        head.data_size > static_cast<uint32_t>(buf_size)) {
        close(socket);
        return -1;
    }
    int size = static_cast<int>(head.data_size);
    if (commsvr_receive_data(socket, buf, size, timeout_ms) != size) {
        close(socket);
        return -1;
    }
    return size;
}

int commsvr_send_response(int socket, const void* buf, int buf_size) {
    if (buf == nullptr || buf_size <= 0) {
        return -1;
    }
    transfer_data_head head = {COMM_IDENTIFY_NUM, static_cast<uint32_t>(buf_size), 0};
    if (send(socket, &head, sizeof(head), MSG_NOSIGNAL) < 0 ||
        send(socket, buf, static_cast<size_t>(buf_size), MSG_NOSIGNAL) < 0) {
        return -1;
    }
    return 0;
}

void comm_unix_address(const char* path, struct sockaddr_un* addr) {
    memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    strncpy(addr->sun_path, path, sizeof(addr->sun_path) - 1);
}
