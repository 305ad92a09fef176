// String helpers, security matching and the wpa_supplicant security table.
#include <gtest/gtest.h>

#include "wpacli_monitor/wpacm_internal.h"

TEST(RemoveQuote, StripsBlanksThenOnePairOfQuotes) {
    EXPECT_EQ(wpacm_remove_quote("  \"my net\"  "), "my net");
    EXPECT_EQ(wpacm_remove_quote("\"\"quoted\"\""), "\"quoted\"");
    EXPECT_EQ(wpacm_remove_quote("plain"), "plain");
    EXPECT_EQ(wpacm_remove_quote("   "), "");
    EXPECT_EQ(wpacm_remove_quote(""), "");
}

TEST(RemoveQuote, TextOpeningWithAQuoteButNotClosingKeepsIt) {
    std::string text = "\"my net";
    EXPECT_EQ(wpacm_remove_quote(text), text);
    EXPECT_EQ(wpacm_remove_quote(text).size(), text.size());
}

TEST(RemoveQuote, LoneQuoteMarkGivesEmptyText) {
    EXPECT_EQ(wpacm_remove_quote("\""), "");
}

TEST(RemoveQuote, OnlySpacesAreBlanks) {
    EXPECT_EQ(wpacm_remove_quote("\t\"x\"\t"), "\t\"x\"\t");
}

TEST(CutString, ReturnsFieldsThatEndInADelimiter) {
    std::string text = "  one two  three";
    size_t start = 0, position = 0;
    std::string field = "unchanged";
    ASSERT_TRUE(wpacm_cut_string(text, ' ', start, position, field));
    EXPECT_EQ(field, "one");
    EXPECT_EQ(start, 2u);
    EXPECT_EQ(position, 5u);
    ASSERT_TRUE(wpacm_cut_string(text, ' ', start, position, field));
    EXPECT_EQ(field, "two");
    // The last field has no delimiter after it and is not returned.
    EXPECT_FALSE(wpacm_cut_string(text, ' ', start, position, field));
    EXPECT_EQ(field, "two");
}

TEST(CutString, NothingButDelimitersFails) {
    size_t start = 0, position = 0;
    std::string field = "kept";
    EXPECT_FALSE(wpacm_cut_string("    ", ' ', start, position, field));
    EXPECT_EQ(field, "kept");
}

TEST(ReplaceString, ReplacesEveryOccurrenceOfSeparatedMatches) {
    EXPECT_EQ(wpacm_replace_string("a\tb\tc", "\t", " "), "a b c");
    EXPECT_EQ(wpacm_replace_string("nothing", "\t", " "), "nothing");
}

TEST(ReplaceString, ResumesOnePastTheMatchInTheModifiedText) {
    // The character right after a replaced tab is not looked at.
    EXPECT_EQ(wpacm_replace_string("a\t\tb", "\t", " "), "a \tb");
    EXPECT_EQ(wpacm_replace_string("\t\t\t", "\t", " "), " \t ");
    // A longer replacement shifts the resume point into the inserted text.
    EXPECT_EQ(wpacm_replace_string("xx", "x", "yyy"), "yyyyyy");
    EXPECT_EQ(wpacm_replace_string("abab", "ab", "c"), "cab");
}

struct same_security_case {
    WiFi_Security a;
    WiFi_Security b;
    bool same;
};

