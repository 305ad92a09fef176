// The request frame reader, fed the bytes a local client sends.
#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>
#include <unistd.h>

#include "socket_communication/socket_communication.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int fds[2];
    if (size > 65536 || socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
        return 0;
    }
    ssize_t sent = size > 0 ? send(fds[1], data, size, MSG_NOSIGNAL) : 0;
    (void)sent;
    // The client goes away after its bytes: a short frame ends at once.
    shutdown(fds[1], SHUT_WR);
    char buf[COMM_REQUEST_BUFFER_SIZE];
    int got = commsvr_receive_transfer_data(fds[0], COMM_REQUEST_TIMEOUT_MS, buf, sizeof(buf));
    if (got >= 0) {
        close(fds[0]);  // a refused frame has had its connection closed already
    }
    close(fds[1]);
    return 0;
}
