// Request channel: the worker's local socket server with its pool of service
// threads, and the matching client. One framed request per connection.
#pragma once

#include <stdint.h>

#define COMM_IDENTIFY_NUM 0x7E58D3A9u
#define COMM_REQUEST_BUFFER_SIZE 4096
#define COMM_REQUEST_TIMEOUT_MS 1000

// 12-byte frame header in front of every request and answer, host byte order.
struct transfer_data_head {
    uint32_t identify_num;  // always COMM_IDENTIFY_NUM
    uint32_t data_size;     // payload bytes that follow
    uint32_t check_sum;     // sent as 0, never checked
};

// Called on a service thread with the request payload (followed by zero bytes
// when it is shorter than the buffer); answers through commsvr_send_response.
typedef void (*commsvr_service_callback)(int socket, char* data, int size, void* attach_data);

// Server. Returns an opaque handle, or null on failure.
void* commsvr_init(const char* socket_file, int max_listen_thread,
                   commsvr_service_callback service_callback_fun, void* attach_data);
void commsvr_close(void* commsvr_data);
// Service threads of every server of the process that have not yet ended;
// after commsvr_close they end within about a second.
int commsvr_live_service_threads();
// Waits up to timeout_ms for every service thread to end; true when none is
// left.
bool commsvr_wait_service_threads(int timeout_ms);
int commsvr_send_response(int socket, const void* buf, int buf_size);

// Frame reading, shared by server and client. A timeout_ms of 0 means no limit.
int commsvr_receive_transfer_data(int socket, int timeout_ms, void* buf, int buf_size);
int commsvr_receive_data(int fd, void* receive_buf, int buf_size, int timeout_ms);

// Client.
int commcli_send_request(const char* socket_file, const void* buf, int buf_size);
int commcli_receive_response(int socket, int timeout_ms, void* buf, int buf_size);
