// The AP record and the security names.
#include <gtest/gtest.h>

#include <string>

#include "wifi_ap_info/wifi_ap_info.h"

namespace {

wifi_ap_info filled_record() {
    wifi_ap_info info;
    info.network_id = 3;
    info.bssid = "aa:bb:cc:dd:ee:ff";
    info.ssid = "Office";
    info.password = "secret99";
    info.security = WIFI_SECURITY_WPA2_PSK_AES;
    info.signal = -55;
    info.priority = 4;
    info.ascii_key = true;
    info.wps = true;
    info.saved = true;
    info.in_range = true;
    return info;
}

WiFi_Security kind_of(const char* name) {
    WiFi_Security value = static_cast<WiFi_Security>(-99);
    EXPECT_TRUE(wapinfo_security_from_name(name, &value)) << name;
    return value;
}

std::string name_of(int value) {
    const char* name = wapinfo_security_to_name(static_cast<WiFi_Security>(value));
    return name == nullptr ? std::string("<none>") : std::string(name);
}

}  // namespace

TEST(SecurityKinds, HaveTheirNumbers) {
    EXPECT_EQ(WIFI_SECURITY_UNKNOWN, 0);
    EXPECT_EQ(WIFI_SECURITY_NONE, 1);
    EXPECT_EQ(WIFI_SECURITY_WEP, 2);
    EXPECT_EQ(WIFI_SECURITY_WPA_PSK_TKIP, 3);
    EXPECT_EQ(WIFI_SECURITY_WPA_PSK_AES, 4);
    EXPECT_EQ(WIFI_SECURITY_WPA_PSK_TKIP_AES, 5);
    EXPECT_EQ(WIFI_SECURITY_WPA_EAP_TKIP, 6);
    EXPECT_EQ(WIFI_SECURITY_WPA_EAP_AES, 7);
    EXPECT_EQ(WIFI_SECURITY_WPA_EAP_TKIP_AES, 8);
    EXPECT_EQ(WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES, 9);
    EXPECT_EQ(WIFI_SECURITY_WPA2_PSK_TKIP, 10);
    EXPECT_EQ(WIFI_SECURITY_WPA2_PSK_AES, 11);
    EXPECT_EQ(WIFI_SECURITY_WPA2_PSK_TKIP_AES, 12);
    EXPECT_EQ(WIFI_SECURITY_WPA2_EAP_TKIP, 13);
    EXPECT_EQ(WIFI_SECURITY_WPA2_EAP_AES, 14);
    EXPECT_EQ(WIFI_SECURITY_WPA2_EAP_TKIP_AES, 15);
    EXPECT_EQ(WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES, 16);
    EXPECT_EQ(WIFI_SECURITY_ANY_WPA, 17);
    EXPECT_EQ(sizeof(WiFi_Security), 4u);
}

TEST(SecurityNameTable, HasEightRowsInOrder) {
    const struct {
        const char* name;
        WiFi_Security value;
    } expected[] = {
        {"unknown", WIFI_SECURITY_UNKNOWN},
        {"none", WIFI_SECURITY_NONE},
        {"open", WIFI_SECURITY_NONE},
        {"wep", WIFI_SECURITY_WEP},
        {"wpa", WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES},
        {"wpa2", WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES},
        {"mixed", WIFI_SECURITY_ANY_WPA},
        {"anywpa", WIFI_SECURITY_ANY_WPA},
    };
    ASSERT_EQ(WIFI_SECURITY_NAME_COUNT, 8);
    for (int row = 0; row < WIFI_SECURITY_NAME_COUNT; row++) {
        EXPECT_STREQ(g_wifi_security_array[row].security_str, expected[row].name) << row;
        EXPECT_EQ(g_wifi_security_array[row].value, expected[row].value) << row;
    }
}

TEST(SecurityNameToKind, OpenInAnyCaseAndNoneReadAsNone) {
    EXPECT_EQ(kind_of("open"), WIFI_SECURITY_NONE);
    EXPECT_EQ(kind_of("OPEN"), WIFI_SECURITY_NONE);
    EXPECT_EQ(kind_of("oPeN"), WIFI_SECURITY_NONE);
    EXPECT_EQ(kind_of("none"), WIFI_SECURITY_NONE);
    EXPECT_EQ(kind_of("None"), WIFI_SECURITY_NONE);
}

TEST(SecurityNameToKind, AnywpaInAnyCaseReadsAsAnyWpa) {
    EXPECT_EQ(kind_of("anywpa"), WIFI_SECURITY_ANY_WPA);
    EXPECT_EQ(kind_of("ANYWPA"), WIFI_SECURITY_ANY_WPA);
    EXPECT_EQ(kind_of("AnyWpa"), WIFI_SECURITY_ANY_WPA);
    EXPECT_EQ(kind_of("mixed"), WIFI_SECURITY_ANY_WPA);
}

TEST(SecurityNameToKind, GenerationNamesReadAsTheirUmbrellaKinds) {
    EXPECT_EQ(kind_of("wep"), WIFI_SECURITY_WEP);
    EXPECT_EQ(kind_of("WPA"), WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES);
    EXPECT_EQ(kind_of("wpa2"), WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES);
}

TEST(SecurityNameToKind, UnknownReadsAsZero) {
    EXPECT_EQ(kind_of("unknown"), WIFI_SECURITY_UNKNOWN);
    EXPECT_EQ(kind_of("UNKNOWN"), WIFI_SECURITY_UNKNOWN);
}

