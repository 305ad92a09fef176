// The AP record and the names under which security kinds are stored.
#include <gtest/gtest.h>

#include "wifi_ap_info/wifi_ap_info.h"

TEST(SecurityNames, TableHasEightRowsInOrder) {
    const char* names[] = {"unknown", "none", "open", "wep", "wpa", "wpa2", "mixed", "anywpa"};
    const int values[] = {0, 1, 1, 2, 9, 16, 17, 17};
    for (int i = 0; i < WAPINFO_SECURITY_NAMES; i++) {
        EXPECT_EQ(g_wifi_security_array[i].security_str, names[i]);
        EXPECT_EQ(static_cast<int>(g_wifi_security_array[i].value), values[i]);
    }
}

TEST(SecurityNames, OpenAndNoneReadAsNoneInAnyCaseAndWriteAsNone) {
    for (const char* name : {"open", "OPEN", "Open", "none", "NoNe"}) {
        WiFi_Security s = WIFI_SECURITY_UNKNOWN;
        ASSERT_TRUE(wapinfo_security_from_name(name, &s)) << name;
        EXPECT_EQ(s, WIFI_SECURITY_NONE) << name;
    }
    EXPECT_STREQ(wapinfo_security_name(WIFI_SECURITY_NONE), "none");
}

TEST(SecurityNames, AnywpaReadsAs17AndWritesAsMixed) {
    for (const char* name : {"anywpa", "ANYWPA", "AnyWpa", "mixed", "MIXED"}) {
        WiFi_Security s = WIFI_SECURITY_UNKNOWN;
        ASSERT_TRUE(wapinfo_security_from_name(name, &s)) << name;
        EXPECT_EQ(s, WIFI_SECURITY_ANY_WPA) << name;
    }
    EXPECT_STREQ(wapinfo_security_name(WIFI_SECURITY_ANY_WPA), "mixed");
}

TEST(SecurityNames, SpecificCipherIsWrittenByGeneration) {
    EXPECT_STREQ(wapinfo_security_name(WIFI_SECURITY_WPA2_PSK_AES), "wpa2");
    WiFi_Security s = WIFI_SECURITY_UNKNOWN;
    ASSERT_TRUE(wapinfo_security_from_name("wpa2", &s));
    EXPECT_EQ(s, WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES);
    for (int v = 3; v <= 8; v++) {
        EXPECT_STREQ(wapinfo_security_name(static_cast<WiFi_Security>(v)), "wpa") << v;
    }
    EXPECT_STREQ(wapinfo_security_name(WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES), "wpa");
    for (int v = 10; v <= 15; v++) {
        EXPECT_STREQ(wapinfo_security_name(static_cast<WiFi_Security>(v)), "wpa2") << v;
    }
    EXPECT_STREQ(wapinfo_security_name(WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES), "wpa2");
    EXPECT_STREQ(wapinfo_security_name(WIFI_SECURITY_WEP), "wep");
}

TEST(SecurityNames, UnknownReadsAsZeroAndOtherValuesHaveNoName) {
    WiFi_Security s = WIFI_SECURITY_NONE;
    ASSERT_TRUE(wapinfo_security_from_name("unknown", &s));
    EXPECT_EQ(s, WIFI_SECURITY_UNKNOWN);
    EXPECT_STREQ(wapinfo_security_name(WIFI_SECURITY_UNKNOWN), "unknown");
    EXPECT_FALSE(wapinfo_security_from_name("wpa3", &s));
    EXPECT_FALSE(wapinfo_security_from_name("", &s));
    EXPECT_EQ(wapinfo_security_name(static_cast<WiFi_Security>(18)), nullptr);
    EXPECT_EQ(wapinfo_security_name(static_cast<WiFi_Security>(-1)), nullptr);
}

TEST(ApRecord, ClearGivesZeroIdAndSignal) {
    wifi_ap_info ap = {5, "b", "s", "p", WIFI_SECURITY_WEP, -1, 3, true, true, true, true};
    clear_wifi_ap_info(&ap);
    EXPECT_EQ(ap.network_id, 0);
    EXPECT_EQ(ap.bssid, "");
    EXPECT_EQ(ap.ssid, "");
    EXPECT_EQ(ap.password, "");
    EXPECT_EQ(ap.security, WIFI_SECURITY_UNKNOWN);
    EXPECT_EQ(ap.signal, 0);
    EXPECT_EQ(ap.priority, 0);
    EXPECT_FALSE(ap.ascii_key);
    EXPECT_FALSE(ap.wps);
    EXPECT_FALSE(ap.saved);
    EXPECT_FALSE(ap.in_range);
}

TEST(ApRecord, CopyCopiesEveryField) {
    wifi_ap_info src = {7,     "aa:bb", "net", "key", WIFI_SECURITY_ANY_WPA, 55, 2,
                        false, true,    true,  false};
    wifi_ap_info dst;
    clear_wifi_ap_info(&dst);
    copy_wifi_ap_info(&dst, &src);
    EXPECT_EQ(dst.network_id, 7);
    EXPECT_EQ(dst.bssid, "aa:bb");
    EXPECT_EQ(dst.ssid, "net");
    EXPECT_EQ(dst.password, "key");
    EXPECT_EQ(dst.security, WIFI_SECURITY_ANY_WPA);
    EXPECT_EQ(dst.signal, 55);
    EXPECT_EQ(dst.priority, 2);
    EXPECT_FALSE(dst.ascii_key);
    EXPECT_TRUE(dst.wps);
    EXPECT_TRUE(dst.saved);
    EXPECT_FALSE(dst.in_range);
}
