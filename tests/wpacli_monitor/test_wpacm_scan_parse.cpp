// Parsing of STATUS and SCAN_RESULTS, and the aging of the scan list, driven
// with chosen clock values.
#include <gtest/gtest.h>

#include "wpacli_monitor/wpacm_internal.h"

struct flags_case {
    const char* flags;
    WiFi_Security security;
};

TEST(SecurityFromFlags, FollowsTheTestOrder) {
    const flags_case cases[] = {
        {"[WPA-PSK-CCMP][WPA2-PSK-CCMP][ESS]", WIFI_SECURITY_ANY_WPA},
        {"[WPA2-PSK-CCMP][ESS]", WIFI_SECURITY_WPA2_PSK_AES},
        {"[WPA2-PSK-TKIP][ESS]", WIFI_SECURITY_WPA2_PSK_TKIP},
        {"[WPA2-PSK-TKIP+CCMP][ESS]", WIFI_SECURITY_WPA2_PSK_TKIP_AES},
        {"[WPA2-PSK-CCMP+TKIP][ESS]", WIFI_SECURITY_WPA2_PSK_TKIP},
        {"[WPA2-EAP-CCMP][ESS]", WIFI_SECURITY_WPA2_EAP_AES},
        {"[WPA2-EAP-TKIP][ESS]", WIFI_SECURITY_WPA2_EAP_TKIP},
        {"[WPA2-EAP-TKIP+CCMP][ESS]", WIFI_SECURITY_WPA2_EAP_TKIP_AES},
        {"[WPA-EAP-CCMP][WPA2-EAP-CCMP]", WIFI_SECURITY_ANY_WPA},
        {"[WPA-PSK-CCMP][ESS]", WIFI_SECURITY_WPA_PSK_AES},
        {"[WPA-PSK-TKIP][ESS]", WIFI_SECURITY_WPA_PSK_TKIP},
        {"[WPA-PSK-TKIP+CCMP][ESS]", WIFI_SECURITY_WPA_PSK_TKIP_AES},
        {"[WPA-EAP-CCMP][ESS]", WIFI_SECURITY_WPA_EAP_AES},
        {"[WPA-EAP-TKIP][ESS]", WIFI_SECURITY_WPA_EAP_TKIP},
        {"[WPA-EAP-TKIP+CCMP][ESS]", WIFI_SECURITY_WPA_EAP_TKIP_AES},
        {"[WEP][ESS]", WIFI_SECURITY_WEP},
        {"[ESS]", WIFI_SECURITY_NONE},
        {"", WIFI_SECURITY_NONE},
        {"[SAE-CCMP][ESS]", WIFI_SECURITY_NONE},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(wpacm_security_from_flags(c.flags), c.security) << c.flags;
    }
}

TEST(SignalToPercent, DbmAndQualityFigures) {
    const int cases[][2] = {{-40, 99}, {-30, 99}, {-65, 50}, {-89, 2}, {-90, 1},
                            {-100, 1}, {-41, 98}, {0, 1},    {1, 1},   {57, 57},
                            {99, 99},  {100, 99}, {250, 99}};
    for (const auto& c : cases) {
        EXPECT_EQ(wpacm_signal_to_percent(c[0]), c[1]) << c[0];
    }
}

TEST(ScanLine, SsidKeepsItsBlanks) {
    wifi_ap_info ap;
    ASSERT_TRUE(wpacm_parse_scan_line(
        "00:11:22:33:44:55\t2437\t-65\t[WPA2-PSK-CCMP][WPS][ESS]\tmy home  net", &ap));
    EXPECT_EQ(ap.bssid, "00:11:22:33:44:55");
    EXPECT_EQ(ap.ssid, "my home  net");
    EXPECT_EQ(ap.security, WIFI_SECURITY_WPA2_PSK_AES);
    EXPECT_EQ(ap.signal, 50);
    EXPECT_TRUE(ap.wps);
    EXPECT_EQ(ap.network_id, -1);
    EXPECT_EQ(ap.priority, 0);
    EXPECT_TRUE(ap.ascii_key);
    EXPECT_FALSE(ap.saved);
    EXPECT_TRUE(ap.in_range);
    EXPECT_EQ(ap.password, "");
}

TEST(ScanLine, EmptySsidIsNotListed) {
    wifi_ap_info ap;
    EXPECT_FALSE(wpacm_parse_scan_line("00:11:22:33:44:55\t2437\t-65\t[ESS]\t", &ap));
    EXPECT_FALSE(wpacm_parse_scan_line("00:11:22:33:44:55\t2437\t-65\t[ESS]", &ap));
    EXPECT_FALSE(wpacm_parse_scan_line("", &ap));
    EXPECT_FALSE(wpacm_parse_scan_line("garbage", &ap));
}

