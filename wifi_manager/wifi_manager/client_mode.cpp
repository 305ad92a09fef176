// Client mode: one request to the running daemon. The exit status is 0 in
// every case; callers read the printed lines.
#include <stdio.h>
#include <string.h>

#include "../fixed_paths.h"
#include "socket_communication/socket_communication.h"
#include "wifi_manager.h"

#define WIFIM_CLIENT_ANSWER_SIZE 40960

int wifim_run_client(const char* request_command, int request_timeout) {
    // One byte more than an answer may hold, so that the printed answer
    // always ends at a NUL.
    static char answer[WIFIM_CLIENT_ANSWER_SIZE + 1];
    memset(answer, 0, sizeof(answer));
    int socket = commcli_send_request(WIFIM_SOCKET_FILE, request_command,
                                      static_cast<int>(strlen(request_command)));
    if (socket < 0) {
        printf("result=fail\n");
        printf("result_string=Can't connect to socket\n");
        return 0;
    }
    int size =
        commcli_receive_response(socket, request_timeout * 1000, answer, WIFIM_CLIENT_ANSWER_SIZE);
    if (size > 0) {
        printf("result=success\n");
        printf("%s\n", answer);
    } else {
        printf("result=fail\n");
        printf("result_string=Can't receive data from socket\n");
    }
    return 0;
}