TEST(IsSameSecurity, FamiliesMatchAsTheDeviceExpects) {
    const same_security_case cases[] = {
        {WIFI_SECURITY_WPA_PSK_AES, WIFI_SECURITY_WPA2_PSK_AES, false},
        {WIFI_SECURITY_ANY_WPA, WIFI_SECURITY_WPA2_EAP_AES, true},
        {WIFI_SECURITY_NONE, WIFI_SECURITY_WEP, false},
        {WIFI_SECURITY_NONE, WIFI_SECURITY_NONE, true},
        {WIFI_SECURITY_WEP, WIFI_SECURITY_WEP, true},
        {WIFI_SECURITY_UNKNOWN, WIFI_SECURITY_UNKNOWN, true},
        {WIFI_SECURITY_UNKNOWN, WIFI_SECURITY_NONE, false},
        {WIFI_SECURITY_WPA_PSK_TKIP, WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES, true},
        {WIFI_SECURITY_WPA2_PSK_TKIP, WIFI_SECURITY_WPA2_EAP_TKIP_AES, true},
        {WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES, WIFI_SECURITY_WPA2_PSK_AES, true},
        {WIFI_SECURITY_ANY_WPA, WIFI_SECURITY_WPA_EAP_AES, true},
        {WIFI_SECURITY_ANY_WPA, WIFI_SECURITY_NONE, false},
        {WIFI_SECURITY_ANY_WPA, WIFI_SECURITY_WEP, false},
        {WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES, WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(wpacm_is_same_security(c.a, c.b), c.same) << c.a << " vs " << c.b;
        EXPECT_EQ(wpacm_is_same_security(c.b, c.a), c.same) << c.b << " vs " << c.a;
    }
}

TEST(WpaSecurityTable, HasSixteenRowsInOrder) {
    struct row {
        const char* key_mgmt;
        const char* proto;
        const char* pairwise;
        int value;
    };
    const row expected[WPACM_SECURITY_ROWS] = {
        {"NONE", "WPA", "NONE", 1},
        {"NONE", "", "NONE", 2},
        {"WPA-PSK", "WPA", "TKIP", 3},
        {"WPA-PSK", "WPA", "CCMP", 4},
        {"WPA-PSK", "WPA", "CCMP TKIP", 5},
        {"WPA-EAP", "WPA", "TKIP", 6},
        {"WPA-EAP", "WPA", "CCMP", 7},
        {"WPA-EAP", "WPA", "CCMP TKIP", 8},
        {"WPA-PSK WPA-EAP", "WPA", "CCMP TKIP", 9},
        {"WPA-PSK", "RSN", "TKIP", 10},
        {"WPA-PSK", "RSN", "CCMP", 11},
        {"WPA-PSK", "RSN", "CCMP TKIP", 12},
        {"WPA-EAP", "RSN", "TKIP", 13},
        {"WPA-EAP", "RSN", "CCMP", 14},
        {"WPA-PSK WPA-EAP", "RSN", "CCMP TKIP", 16},
        {"WPA-PSK WPA-EAP", "WPA RSN", "CCMP TKIP", 17},
    };
    for (int i = 0; i < WPACM_SECURITY_ROWS; i++) {
        EXPECT_EQ(g_wpa_security_array[i].security_str, expected[i].key_mgmt) << i;
        EXPECT_EQ(g_wpa_security_array[i].protocol_str, expected[i].proto) << i;
        EXPECT_EQ(g_wpa_security_array[i].pairwise_str, expected[i].pairwise) << i;
        EXPECT_EQ(static_cast<int>(g_wpa_security_array[i].value), expected[i].value) << i;
    }
}

TEST(WpaSecurityTable, Wpa2EapWithBothCiphersAndUnknownHaveNoRow) {
    EXPECT_EQ(wpacm_find_wpa_security(WIFI_SECURITY_WPA2_EAP_TKIP_AES), nullptr);
    EXPECT_EQ(wpacm_find_wpa_security(WIFI_SECURITY_UNKNOWN), nullptr);
    ASSERT_NE(wpacm_find_wpa_security(WIFI_SECURITY_NONE), nullptr);
    EXPECT_EQ(wpacm_find_wpa_security(WIFI_SECURITY_NONE)->protocol_str, "WPA");
}

TEST(WpaText, DecodesEveryEscapeWpaSupplicantReads) {
    EXPECT_EQ(wpacm_decode_wpa_text("a\\\"b\\\\c\\n\\r\\t\\e\\x41\\x4\\101\\q"),
              "a\"b\\c\n\r\t\033A\x04"
              "Aq");
    EXPECT_EQ(wpacm_decode_wpa_text("end\\"), "end");
}

TEST(WpaText, EncodesAsWpaSupplicantPrints) {
    EXPECT_EQ(wpacm_encode_wpa_text(std::string("a\"b\\c\n\r\t\033\x01\x7f\xe9 ~", 14)),
              "a\\\"b\\\\c\\n\\r\\t\\e\\x01\\x7f\\xe9 ~");
}

TEST(SsidName, ReadableUtf8IsItsOwnNameAndAnythingElseIsEscapedInPQuotes) {
    EXPECT_EQ(wpacm_ssid_from_bytes("home net"), "home net");
    EXPECT_EQ(wpacm_ssid_from_bytes("\xe4\xb8\xad\xf0\x9f\x93\xb7"),
              "\xe4\xb8\xad\xf0\x9f\x93\xb7");
    EXPECT_EQ(wpacm_ssid_from_bytes("Caf\xe9"), "P\"Caf\\xe9\"");
    EXPECT_EQ(wpacm_ssid_from_bytes("\xc0\xaf"), "P\"\\xc0\\xaf\"");  // overlong
    EXPECT_EQ(wpacm_ssid_from_bytes("\xf4\x90\x80\x80"),
              "P\"\\xf4\\x90\\x80\\x80\"");  // > U+10FFFF
    EXPECT_EQ(wpacm_ssid_from_bytes("a\x7f"), "P\"a\\x7f\"");
    EXPECT_EQ(wpacm_ssid_from_bytes(std::string("a\0b", 3)), "P\"a\\x00b\"");
}

TEST(SsidName, EscapedNameGoesBackToItsBytesAndALiteralLookalikeStaysItself) {
    EXPECT_EQ(wpacm_ssid_to_bytes("P\"Caf\\xe9\""), "Caf\xe9");
    EXPECT_EQ(wpacm_ssid_to_bytes("P\"two\\nlines\""), "two\nlines");
    // These P"..." texts are not what an unreadable name is shown as.
    EXPECT_EQ(wpacm_ssid_to_bytes("P\"abc\""), "P\"abc\"");
    EXPECT_EQ(wpacm_ssid_to_bytes("P\"Caf\\xE9\""), "P\"Caf\\xE9\"");
    EXPECT_EQ(wpacm_ssid_to_bytes("Caf\\xe9"), "Caf\\xe9");
}

TEST(SsidName, NetworkValueIsQuotedTextOnlyForPlainAscii) {
    bool quoted = false;
    EXPECT_EQ(wpacm_ssid_network_value("home net", &quoted), "home net");
    EXPECT_TRUE(quoted);
    EXPECT_EQ(wpacm_ssid_network_value("Caf\xc3\xa9", &quoted), "436166c3a9");
    EXPECT_FALSE(quoted);
    EXPECT_EQ(wpacm_ssid_network_value("a\"b", &quoted), "612262");
    EXPECT_FALSE(quoted);
    EXPECT_EQ(wpacm_ssid_network_value("P\"\\xff\"", &quoted), "ff");
    EXPECT_FALSE(quoted);
}

TEST(SsidName, ConfigValuesInEveryFormWpaSupplicantSaves) {
    EXPECT_EQ(wpacm_ssid_from_config_value("\"home\""), "home");
    EXPECT_EQ(wpacm_ssid_from_config_value("686f6d65"), "home");
    EXPECT_EQ(wpacm_ssid_from_config_value("436166E9"), "P\"Caf\\xe9\"");
    EXPECT_EQ(wpacm_ssid_from_config_value("P\"Caf\\xc3\\xa9\""), "Caf\xc3\xa9");
    EXPECT_EQ(wpacm_ssid_from_config_value("bare"), "bare");
}
