// The messages of the daemon by source file and function, as the device has
// always written them and as its field tools grep for them. Written from the
// daemon's description of its log lines, not from its code: a line that the
// code writes under another name, or a text the table does not have, is what
// the check is there to find.
#include "log_owners.h"

#include <ctype.h>
#include <string.h>

#include <regex>

namespace wifim_test {

namespace {

const char* const kFrame = "wifi_manager.cpp";
const char* const kController = "wpacli_monitor.cpp";
const char* const kServices = "service_funs.cpp";
const char* const kChannel = "socket_communication.cpp";

const char* const kDebug = "DEBUG";
const char* const kInfo = "INFO ";
const char* const kWarn = "WARN ";
const char* const kError = "ERROR";
const char* const kFocus = "FOCUS";

// A failed lock of a controller mutex is fatal; every function that takes
// one of them blocking writes this before the worker ends itself.
const char* const kLockFailure = "Can't lock mutex, terminated service";
const char* const kProfileLockFailure = "Can't lock registed_ap_mutex...";
// Failure lines of the network block all start the same way.
#define NETWORK_BLOCK_FAILURE(what) "update network id:%d, ssid:%s, " what

std::vector<log_message> build_table() {
    return {
        // The process frame: start-up and shut-down of the worker.
        {kFrame, "main", kFocus, "Can't fork process!!"},
        {kFrame, "main", kFocus, "Can't create pipe, program terminate"},
        {kFrame, "main", kFocus, "Program start -- Version: 1.0.4"},
        {kFrame, "main", kFocus, "Can't initialize wpa monitor"},
        {kFrame, "main", kFocus, "Can't initialize request server, socket file:%s"},
        {kFrame, "main", kFocus, "Program close"},
        // The supervisor and the signal handlers.
        {kFrame, "wifim_monitor_child_process", kInfo,
         "Can't receive child ping message, wait count:%u, terminating child process"},
        {kFrame, "wifim_monitor_child_process", kFocus, "Restart child process"},
        {kFrame, "wifim_monitor_child_process", kFocus, "Can't create pipe, program terminate"},
        {kFrame, "wifim_monitor_child_process", kFocus, "Can't fork process!!"},
        {kFrame, "wifim_wait_for_worker_end", kFocus, "Child process not closed in time, kill it"},
        // The worker, when its pings find the supervisor gone.
        {kFrame, "wifim_ping_supervisor", kFocus, "Supervisor gone, program closing.."},
        {kFrame, "wifim_signal_term", kInfo, "Received terminate signal. program closing.."},
        {kFrame, "wifim_signal_illegal", kInfo,
         "Received exception or illegal signal, child pid:%d, send termate signal to child "
         "process"},
        {kFrame, "wifim_signal_illegal", kError,
         "Received exception or illegal signal, child pid:%d, closed process"},

        // The station controller: start-up and the command rule.
        {kController, "wpacm_init", kError, "the wpa_supplicant config file(%s) not exist"},
        {kController, "wpacm_send_wpa_request", kError, "Request fail, command:%s,result:%s"},
        // The job queue.
        {kController, "wpacm_new_job", kError, kLockFailure},
        {kController, "wpacm_wait_job", kError, kLockFailure},
        {kController, "wpacm_update_job_result", kError, kLockFailure},
        {kController, "wpacm_update_job_result", kInfo,
         "updated result, index:%d, priority:%s, Job ID:%d, result:%d, time out:%lld/%lld"},
        // Events.
        {kController, "wpacm_receive_wpa_supplicant_event", kError,
         "Can't receive event data from wpa_supplication, ret=%d"},
        {kController, "wpacm_receive_wpa_supplicant_event", kDebug,
         "Received event, size:%d , data:%s"},
        {kController, "wpacm_receive_wpa_supplicant_event", kInfo,
         "WPS: Network configuration received"},
        {kController, "wpacm_receive_wpa_supplicant_event", kWarn,
         "WPS: More than one AP is currently in active WPS PBC mode. Wait couple of minutes and "
         "try again"},
        {kController, "wpacm_receive_wpa_supplicant_event", kInfo, "WPS start"},
        {kController, "wpacm_receive_wpa_supplicant_event", kInfo, "WPS: Registration failed"},
        {kController, "wpacm_receive_wpa_supplicant_event", kWarn, "WPS: timeout"},
        {kController, "wpacm_receive_wpa_supplicant_event", kInfo, "Connected"},
        {kController, "wpacm_receive_wpa_supplicant_event", kInfo, "WPS: Registration succeeded"},
        // Status and scan list.
        {kController, "wpacm_get_last_status", kError, kLockFailure},
        {kController, "wpacm_update_status", kWarn, "Get status fail"},
        {kController, "wpacm_update_scan_result", kError, kLockFailure},
        {kController, "wpacm_update_scan_result", kError, "send SCAN_RESULT command fail, ret=%d"},
        {kController, "wpacm_update_scan_result", kDebug, "get SCAN_RESULT, size:%d,data:%s"},
        // The service loop, its jobs and the automatic connection.
        {kController, "wpacm_service", kError,
         "Can't connect to wpa_supplicant for monitor event by wpa_ctrl_open(), socket file:%s"},
        {kController, "wpacm_service", kError,
         "Can't attach to wpa_supplicant for monitor event, socket file:%s"},
        {kController, "wpacm_service", kError, "Can't connect to wpa_supplicant, socket file:%s"},
        {kController, "wpacm_service", kError, "Locking job mutex fail!!"},
        {kController, "wpacm_service", kDebug,
         "Got job, index:%d, priority:%s, Job ID:%d, time out:%lld, next scan clock:%lld, next "
         "connect clock:%lld, now:%lld, scan request count:%d"},
        {kController, "wpacm_service", kInfo, "send SCAN command fail, scan late, priority:%s"},
        {kController, "wpacm_service", kDebug,
         "Scan success, force_scan_count:%d, next scan clock:%lld, next connect clock:%lld, "
         "now:%lld, scan request count:%d"},
        {kController, "wpacm_service", kInfo, "priority:%s, Connect to AP, ssid:%s"},
        {kController, "wpacm_service", kError, "Discinnect fail!!"},
        {kController, "wpacm_service", kInfo, "priority:%s, WPS %s, pin:%s"},
        {kController, "wpacm_service", kWarn, kProfileLockFailure},
        {kController, "wpacm_service", kWarn, "Registed WiFi AP list is empty!!"},
        {kController, "wpacm_service", kWarn, "Can't lock scan_result_mutex"},
        {kController, "wpacm_service", kWarn, "Scan result is empty!!"},
        {kController, "wpacm_service", kInfo,
         "Try to connect to SSID : %s, network id:%d, skip bssid:%s"},
        {kController, "wpacm_service", kWarn,
         "No any available WiFi profile, lsat bssid:%s, ret:%d"},
        // The connect procedure and its network block.
        {kController, "wpacm_connect_ap_private", kError, "add network id fail, ret:%d"},
        {kController, "wpacm_connect_ap_private", kDebug,
         "add network id:%d for connect to SSID:%s, BSSID:%s"},
        {kController, "wpacm_connect_ap_private", kError, "Can't update network id:%d,ssid:%s"},
        {kController, "wpacm_connect_ap_private", kError, "Can't enable network id:%d, ssid:%s"},
        {kController, "wpacm_connect_ap_private", kInfo, "connect %s, connect result:%d"},
        {kController, "wpacm_connect_ap_private", kInfo,
         "already connected, but status of wpa_supplicant is not match, status: %d / %s"},
        {kController, "wpacm_update_wpa_network_setting", kError,
         NETWORK_BLOCK_FAILURE("disable network fail")},
        {kController, "wpacm_update_wpa_network_setting", kError,
         NETWORK_BLOCK_FAILURE("set ssid fail")},
        {kController, "wpacm_update_wpa_network_setting", kError,
         NETWORK_BLOCK_FAILURE("set key_mgmt fail")},
        {kController, "wpacm_update_wpa_network_setting", kError,
         NETWORK_BLOCK_FAILURE("set proto fail")},
        {kController, "wpacm_update_wpa_network_setting", kError,
         NETWORK_BLOCK_FAILURE("set pairwise fail")},
        {kController, "wpacm_update_wpa_network_setting", kError,
         NETWORK_BLOCK_FAILURE("set group fail")},
        {kController, "wpacm_update_wpa_network_setting", kError,
         NETWORK_BLOCK_FAILURE("set priority fail")},
        {kController, "wpacm_update_wpa_network_setting", kError,
         NETWORK_BLOCK_FAILURE("set psk fail")},
        {kController, "wpacm_update_wpa_network_setting", kError,
         NETWORK_BLOCK_FAILURE("auth_alg OPEN fail")},
        {kController, "wpacm_update_wpa_network_setting", kError,
         NETWORK_BLOCK_FAILURE("key_mgmt NONE fail")},
        {kController, "wpacm_update_wpa_network_setting", kError,
         NETWORK_BLOCK_FAILURE("mode 0 fail")},
        {kController, "wpacm_update_wpa_network_setting", kError,
         NETWORK_BLOCK_FAILURE("set wep_key0 fail")},
        {kController, "wpacm_update_wpa_network_setting", kError,
         NETWORK_BLOCK_FAILURE("set wep_tx_keyidx fail")},
        {kController, "wpacm_set_network_value", kError, "update network id:%d, key: %s fail"},
        {kController, "wpacm_clear_all_wpa_network_setting", kError,
         "send LIST_NETWORKS command fail, ret=%d"},
        {kController, "wpacm_clear_all_wpa_network_setting", kDebug,
         "list network, count:%d, data:%s"},
        // The WPS procedure; its success lines are errors on purpose.
        {kController, "wpacm_wps_private", kError, "WPS fail, return code:%d, command:%s"},
        {kController, "wpacm_wps_private", kError,
         "Connected by WPS success, but can't read profile from config file, status:%d"},
        {kController, "wpacm_wps_private", kError,
         "Connected by WPS success, reading config file...."},
        {kController, "wpacm_wps_private", kError,
         "Connected by WPS success, readed config file...."},
        {kController, "wpacm_wps_private", kError,
         "Connected by WPS success, ssid:%s, security:%d, password:%s"},
        {kController, "wpacm_wps_private", kError,
         "Connected by WPS success, but can't read profile from config file"},
        // The operations of the request threads.
        {kController, "wpacm_disconnect", kError, kProfileLockFailure},
        {kController, "wpacm_remove_ssid", kError, kProfileLockFailure},
        {kController, "wpacm_get_register_profile", kError, kProfileLockFailure},
        {kController, "wpacm_update_wifi_profile", kError, kProfileLockFailure},
        {kController, "wpacm_get_wifi_ap_list", kError, kLockFailure},

        // The request services.
        {kServices, "service_call_back_function", kInfo,
         "service: function name %s , use time: %lld ms, require comment: %s, response: %s"},
        {kServices, "service_get_network_setting", kWarn,
         "service: Can't get network setting, interface:%s"},

        // The request channel, through the worker's log.
        {kChannel, "commsvr_listen_thread", kError,
         "Can't accept request connection, errno:%d, pausing"},
    };
}

#undef NETWORK_BLOCK_FAILURE

bool is_number_conversion(const char* conversion) {
    return strcmp(conversion, "d") == 0 || strcmp(conversion, "u") == 0 ||
           strcmp(conversion, "lu") == 0 || strcmp(conversion, "lld") == 0;
}

// The conversion at format (just after its '%'); returns its length.
size_t conversion_length(const char* format) {
    for (const char* c : {"lld", "lu", "d", "u", "s"}) {
        if (strncmp(format, c, strlen(c)) == 0) {
            return strlen(c);
        }
    }
    return 0;
}

bool matches_from(const char* format, const std::string& text, size_t at, bool cut) {
    while (*format != '\0') {
        if (*format != '%') {
            if (at == text.size()) {
                return cut;
            }
            if (text[at] != *format) {
                return false;
            }
            format++;
            at++;
            continue;
        }
        size_t length = conversion_length(format + 1);
        if (length == 0) {
            return false;
        }
        std::string conversion(format + 1, length);
        format += 1 + length;
        if (conversion == "s") {
            // Any text, shortest first: the literal after it decides.
            for (size_t end = at; end <= text.size(); end++) {
                if (matches_from(format, text, end, cut)) {
                    return true;
                }
            }
            return false;
        }
        if (is_number_conversion(conversion.c_str())) {
            if (at < text.size() && text[at] == '-' && conversion != "u" && conversion != "lu") {
                at++;
            }
            size_t digits = at;
            while (at < text.size() && isdigit(static_cast<unsigned char>(text[at])) != 0) {
                at++;
            }
            if (at == digits && !(cut && at == text.size())) {
                return false;
            }
        }
    }
    return at == text.size();
}

const std::regex& entry_head() {
    static const std::regex head(
        R"(^\d{4}/\d\d/\d\d \d\d:\d\d:\d\d,(DEBUG|INFO |WARN |ERROR|FOCUS),)");
    return head;
}

// One entry: "tid:<n>,<source>-<function>[<line>], <message>".
bool split_entry(const std::string& entry, std::string* level, std::string* source,
                 std::string* function, std::string* message) {
    static const std::regex shape(R"(^.{19},(.{5}),tid:\d+,([^-]+)-([^\[]+)\[\d+\], ([\s\S]*)$)");
    std::smatch parts;
    if (!std::regex_match(entry, parts, shape)) {
        return false;
    }
    *level = parts[1];
    *source = parts[2];
    *function = parts[3];
    *message = parts[4];
    return true;
}

std::string check_entry(const std::string& entry, bool cut) {
    std::string level, source, function, message;
    if (!split_entry(entry, &level, &source, &function, &message)) {
        return "not a line of the daemon's form: " + entry;
    }
    bool owner_known = false;
    bool message_known = false;
    for (const log_message& known : known_log_messages()) {
        if (source != known.source || function != known.function) {
            continue;
        }
        owner_known = true;
        if (log_format_matches(known.format, message, cut)) {
            message_known = true;
            if (level == known.level) {
                return "";
            }
        }
    }
    if (!owner_known) {
        return "written under " + source + "-" + function + ", which writes no message: " + entry;
    }
    if (!message_known) {
        return "a message " + source + "-" + function + " does not write: " + entry;
    }
    return "written at level \"" + level + "\", not the message's own: " + entry;
}

}  // namespace

const std::vector<log_message>& known_log_messages() {
    static const std::vector<log_message> table = build_table();
    return table;
}

bool log_format_matches(const char* format, const std::string& text, bool cut) {
    return matches_from(format, text, 0, cut);
}

std::vector<std::string> unknown_log_entries(const std::string& log_text) {
    // Entries: a head line and the lines that continue it.
    std::vector<std::string> entries;
    size_t start = 0;
    while (start < log_text.size()) {
        size_t end = log_text.find('\n', start);
        std::string line =
            log_text.substr(start, end == std::string::npos ? std::string::npos : end - start);
        start = (end == std::string::npos) ? log_text.size() : end + 1;
        if (std::regex_search(line, entry_head())) {
            entries.push_back(line);
        } else if (!entries.empty()) {
            entries.back() += "\n" + line;
        }
    }
    // The log keeps at most 1022 characters of a line, its line end apart
    // (an entry that ended in a line end of its own shows one fewer here).
    const size_t kLongestLine = 1021;
    std::vector<std::string> unknown;
    for (const std::string& entry : entries) {
        std::string reason = check_entry(entry, entry.size() >= kLongestLine);
        if (!reason.empty()) {
            unknown.push_back(reason);
        }
    }
    return unknown;
}

}  // namespace wifim_test
