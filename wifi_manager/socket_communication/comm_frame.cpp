// Frame I/O of the request channel: a 12-byte header, then the payload.
#include <errno.h>
#include <string.h>
#include <poll.h>
#include <stdint.h>
#include <sys/socket.h>
#include <unistd.h>

#include "comm_internal.h"

// Waits for readability until deadline_ms of the monotonic clock, or
// without limit for COMM_NO_DEADLINE. Returns >0 when readable, 0 when the
// deadline has passed or a signal came, <0 on error.
static int comm_wait_readable(int fd, int64_t deadline_ms) {
    int wait_ms = -1;
    if (deadline_ms != COMM_NO_DEADLINE) {
        int64_t left = deadline_ms - comm_now_ms();
        if (left <= 0) {
            return 0;
        }
        wait_ms = left > INT32_MAX ? INT32_MAX : static_cast<int>(left);
    }
    struct pollfd watched = {fd, POLLIN, 0};
    int ret = poll(&watched, 1, wait_ms);
    if (ret < 0 && errno == EINTR) {
        return 0;
    }
    return ret;
}

// The deadline timeout_ms from now; 0 means none.
static int64_t comm_deadline_after(int timeout_ms) {
    return timeout_ms != 0 ? comm_now_ms() + timeout_ms : COMM_NO_DEADLINE;
}

int comm_receive_until(int fd, void* receive_buf, int buf_size, int64_t deadline_ms) {
    memset(receive_buf, 0, static_cast<size_t>(buf_size));
    char* buf = static_cast<char*>(receive_buf);
    int count = 0;
    while (count < buf_size) {
        if (deadline_ms != COMM_NO_DEADLINE && comm_now_ms() >= deadline_ms) {
            return count;
        }
        int ready = comm_wait_readable(fd, deadline_ms);
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

int commsvr_receive_data(int fd, void* receive_buf, int buf_size, int timeout_ms) {
    return comm_receive_until(fd, receive_buf, buf_size, comm_deadline_after(timeout_ms));
}

// A bad frame costs only its connection, which is closed without an answer.
// One deadline holds for header and payload: a peer that sends a byte now
// and then cannot hold the connection longer than that.
int comm_receive_frame_until(int socket, int64_t deadline_ms, void* buf, int buf_size) {
    transfer_data_head head;
    if (comm_receive_until(socket, &head, sizeof(head), deadline_ms) !=
            static_cast<int>(sizeof(head)) ||
        head.identify_num != COMM_IDENTIFY_NUM || head.data_size < 1 ||
        head.data_size > static_cast<uint32_t>(buf_size)) {
        close(socket);
        return -1;
    }
    int size = static_cast<int>(head.data_size);
    if (comm_receive_until(socket, buf, size, deadline_ms) != size) {
        close(socket);
        return -1;
    }
    return size;
}

int commsvr_receive_transfer_data(int socket, int timeout_ms, void* buf, int buf_size) {
    return comm_receive_frame_until(socket, comm_deadline_after(timeout_ms), buf, buf_size);
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