TEST(ScanLine, LeadingBlanksOfTheSsidAreDropped) {
    wifi_ap_info ap;
    ASSERT_TRUE(wpacm_parse_scan_line("aa:bb:cc:dd:ee:ff\t2412\t-50\t[ESS]\t  lead", &ap));
    EXPECT_EQ(ap.ssid, "lead");
    EXPECT_FALSE(ap.wps);
    EXPECT_EQ(ap.security, WIFI_SECURITY_NONE);
}

TEST(ScanKey, IsSsidPlusSecurityId) {
    wifi_ap_info ap;
    clear_wifi_ap_info(&ap);
    ap.ssid = "home";
    ap.security = WIFI_SECURITY_WPA2_PSK_AES;
    EXPECT_EQ(wpacm_scan_key(ap), "home+security_id:11");
}

TEST(Status, ParsedFromKeyValueLines) {
    wpa_supplicant_status status;
    EXPECT_TRUE(wpacm_parse_status(
        "bssid=00:11:22:33:44:55\nfreq=2437\nssid=office net\nid=0\nmode=station\n"
        "pairwise_cipher=CCMP\ngroup_cipher=CCMP\nkey_mgmt=WPA2-PSK\nwpa_state=COMPLETED\n"
        "address=02:00:00:00:01:00\n",
        &status));
    EXPECT_EQ(status.bssid, "00:11:22:33:44:55");
    EXPECT_EQ(status.ssid, "office net");
    EXPECT_EQ(status.wpa_state, "COMPLETED");
    EXPECT_EQ(status.key_mgmt, "WPA2-PSK");
    EXPECT_FALSE(
        wpacm_parse_status("wpa_state=DISCONNECTED\naddress=02:00:00:00:01:00\n", &status));
    EXPECT_EQ(status.ssid, "");
    EXPECT_EQ(status.wpa_state, "DISCONNECTED");
}

static const char* kHeader = "bssid / frequency / signal level / flags / ssid\n";

TEST(ScanList, TwoBssidsOfOneNetworkShareAnEntry) {
    std::map<std::string, wifi_scan_ap_info> list;
    std::string reply = std::string(kHeader) +
                        "00:00:00:00:00:01\t2412\t-50\t[WPA2-PSK-CCMP][ESS]\tcorp\n"
                        "00:00:00:00:00:02\t2437\t-70\t[WPA2-PSK-CCMP][ESS]\tcorp\n"
                        "00:00:00:00:00:03\t2437\t-70\t[ESS]\tcorp\n";
    wpacm_merge_scan_results(&list, reply.c_str(), 1000000);
    ASSERT_EQ(list.size(), 2u);
    const wifi_scan_ap_info& entry = list.at("corp+security_id:11");
    EXPECT_EQ(entry.ap_info.bssid, "00:00:00:00:00:02");  // the last one parsed
    EXPECT_EQ(entry.timeout_ms, 1000000 + 45000);
    EXPECT_EQ(entry.mini_alive_ms, 1000000 + 15000);
    EXPECT_TRUE(entry.in_scan_result);
    EXPECT_EQ(list.count("corp+security_id:1"), 1u);
}

// One scan update at time now in which the listed access points are seen.
static void scan_at(std::map<std::string, wifi_scan_ap_info>* list, int64_t now,
                    const std::string& lines) {
    for (auto& item : *list) {
        item.second.in_scan_result = false;
    }
    wpacm_merge_scan_results(list, (std::string(kHeader) + lines).c_str(), now);
    wpacm_age_scan_list(list, now);
}

static const char* kCafe = "00:00:00:00:00:0a\t2412\t-50\t[ESS]\tcafe\n";
static const char* kHome = "00:00:00:00:00:0b\t2412\t-50\t[ESS]\thome\n";

TEST(ScanList, ApMissingFromOneUpdateKeepsItsEntry) {
    std::map<std::string, wifi_scan_ap_info> list;
    scan_at(&list, 0, std::string(kCafe) + kHome);
    scan_at(&list, 20000, kHome);
    ASSERT_EQ(list.count("cafe+security_id:1"), 1u);
    EXPECT_EQ(list.at("cafe+security_id:1").not_in_range_count, 1);
}

TEST(ScanList, ApMissingTwiceIsRemovedOnlyAfterFifteenSeconds) {
    std::map<std::string, wifi_scan_ap_info> list;
    scan_at(&list, 0, std::string(kCafe) + kHome);
    scan_at(&list, 5000, kHome);
    scan_at(&list, 10000, kHome);
    EXPECT_EQ(list.count("cafe+security_id:1"), 1u);  // missed twice, but only 10 s ago
    scan_at(&list, 15000, kHome);
    EXPECT_EQ(list.count("cafe+security_id:1"), 1u);  // 15 s is not more than 15 s
    scan_at(&list, 15001, kHome);
    EXPECT_EQ(list.count("cafe+security_id:1"), 0u);
    EXPECT_EQ(list.count("home+security_id:1"), 1u);
}

