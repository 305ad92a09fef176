// WPS requests: a registration by push button or PIN, and the station's PIN.
#include "service_funs.h"
#include "wpacli_monitor/wpacli_monitor.h"

#define SERVICE_WPS_PIN_LENGTH 8

static bool service_pin_well_formed(const std::string& pin) {
    return pin.size() == SERVICE_WPS_PIN_LENGTH &&
           pin.find_first_not_of("0123456789") == std::string::npos;
}

static int service_wps_request(CSimpleIniA& receive_data, void* monitor_data) {
    std::string pin = receive_data.GetValue("", "pin", "");
    long wps_pbc = receive_data.GetLongValue("", "wps_pbc", 1);
    if (wps_pbc == 0 && !service_pin_well_formed(pin)) {
        return API_INPUTERR;
    }
    // Push button ignores any PIN; other mode values pass the PIN unchecked.
    std::string pin_or_empty = (wps_pbc == 1) ? std::string() : pin;
    wifi_ap_info record;
    clear_wifi_ap_info(&record);
    int result = service_wps_result(wpacm_wps(monitor_data, pin_or_empty, &record));
    record.priority = (result == API_SUCCESS) ? 1 : -1;
    wpacm_update_wifi_profile(monitor_data, &record, result == API_SUCCESS);
    return result;
}

void service_wps(CSimpleIniA& receive_data, service_stream& response_stream, void* monitor_data) {
    int enable = wpacm_get_enable(monitor_data) ? 1 : 0;
    int result = enable ? service_wps_request(receive_data, monitor_data) : API_SUCCESS;
    service_begin_answer(response_stream, "wifista_wps", result);
    service_write_element(response_stream, "enable", std::to_string(enable));
    service_end_answer(response_stream, "wifista_wps");
}

void service_get_wps_pin(CSimpleIniA& receive_data, service_stream& response_stream,
                         void* monitor_data) {
    (void)receive_data;
    int enable = wpacm_get_enable(monitor_data) ? 1 : 0;
    std::string pin = wpacm_get_wps_pin(monitor_data);
    service_begin_answer(response_stream, "wifista_get_pin", API_SUCCESS);
    service_write_element(response_stream, "enable", std::to_string(enable));
    service_write_element(response_stream, "pin", pin);
    service_end_answer(response_stream, "wifista_get_pin");
}
