// Classification of wpa_supplicant's event texts.
#include <gtest/gtest.h>

#include "wpacli_monitor/wpacm_internal.h"

TEST(EventText, LevelPrefixIsSkipped) {
    EXPECT_STREQ(wpacm_event_text("<3>CTRL-EVENT-SCAN-RESULTS "), "CTRL-EVENT-SCAN-RESULTS ");
    EXPECT_STREQ(wpacm_event_text("CTRL-EVENT-SCAN-RESULTS "), "CTRL-EVENT-SCAN-RESULTS ");
    EXPECT_STREQ(wpacm_event_text("<3 no closing"), "<3 no closing");
}

struct event_case {
    const char* text;
    wpacm_event_kind kind;
};

TEST(ClassifyEvent, PatternsInTheirOrder) {
    const event_case cases[] = {
        {"CTRL-EVENT-SCAN-RESULTS ", WPACM_EVENT_SCAN_RESULTS},
        {"CTRL-EVENT-SCAN-RESULTS", WPACM_EVENT_OTHER},
        {"CTRL-EVENT-BSS-REMOVED 3 00:11:22:33:44:55", WPACM_EVENT_BSS_REMOVED},
        {"WPA: 4-Way Handshake failed - pre-shared key may be incorrect",
         WPACM_EVENT_HANDSHAKE_FAILED},
        {"SME: Authentication request to the driver failed", WPACM_EVENT_HANDSHAKE_FAILED},
        {"EPBUG: Going to authenticate", WPACM_EVENT_AUTHENTICATING},
        {"SME: Trying to authenticate with 00:11:22:33:44:55", WPACM_EVENT_AUTHENTICATING},
        {"Trying to associate with 00:11:22:33:44:55 (SSID='x' freq=2412 MHz)",
         WPACM_EVENT_AUTHENTICATING},
        {"CTRL-EVENT-DISCONNECTED bssid=00:11:22:33:44:55 reason=3", WPACM_EVENT_DISCONNECTED},
        {"CTRL-EVENT-DISCONNECTED bssid=00:00:00:00:00:00 reason=3",
         WPACM_EVENT_DISCONNECTED_ZERO_BSSID},
        {"Associated with 00:11:22:33:44:55", WPACM_EVENT_ASSOCIATED},
        {"CTRL-EVENT-EAP-STARTED EAP authentication started", WPACM_EVENT_ASSOCIATED},
        {"CTRL-EVENT-EAP-PROPOSED-METHOD vendor=14122 method=1", WPACM_EVENT_ASSOCIATED},
        {"WPS-CRED-RECEIVED ", WPACM_EVENT_WPS_CRED_RECEIVED},
        {"WPS-OVERLAP-DETECTED ", WPACM_EVENT_WPS_OVERLAP},
        {"CTRL-EVENT-EAP-METHOD EAP vendor 14122 method 1 (WSC) selected", WPACM_EVENT_WPS_METHOD},
        {"CTRL-EVENT-EAP-METHOD EAP vendor 0 method 25 (PEAP) selected",
         WPACM_EVENT_EAP_METHOD_OTHER},
        {"WPS-FAIL msg=8 config_error=0", WPACM_EVENT_WPS_FAIL},
        {"WPS-TIMEOUT ", WPACM_EVENT_WPS_TIMEOUT},
        {"CTRL-EVENT-CONNECTED - Connection to 00:11:22:33:44:55 completed [id=0 id_str=]",
         WPACM_EVENT_CONNECTED},
        {"WPS-SUCCESS ", WPACM_EVENT_WPS_SUCCESS},
        {"WPS-SUCCESS", WPACM_EVENT_OTHER},
        {"CTRL-EVENT-SCAN-STARTED ", WPACM_EVENT_OTHER},
        {"", WPACM_EVENT_OTHER},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(wpacm_classify_event(c.text), c.kind) << c.text;
    }
}
