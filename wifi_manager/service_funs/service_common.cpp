// What every answer shares: the XML envelope, the result codes of the
// controller's statuses, and the security names of the reports.
#include "service_funs.h"

// Connect results for statuses 5..16; anything else is a plain failure. The
// last entry (16, success of a job) counts as success too.
static const wifi_manager_return_code g_connect_result_table[12] = {
    API_SUCCESS,
    API_CONNECT_DENIAL_BY_IP,
    API_CONNECT_ASSOC_FAIL,
    API_FAIL,
    API_FAIL,
    API_FAIL,
    API_FAIL,
    API_FAIL,
    API_FAIL,
    API_CONNECT_FAIL,
    API_FAIL,
    API_SUCCESS,
};
static const wifi_manager_return_code g_wps_result_table[12] = {
    API_SUCCESS,
    API_CONNECT_DENIAL_BY_IP,
    API_CONNECT_ASSOC_FAIL,
    API_FAIL,
    API_FAIL,
    API_WPS_OVERLAP,
    API_SUCCESS,
    API_FAIL,
    API_TIMEOUT,
    API_CONNECT_FAIL,
    API_FAIL,
    API_SUCCESS,
};

static wifi_manager_return_code service_table_result(const wifi_manager_return_code* table,
                                                     int status) {
    if (status < 5 || status > 16) {
        return API_FAIL;
    }
    return table[status - 5];
}

wifi_manager_return_code service_connect_result(int status) {
    return service_table_result(g_connect_result_table, status);
}

wifi_manager_return_code service_wps_result(int status) {
    return service_table_result(g_wps_result_table, status);
}

// The mixed PSK/EAP kinds are reported as unknown.
const char* service_security_name(int security) {
    if (security == 1) {
        return "none";
    }
    if (security == 2) {
        return "wep";
    }
    if (security >= 3 && security <= 8) {
        return "wpa";
    }
    if (security >= 10 && security <= 15) {
        return "wpa2";
    }
    if (security == 17) {
        return "anywpa";
    }
    return "unknown";
}

void service_begin_answer(std::stringstream& response_stream, const char* root, int result) {
    response_stream << "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>" << std::endl;
    response_stream << "<" << root << ">" << std::endl;
    response_stream << "<result>" << result << "</result>" << std::endl;
}

void service_end_answer(std::stringstream& response_stream, const char* root) {
    response_stream << "</" << root << ">" << std::endl;
}

void service_write_element(std::stringstream& response_stream, const char* name,
                           const std::string& value) {
    response_stream << "<" << name << ">" << value << "</" << name << ">" << std::endl;
}
