// Request services: the dispatcher that routes a request by its "function"
// key, and the handlers that answer it in XML.
#pragma once

#include <SimpleIni.h>

#include <map>
#include <string>
#include <vector>

#include "wifi_manager/wifi_manager.h"

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

// The string stream a handler writes its answer into: text and whole
// numbers appended to one string. Not std::stringstream, whose locale and
// stream set-up every start of the executable would pay for, the
// command-line client's included, though only the worker writes answers.
struct service_stream {
    std::string text;
    const std::string& str() const { return text; }
};

inline service_stream& operator<<(service_stream& out, const char* text) {
    out.text += text;
    return out;
}

inline service_stream& operator<<(service_stream& out, const std::string& text) {
    out.text += text;
    return out;
}

inline service_stream& operator<<(service_stream& out, long long number) {
    out.text += std::to_string(number);
    return out;
}

inline service_stream& operator<<(service_stream& out, int number) {
    return out << static_cast<long long>(number);
}

// A request handler writes its whole XML answer into response_stream.
typedef void (*service_function)(CSimpleIniA& receive_data, service_stream& response_stream,
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

// Result of a connect or reconnect, and of a WPS run, for a controller status.
wifi_manager_return_code service_connect_result(int status);
wifi_manager_return_code service_wps_result(int status);

// The handlers, in the order the device's request vocabulary lists them.
void service_get_ap_list(CSimpleIniA& receive_data, service_stream& response_stream,
                         void* monitor_data);
void service_get_connected_ssid(CSimpleIniA& receive_data, service_stream& response_stream,
                                void* monitor_data);
void service_connect_ap(CSimpleIniA& receive_data, service_stream& response_stream,
                        void* monitor_data);
void service_reconnect_ap(CSimpleIniA& receive_data, service_stream& response_stream,
                          void* monitor_data);
void service_disconnect(CSimpleIniA& receive_data, service_stream& response_stream,
                        void* monitor_data);
void service_remove_profile(CSimpleIniA& receive_data, service_stream& response_stream,
                            void* monitor_data);
void service_set_enable(CSimpleIniA& receive_data, service_stream& response_stream,
                        void* monitor_data);
void service_get_wps_pin(CSimpleIniA& receive_data, service_stream& response_stream,
                         void* monitor_data);
void service_wps(CSimpleIniA& receive_data, service_stream& response_stream, void* monitor_data);
void service_get_network_setting(CSimpleIniA& receive_data, service_stream& response_stream,
                                 void* monitor_data);
void service_set_network_setting(CSimpleIniA& receive_data, service_stream& response_stream,
                                 void* monitor_data);

// Live network state of an interface: IPv4 address and netmask, default
// gateway and DNS servers.
bool service_get_network_setting(const std::string& net_interface, std::string& ip,
                                 std::string& netmask, std::string& gateway,
                                 std::vector<std::string>& dns);
int service_get_gateway(const std::string& net_interface, std::string& gateway);
bool service_get_dnsserver(std::vector<std::string>& dns_server_vector);
// The same readers on given text, for the files' contents.
bool service_parse_gateway(const std::string& route_text, const std::string& net_interface,
                           std::string& gateway);
void service_parse_dnsservers(const std::string& resolv_text,
                              std::vector<std::string>& dns_server_vector);

// Answer envelope: the XML declaration, the root's opening tag and the result.
void service_begin_answer(service_stream& response_stream, const char* root, int result);
void service_end_answer(service_stream& response_stream, const char* root);
// One element line; "&", "<" and ">" in the value are written as entities.
void service_write_element(service_stream& response_stream, const char* name,
                           const std::string& value);
// A network's name in an ssid element, inside CDATA, after indent; a "]]>"
// in the name is split across two CDATA sections.
void service_write_ssid(service_stream& response_stream, const char* indent,
                        const std::string& ssid);

#define SERVICE_LOG(level, fmt, ...) \
    WIFIM_LOG_AT(level, "service_funs.cpp", __func__, fmt, ##__VA_ARGS__)
