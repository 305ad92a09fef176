// Event interpretation: one unsolicited wpa_supplicant message at a time,
// turned into what it means for the station.
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <unistd.h>
#include <wpa_ctrl.h>

#include "../fixed_paths.h"
#include "wpacm_internal.h"

static bool wpacm_starts_with(const char* text, const char* pattern) {
    return strncmp(text, pattern, strlen(pattern)) == 0;
}

const char* wpacm_event_text(const char* message) {
    if (message[0] != '<') {
        return message;
    }
    const char* end = strchr(message, '>');
    return end == nullptr ? message : end + 1;
}

// The first pattern that the text begins with decides; the order is the
// device's own and some patterns overlap.
wpacm_event_kind wpacm_classify_event(const char* text) {
    if (wpacm_starts_with(text, "CTRL-EVENT-SCAN-RESULTS ")) {
        return WPACM_EVENT_SCAN_RESULTS;
    }
    if (wpacm_starts_with(text, "CTRL-EVENT-BSS-REMOVED ")) {
        return WPACM_EVENT_BSS_REMOVED;
    }
    if (wpacm_starts_with(text, "WPA: 4-Way Handshake failed") ||
        wpacm_starts_with(text, "SME: Authentication request to the driver failed")) {
        return WPACM_EVENT_HANDSHAKE_FAILED;
    }
    if (wpacm_starts_with(text, "EPBUG: Going to authenticate") ||
        wpacm_starts_with(text, "SME: Trying to authenticate with") ||
        wpacm_starts_with(text, "Trying to associate with")) {
        return WPACM_EVENT_AUTHENTICATING;
    }
    if (wpacm_starts_with(text, "CTRL-EVENT-DISCONNECTED ")) {
        // A disconnection from no access point at all says nothing new.
        return strstr(text, "00:00:00:00:00:00") != nullptr ? WPACM_EVENT_DISCONNECTED_ZERO_BSSID
                                                            : WPACM_EVENT_DISCONNECTED;
    }
    if (wpacm_starts_with(text, "Associated with ") ||
        wpacm_starts_with(text, "CTRL-EVENT-EAP-STARTED ") ||
        wpacm_starts_with(text, "CTRL-EVENT-EAP-PROPOSED-METHOD ")) {
        return WPACM_EVENT_ASSOCIATED;
    }
    if (wpacm_starts_with(text, "WPS-CRED-RECEIVED ")) {
        return WPACM_EVENT_WPS_CRED_RECEIVED;
    }
    if (wpacm_starts_with(text, "WPS-OVERLAP-DETECTED ")) {
        return WPACM_EVENT_WPS_OVERLAP;
    }
    if (wpacm_starts_with(text, "CTRL-EVENT-EAP-METHOD ")) {
        return strstr(text, "(WSC)") != nullptr ? WPACM_EVENT_WPS_METHOD
                                                : WPACM_EVENT_EAP_METHOD_OTHER;
    }
    if (wpacm_starts_with(text, "WPS-FAIL ")) {
        return WPACM_EVENT_WPS_FAIL;
    }
    if (wpacm_starts_with(text, "WPS-TIMEOUT ")) {
        return WPACM_EVENT_WPS_TIMEOUT;
    }
    if (wpacm_starts_with(text, "CTRL-EVENT-CONNECTED ")) {
        return WPACM_EVENT_CONNECTED;
    }
    if (wpacm_starts_with(text, "WPS-SUCCESS ")) {
        return WPACM_EVENT_WPS_SUCCESS;
    }
    return WPACM_EVENT_OTHER;
}

// The link is gone: the station is looked after again in a few seconds.
static void wpacm_on_disconnected(wpacli_monitor_data* data) {
    unlink(WIFIM_CONNECTED_MARKER_FILE);
    wpacm_schedule_scan_and_connect(
        data, wpacm_schedule_clock(wpacm_clock_ms() + WPACM_RESCHEDULE_AFTER_DROP_MS));
    if (data->continue_scan_request <= 2) {
        data->continue_scan_request = 3;
    }
}

// Runs the hook that applies the IP settings; the supervisor is told to
// allow it up to two minutes. Returns true when it succeeded.
static bool wpacm_run_connected_hook(wpacli_monitor_data* data) {
    wpacm_touch_watchdog(data, WPACM_WATCHDOG_HOOK_S);
    int status = system(WIFIM_CONNECTED_HOOK);
    wpacm_touch_watchdog(data, WPACM_WATCHDOG_NORMAL_S);
    return status == 0;
}

