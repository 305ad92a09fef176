// Request channel: the worker's local socket server with its pool of service
// threads, and the matching client. One framed request per connection.
#pragma once

#include <stdint.h>

#define COMM_IDENTIFY_NUM 0x7E58D3A9u
#define COMM_REQUEST_BUFFER_SIZE 4096
// The time a client has for its whole request (header and payload),
// counted from the acceptance of its connection.
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

// Where the channel reports a failure worth a log line: the channel's
// function that met it and the message. Set before commsvr_init; without
// one, failures are not reported.
typedef void (*commsvr_report_function)(const char* function, const char* message);
void commsvr_set_report_function(commsvr_report_function report);

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

// Frame reading, shared by server and client. A timeout_ms of 0 means no
// limit; otherwise it bounds the whole frame, header and payload together.
int commsvr_receive_transfer_data(int socket, int timeout_ms, void* buf, int buf_size);
int commsvr_receive_data(int fd, void* receive_buf, int buf_size, int timeout_ms);

// Client. commcli_send_request_within gives up once timeout_ms have passed
// (0 or less: no limit), also while the daemon's service threads are all
// busy and its queue of connections is full.
int commcli_send_request(const char* socket_file, const void* buf, int buf_size);
int commcli_send_request_within(const char* socket_file, const void* buf, int buf_size,
                                int timeout_ms);
int commcli_receive_response(int socket, int timeout_ms, void* buf, int buf_size);
