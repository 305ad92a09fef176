// A client of the request socket that frames by hand, as the device's own
// clients do, so that the server is exercised without the daemon's client
// code in between. Header-only: the tests and the benchmark share it.
#pragma once

#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include "socket_communication/socket_communication.h"

namespace wifim_raw {

// Answers larger than this are taken as a broken frame.
const uint32_t kLargestAnswer = 1u << 20;

// A connected socket, or -1. A receive_timeout_s of 0 waits without limit.
inline int client_connect(const char* socket_path, int receive_timeout_s = 0) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) {
        return -1;
    }
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, socket_path, sizeof(addr.sun_path) - 1);
    if (receive_timeout_s > 0) {
        struct timeval wait = {receive_timeout_s, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof(wait));
    }
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Header and payload in one write: a server that refuses the header may
// close before a second write would reach it.
inline bool send_frame(int fd, const transfer_data_head& head, const std::string& payload) {
    std::string frame(reinterpret_cast<const char*>(&head), sizeof(head));
    frame += payload;
    return send(fd, frame.data(), frame.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(frame.size());
}

inline bool read_exact(int fd, void* buf, size_t size) {
    char* p = static_cast<char*>(buf);
    while (size > 0) {
        ssize_t n = recv(fd, p, size, 0);
        if (n <= 0) {
            return false;
        }
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// One request on a connection of its own; false when no well-formed answer
// came.
inline bool round_trip(const char* socket_path, const std::string& request, std::string* answer,
                       int receive_timeout_s = 0) {
    answer->clear();
    int fd = client_connect(socket_path, receive_timeout_s);
    if (fd < 0) {
        return false;
    }
    transfer_data_head head = {COMM_IDENTIFY_NUM, static_cast<uint32_t>(request.size()), 0};
    bool ok = send_frame(fd, head, request) && read_exact(fd, &head, sizeof(head)) &&
              head.identify_num == COMM_IDENTIFY_NUM && head.data_size < kLargestAnswer;
    if (ok) {
        answer->resize(head.data_size);
        ok = read_exact(fd, &(*answer)[0], head.data_size);
    }
    if (!ok) {
        answer->clear();
    }
    close(fd);
    return ok;
}

}  // namespace wifim_raw