static WiFi_Connection_Status wpacm_apply_event(wpacli_monitor_data* data, wpacm_event_kind kind) {
    switch (kind) {
        case WPACM_EVENT_SCAN_RESULTS:
            return WIFI_CONNECT_STATUS_SCANNED;
        case WPACM_EVENT_HANDSHAKE_FAILED:
            return WIFI_CONNECT_STATUS_ASSOC_REJECT;
        case WPACM_EVENT_AUTHENTICATING:
        case WPACM_EVENT_ASSOCIATED:
            return WIFI_CONNECT_STATUS_CONNECTING;
        case WPACM_EVENT_DISCONNECTED:
            wpacm_on_disconnected(data);
            return WIFI_CONNECT_STATUS_DISCONNECTED;
        case WPACM_EVENT_WPS_CRED_RECEIVED:
            WPACM_LOG_AS(wpacm_receive_wpa_supplicant_event, LOG_Info,
                         "WPS: Network configuration received");
            return WIFI_CONNECT_STATUS_CONNECTING;
        case WPACM_EVENT_WPS_OVERLAP:
            WPACM_LOG_AS(
                wpacm_receive_wpa_supplicant_event, LOG_Warn,
                "WPS: More than one AP is currently in active WPS PBC mode. Wait couple of "
                "minutes and try again");
            return WIFI_CONNECT_STATUS_WPS_OVERLAP;
        case WPACM_EVENT_WPS_METHOD:
            WPACM_LOG_AS(wpacm_receive_wpa_supplicant_event, LOG_Info, "WPS start");
            return WIFI_CONNECT_STATUS_WPS_START;
        case WPACM_EVENT_WPS_FAIL:
            WPACM_LOG_AS(wpacm_receive_wpa_supplicant_event, LOG_Info, "WPS: Registration failed");
            return WIFI_CONNECT_STATUS_WPS_FAIL;
        case WPACM_EVENT_WPS_TIMEOUT:
            WPACM_LOG_AS(wpacm_receive_wpa_supplicant_event, LOG_Warn, "WPS: timeout");
            return WIFI_CONNECT_STATUS_WPS_TIMEOUT;
        case WPACM_EVENT_CONNECTED:
            WPACM_LOG_AS(wpacm_receive_wpa_supplicant_event, LOG_Info, "Connected");
            return wpacm_run_connected_hook(data) ? WIFI_CONNECT_STATUS_CONNECTED
                                                  : WIFI_CONNECT_STATUS_DENIAL_BY_IP;
        case WPACM_EVENT_WPS_SUCCESS:
            WPACM_LOG_AS(wpacm_receive_wpa_supplicant_event, LOG_Info,
                         "WPS: Registration succeeded");
            return wpacm_run_connected_hook(data) ? WIFI_CONNECT_STATUS_WPS_SUCCESS
                                                  : WIFI_CONNECT_STATUS_DENIAL_BY_IP;
        default:
            return WIFI_CONNECT_STATUS_UNKNOW;
    }
}

static bool wpacm_event_waiting(wpacli_monitor_data* data, struct wpa_ctrl* ctrl, int timeout_ms) {
    int fd = wpa_ctrl_get_fd(ctrl);
    fd_set fds;
    FD_ZERO(&fds);
    FD_SET(fd, &fds);
    struct timeval wait = {timeout_ms / 1000, (timeout_ms % 1000) * 1000L};
    if (select(fd + 1, &fds, nullptr, nullptr, &wait) < 0) {
        return false;
    }
    if (data->stop_service || g_program_exist) {
        return false;
    }
    return wpa_ctrl_pending(ctrl) > 0;
}

WiFi_Connection_Status wpacm_receive_wpa_supplicant_event(void* monitor_data,
                                                          struct wpa_ctrl* wpa_event_ctrl,
                                                          int timeout_ms) {
    wpacli_monitor_data* data = static_cast<wpacli_monitor_data*>(monitor_data);
    if (data == nullptr || wpa_event_ctrl == nullptr ||
        !wpacm_event_waiting(data, wpa_event_ctrl, timeout_ms)) {
        return WIFI_CONNECT_STATUS_UNKNOW;
    }
    // One byte more than a message may fill, so the text always ends.
    char message[WPACM_REPLY_SIZE + 1];
    memset(message, 0, sizeof(message));
    size_t len = WPACM_REPLY_SIZE;
    int ret = wpa_ctrl_recv(wpa_event_ctrl, message, &len);
    if (ret != 0) {
        WPACM_LOG(LOG_Error, "Can't receive event data from wpa_supplication, ret=%d", ret);
        wpacm_raise_fatal_signal();
        return WIFI_CONNECT_STATUS_UNKNOW;
    }
    const char* text = wpacm_event_text(message);
    WPACM_LOG(LOG_Debug, "Received event, size:%d , data:%s", static_cast<int>(len), text);
    return wpacm_apply_event(data, wpacm_classify_event(text));
}
