// The dispatcher: one request in, one XML answer out, one log line.
#include <stdint.h>
#include <string.h>
#include <sys/time.h>

#include "service_funs.h"
#include "socket_communication/socket_communication.h"
#include "wifi_manager/wifi_manager.h"

std::map<std::string, service_function> g_service_function_map;

void service_init() {
    // insert() keeps the first entry of a repeated name.
    g_service_function_map.insert({"GetAPList", service_get_ap_list});
    g_service_function_map.insert({"GetConnected", service_get_connected_ssid});
    g_service_function_map.insert({"ConnectAP", service_connect_ap});
    g_service_function_map.insert({"ReconnectAP", service_reconnect_ap});
    g_service_function_map.insert({"Disconnect", service_disconnect});
    g_service_function_map.insert({"Remove", service_remove_profile});
    g_service_function_map.insert({"Enable", service_set_enable});
    g_service_function_map.insert({"GetWPSPin", service_get_wps_pin});
    g_service_function_map.insert({"WPS", service_wps});
    g_service_function_map.insert(
        {"GetNetSetting", static_cast<service_function>(service_get_network_setting)});
    g_service_function_map.insert({"SetNetSetting", service_set_network_setting});
}

long long service_elapsed_ms(long start_sec, long start_usec, long end_sec, long end_usec) {
    int32_t start_ms = static_cast<int32_t>(static_cast<uint32_t>(start_sec) * 1000u +
                                            static_cast<uint32_t>(start_usec / 1000));
    int32_t end_ms = static_cast<int32_t>(static_cast<uint32_t>(end_sec) * 1000u +
                                          static_cast<uint32_t>(end_usec / 1000));
    return static_cast<long long>(end_ms) - static_cast<long long>(start_ms);
}

static std::string service_dispatch(CSimpleIniA& request, const std::string& function_name,
                                    void* monitor_data) {
    service_stream l_response_stream;
    auto handler = g_service_function_map.find(function_name);
    if (handler != g_service_function_map.end()) {
        handler->second(request, l_response_stream, monitor_data);
    }
    std::string answer = l_response_stream.str();
    if (answer.empty()) {
        answer = SERVICE_UNKNOWN_FUNCTION_ANSWER;
    }
    return answer;
}

void service_call_back_function(int socket, char* data, int data_size, void* monitor_data) {
    if (data == nullptr || data_size == 0) {
        return;
    }
    // The time used is a value the log prints, so it stays wall-clock time,
    // in the narrow arithmetic log readers know; no decision depends on it.
    struct timeval start;
    gettimeofday(&start, nullptr);

    CSimpleIniA request(true, false, true);
    request.LoadData(data, static_cast<size_t>(data_size));
    std::string function_name = request.GetValue("", "function", "");

    std::string answer = service_dispatch(request, function_name, monitor_data);
    commsvr_send_response(socket, answer.c_str(), static_cast<int>(answer.size()));

    struct timeval end;
    gettimeofday(&end, nullptr);
    long long elapsed = service_elapsed_ms(start.tv_sec, start.tv_usec, end.tv_sec, end.tv_usec);
    // The request is logged up to its first NUL, and never past what was received.
    std::string request_text(data, strnlen(data, static_cast<size_t>(data_size)));
    SERVICE_LOG(LOG_Info,
                "service: function name %s , use time: %lld ms, require comment: %s, response: %s",
                function_name.c_str(), elapsed, request_text.c_str(), answer.c_str());
}
