// What every answer shares: the XML envelope and the results of what the
// controller's connect and WPS runs came to.
#include "service_funs.h"
#include "wpacli_monitor/wpacli_monitor.h"

// The result a connect (or reconnect) and a WPS request answer with for what
// the controller's run came to. Every status not listed here is a plain
// failure in both. A job's own success counts as a connection.
struct service_status_result {
    WiFi_Connection_Status status;
    wifi_manager_return_code connect;
    wifi_manager_return_code wps;
};
static const service_status_result g_status_results[] = {
    {WIFI_CONNECT_STATUS_CONNECTED, API_SUCCESS, API_SUCCESS},
    {WIFI_CONNECT_STATUS_DENIAL_BY_IP, API_CONNECT_DENIAL_BY_IP, API_CONNECT_DENIAL_BY_IP},
    {WIFI_CONNECT_STATUS_ASSOC_REJECT, API_CONNECT_ASSOC_FAIL, API_CONNECT_ASSOC_FAIL},
    {WIFI_CONNECT_STATUS_WPS_OVERLAP, API_FAIL, API_WPS_OVERLAP},
    {WIFI_CONNECT_STATUS_WPS_SUCCESS, API_FAIL, API_SUCCESS},
    {WIFI_CONNECT_STATUS_WPS_TIMEOUT, API_FAIL, API_TIMEOUT},
    {WIFI_CONNECT_STATUS_FAIL, API_CONNECT_FAIL, API_CONNECT_FAIL},
    {WIFI_CONNECT_STATUS_SUCCESS, API_SUCCESS, API_SUCCESS},
};

static const service_status_result* service_status_row(int status) {
    for (const service_status_result& row : g_status_results) {
        if (row.status == status) {
            return &row;
        }
    }
    return nullptr;
}

wifi_manager_return_code service_connect_result(int status) {
    const service_status_result* row = service_status_row(status);
    return row == nullptr ? API_FAIL : row->connect;
}

wifi_manager_return_code service_wps_result(int status) {
    const service_status_result* row = service_status_row(status);
    return row == nullptr ? API_FAIL : row->wps;
}

void service_begin_answer(service_stream& response_stream, const char* root, int result) {
    response_stream << "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n";
    response_stream << "<" << root << ">\n";
    response_stream << "<result>" << result << "</result>\n";
}

void service_end_answer(service_stream& response_stream, const char* root) {
    response_stream << "</" << root << ">\n";
}

// Only what would break the XML is escaped: values without these
// characters are written byte for byte.
static std::string service_xml_text(const std::string& value) {
    if (value.find_first_of("&<>") == std::string::npos) {
        return value;
    }
    std::string out;
    for (char c : value) {
        out += c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '>' ? "&gt;" : std::string(1, c);
    }
    return out;
}

void service_write_element(service_stream& response_stream, const char* name,
                           const std::string& value) {
    response_stream << "<" << name << ">" << service_xml_text(value) << "</" << name << ">\n";
}

// Names come from the air: one that holds "]]>" would close its section and
// write markup of its own. The section is closed between "]]" and ">" and a
// new one opened, which an XML reader joins back into the same text.
void service_write_ssid(service_stream& response_stream, const char* indent,
                        const std::string& ssid) {
    std::string text = ssid;
    size_t at = text.find("]]>");
    while (at != std::string::npos) {
        text.replace(at, 3, "]]]]><![CDATA[>");
        at = text.find("]]>", at + 15);
    }
    response_stream << indent << "<ssid><![CDATA[" << text << "]]></ssid>\n";
}
