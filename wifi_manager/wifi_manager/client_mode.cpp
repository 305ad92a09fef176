// Client mode: one request to the running daemon. The exit status is 0 in
// every case; callers read the printed lines.
#include <limits.h>
#include <stdio.h>
#include <string.h>

#include "../fixed_paths.h"
#include "socket_communication/socket_communication.h"
#include "wifi_manager.h"

#define WIFIM_CLIENT_ANSWER_SIZE 40960

// -T in milliseconds, kept within what an int holds (about 24 days).
static int wifim_client_timeout_ms(int seconds) {
    if (seconds > INT_MAX / 1000) {
        return INT_MAX / 1000 * 1000;
    }
    if (seconds < INT_MIN / 1000) {
        return INT_MIN / 1000 * 1000;
    }
    return seconds * 1000;
}

int wifim_run_client(const char* request_command, int request_timeout) {
    // One byte more than an answer may hold, so that the printed answer
    // always ends at a NUL.
    static char answer[WIFIM_CLIENT_ANSWER_SIZE + 1];
    memset(answer, 0, sizeof(answer));
    int timeout_ms = wifim_client_timeout_ms(request_timeout);
    // The time-out bounds the connect as well: a CGI or script must not pile
    // up behind a daemon whose service threads are all busy.
    int socket = commcli_send_request_within(WIFIM_SOCKET_FILE, request_command,
                                             static_cast<int>(strlen(request_command)), timeout_ms);
    if (socket < 0) {
        printf("result=fail\n");
        printf("result_string=Can't connect to socket\n");
        return 0;
    }
    int size = commcli_receive_response(socket, timeout_ms, answer, WIFIM_CLIENT_ANSWER_SIZE);
    if (size > 0) {
        printf("result=success\n");
        printf("%s\n", answer);
    } else {
        printf("result=fail\n");
        printf("result_string=Can't receive data from socket\n");
    }
    return 0;
}
