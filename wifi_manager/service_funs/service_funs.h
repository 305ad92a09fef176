// Request services: the dispatcher that routes a request by its "function"
// key, and the handlers that answer it in XML.
#pragma once

#include <SimpleIni.h>

#include <map>
#include <sstream>
#include <string>

// Result codes written into every answer's <result> element.
enum wifi_manager_return_code {
    API_SUCCESS = 0,
    API_FAIL = 1,
    API_INPUTERR = 2,
    API_CONNECT_FAIL = 3,
    API_CONNECT_DENIAL_BY_IP = 4,
    API_CONNECT_ASSOC_FAIL = 5,
    API_SSID_NOT_EXIST = 6,
    API_NOT_ANY_CONNECTION = 7,
    API_TIMEOUT = 8,
    API_WPS_OVERLAP = 9,
};

// A request handler writes its whole XML answer into response_stream.
typedef void (*service_function)(CSimpleIniA& receive_data, std::stringstream& response_stream,
                                 void* monitor_data);

extern std::map<std::string, service_function> g_service_function_map;

// Answer to a request whose function is missing or unknown (no line end
// after the last tag).
#define SERVICE_UNKNOWN_FUNCTION_ANSWER                                              \
    "<?xml version=\"1.0\" encoding=\"UTF-8\" ?><wifi_api>\n<result>-999</result>\n" \
    "<result_str>unknow function</result_str>\n</wifi_api>"

// Fills the function map; called once before the request server starts.
void service_init();
// Request-server callback: parses, dispatches, answers and logs one request.
void service_call_back_function(int socket, char* data, int data_size, void* monitor_data);

// Elapsed milliseconds between two gettimeofday readings, each reading taken
// in signed 32-bit milliseconds as the request log has always shown them.
long long service_elapsed_ms(long start_sec, long start_usec, long end_sec, long end_usec);

#define SERVICE_LOG(level, fmt, ...) \
    WIFIM_LOG_AT(level, "service_funs.cpp", __func__, fmt, ##__VA_ARGS__)