TEST(SecurityNameToKind, NameOutsideTheTableHasNoKind) {
    WiFi_Security value = WIFI_SECURITY_WEP;
    EXPECT_FALSE(wapinfo_security_from_name("wpa3", &value));
    EXPECT_FALSE(wapinfo_security_from_name("", &value));
    EXPECT_FALSE(wapinfo_security_from_name(" open", &value));
    EXPECT_FALSE(wapinfo_security_from_name(nullptr, &value));
    EXPECT_EQ(value, WIFI_SECURITY_WEP);
}

TEST(SecurityKindToName, FirstRowWinsForSynonyms) {
    EXPECT_EQ(name_of(WIFI_SECURITY_NONE), "none");
    EXPECT_EQ(name_of(WIFI_SECURITY_ANY_WPA), "mixed");
    EXPECT_EQ(name_of(WIFI_SECURITY_UNKNOWN), "unknown");
    EXPECT_EQ(name_of(WIFI_SECURITY_WEP), "wep");
    EXPECT_EQ(name_of(WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES), "wpa");
    EXPECT_EQ(name_of(WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES), "wpa2");
}

TEST(SecurityKindToName, SpecificCiphersFallBackToTheirGeneration) {
    for (int value = 3; value <= 8; value++) {
        EXPECT_EQ(name_of(value), "wpa") << value;
    }
    for (int value = 10; value <= 15; value++) {
        EXPECT_EQ(name_of(value), "wpa2") << value;
    }
}

TEST(SecurityKindToName, Wpa2PskAesIsWrittenAsWpa2AndReadBackAsTheUmbrellaKind) {
    EXPECT_EQ(name_of(WIFI_SECURITY_WPA2_PSK_AES), "wpa2");
    EXPECT_EQ(kind_of(wapinfo_security_to_name(WIFI_SECURITY_WPA2_PSK_AES)),
              WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES);
}

TEST(SecurityKindToName, ValuesOutsideTheKindsHaveNoName) {
    EXPECT_EQ(name_of(18), "<none>");
    EXPECT_EQ(name_of(-1), "<none>");
    EXPECT_EQ(name_of(1000), "<none>");
}

TEST(ApRecord, ClearGivesZeroNetworkIdAndSignalAndEmptyFields) {
    wifi_ap_info info = filled_record();
    clear_wifi_ap_info(&info);
    EXPECT_EQ(info.network_id, 0);
    EXPECT_EQ(info.bssid, "");
    EXPECT_EQ(info.ssid, "");
    EXPECT_EQ(info.password, "");
    EXPECT_EQ(info.security, WIFI_SECURITY_UNKNOWN);
    EXPECT_EQ(info.signal, 0);
    EXPECT_EQ(info.priority, 0);
    EXPECT_FALSE(info.ascii_key);
    EXPECT_FALSE(info.wps);
    EXPECT_FALSE(info.saved);
    EXPECT_FALSE(info.in_range);
}

TEST(ApRecord, CopyTakesEveryFieldAndOwnsItsStrings) {
    wifi_ap_info src = filled_record();
    wifi_ap_info dst;
    clear_wifi_ap_info(&dst);
    copy_wifi_ap_info(&dst, &src);
    EXPECT_EQ(dst.network_id, 3);
    EXPECT_EQ(dst.bssid, "aa:bb:cc:dd:ee:ff");
    EXPECT_EQ(dst.ssid, "Office");
    EXPECT_EQ(dst.password, "secret99");
    EXPECT_EQ(dst.security, WIFI_SECURITY_WPA2_PSK_AES);
    EXPECT_EQ(dst.signal, -55);
    EXPECT_EQ(dst.priority, 4);
    EXPECT_TRUE(dst.ascii_key);
    EXPECT_TRUE(dst.wps);
    EXPECT_TRUE(dst.saved);
    EXPECT_TRUE(dst.in_range);
    src.ssid = "Changed";
    src.password.clear();
    EXPECT_EQ(dst.ssid, "Office");
    EXPECT_EQ(dst.password, "secret99");
}

TEST(ApRecord, NullRecordsAreIgnored) {
    wifi_ap_info info = filled_record();
    clear_wifi_ap_info(nullptr);
    copy_wifi_ap_info(nullptr, &info);
    copy_wifi_ap_info(&info, nullptr);
    copy_wifi_ap_info(&info, &info);
    EXPECT_EQ(info.ssid, "Office");
}

// The answers name the kinds otherwise than the file does, on purpose.
TEST(SecurityNamesInReports, MixedKindsAreUnknown) {
    const char* expected[] = {"unknown", "none", "wep",     "wpa",    "wpa",    "wpa",  "wpa",
                              "wpa",     "wpa",  "unknown", "wpa2",   "wpa2",   "wpa2", "wpa2",
                              "wpa2",    "wpa2", "unknown", "anywpa", "unknown"};
    for (int s = 0; s <= 18; s++) {
        EXPECT_STREQ(wapinfo_security_answer_name(static_cast<WiFi_Security>(s)), expected[s]) << s;
    }
    EXPECT_STREQ(wapinfo_security_answer_name(static_cast<WiFi_Security>(-1)), "unknown");
}

TEST(SecurityKinds, EveryKindHasOneRowOfNames) {
    for (int value = WIFI_SECURITY_UNKNOWN; value <= WIFI_SECURITY_ANY_WPA; value++) {
        EXPECT_EQ(g_wifi_security_kinds[value].value, value);
    }
}