TEST(ScanList, ApIsRemovedFortyFiveSecondsAfterItWasLastSeen) {
    std::map<std::string, wifi_scan_ap_info> list;
    scan_at(&list, 0, std::string(kCafe) + kHome);
    scan_at(&list, 44999, kHome);
    EXPECT_EQ(list.count("cafe+security_id:1"), 1u);
    // An update whose request failed still ages the list.
    for (auto& item : list) {
        item.second.in_scan_result = false;
    }
    wpacm_age_scan_list(&list, 45000);
    EXPECT_EQ(list.count("cafe+security_id:1"), 0u);
}

TEST(ScanList, ApSeenInEveryScanIsNeverRemoved) {
    std::map<std::string, wifi_scan_ap_info> list;
    for (int64_t now = 0; now < 600000; now += 10000) {
        scan_at(&list, now, kHome);
        ASSERT_EQ(list.count("home+security_id:1"), 1u) << now;
        EXPECT_EQ(list.at("home+security_id:1").not_in_range_count, 0);
    }
}

TEST(ScanList, HiddenNetworksAndJunkLinesAreSkipped) {
    std::map<std::string, wifi_scan_ap_info> list;
    scan_at(&list, 0,
            "00:00:00:00:00:01\t2412\t-50\t[ESS]\t\n\n\tjunk\nno tabs here\n"
            "00:00:00:00:00:02\t2412\t-50\t[WEP][ESS]\twep net\n");
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list.begin()->first, "wep net+security_id:2");
}

// wpa_supplicant 2.10 prints an SSID escaped: bytes outside 32..126 as
// \xNN, the quote and the backslash with a backslash before them.
TEST(ScanLine, EscapedSsidsAreDecodedToTheirNames) {
    const char* cases[][2] = {
        {"Caf\\xc3\\xa9", "Caf\xc3\xa9"},
        {"\\xe4\\xb8\\xad\\xe6\\x96\\x87\\xe7\\xbd\\x91", "\xe4\xb8\xad\xe6\x96\x87\xe7\xbd\x91"},
        {"cam \\xf0\\x9f\\x93\\xb7", "cam \xf0\x9f\x93\xb7"},
        {"a\\\"b", "a\"b"},
        {"back\\\\slash", "back\\slash"},
        {"plain name", "plain name"},
    };
    for (const auto& c : cases) {
        wifi_ap_info ap;
        ASSERT_TRUE(wpacm_parse_scan_line(
            std::string("00:11:22:33:44:55\t2437\t-65\t[WPA2-PSK-CCMP][ESS]\t") + c[0], &ap))
            << c[0];
        EXPECT_EQ(ap.ssid, c[1]) << c[0];
    }
}

// A name that is not readable UTF-8 text is shown in wpa_supplicant's own
// escaped form inside P"...", which ConnectAP takes back.
TEST(ScanLine, SsidThatIsNotUtf8TextIsShownEscapedInsidePQuotes) {
    const char* cases[][2] = {
        {"Caf\\xe9", "P\"Caf\\xe9\""},       {"\\xff\\xfe", "P\"\\xff\\xfe\""},
        {"two\\nlines", "P\"two\\nlines\""}, {"\\xed\\xa0\\x80", "P\"\\xed\\xa0\\x80\""},
        {"q\\\"\\xc3", "P\"q\\\"\\xc3\""},
    };
    for (const auto& c : cases) {
        wifi_ap_info ap;
        ASSERT_TRUE(
            wpacm_parse_scan_line(std::string("00:11:22:33:44:55\t2437\t-65\t[ESS]\t") + c[0], &ap))
            << c[0];
        EXPECT_EQ(ap.ssid, c[1]) << c[0];
    }
}

TEST(Status, EscapedSsidIsDecoded) {
    wpa_supplicant_status status;
    EXPECT_TRUE(wpacm_parse_status(
        "bssid=00:11:22:33:44:55\nfreq=2437\nssid=Caf\\xc3\\xa9 \\\"x\\\\y\\\"\nid=0\n"
        "mode=station\nkey_mgmt=WPA2-PSK\nwpa_state=COMPLETED\n",
        &status));
    EXPECT_EQ(status.ssid, "Caf\xc3\xa9 \"x\\y\"");
    EXPECT_TRUE(wpacm_parse_status("ssid=\\xe9t\\xe9\nwpa_state=COMPLETED\n", &status));
    EXPECT_EQ(status.ssid, "P\"\\xe9t\\xe9\"");
}

TEST(ScanList, EscapedAndPlainNamesOfOneNetworkShareTheDecodedKey) {
    std::map<std::string, wifi_scan_ap_info> list;
    std::string reply = std::string(kHeader) +
                        "00:11:22:33:44:55\t2437\t-65\t[WPA2-PSK-CCMP][ESS]\tCaf\\xc3\\xa9\n";
    wpacm_merge_scan_results(&list, reply.c_str(), 1000);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list.begin()->first, "Caf\xc3\xa9+security_id:11");
}
