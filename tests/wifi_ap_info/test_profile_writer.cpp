// Writing the profile file: its exact text, what a read gives back, values
// that do not fit on one line, and a save that keeps failing.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "profile_test_util.h"
#include "test_support.h"

using profile_test::make_profile;
using profile_test::profile_text;
using profile_test::ProfileFileTest;
using wifim_test::read_file;
using wifim_test::split_lines;
using wifim_test::write_file;

namespace {

wifi_network_setting static_setting() {
    wifi_network_setting s;
    s.dhcp = false;
    s.dns_dhcp = false;
    s.ip_addr = "10.0.0.5";
    s.netmask = "255.255.255.0";
    s.gateway = "10.0.0.1";
    s.dns_server1 = "8.8.4.4";
    s.dns_server2 = "1.1.1.1";
    return s;
}

wifi_network_setting dhcp_setting() {
    wifi_network_setting s;
    s.dhcp = true;
    s.dns_dhcp = true;
    return s;
}

std::string settings_text(const char* enable, const char* dhcp, const char* dns_dhcp,
                          const std::string& ip, const std::string& gateway,
                          const std::string& netmask, const std::string& dns1,
                          const std::string& dns2) {
    return std::string("wifi_station_enable = ") + enable + "\nwifi_dhcp = " + dhcp +
           "\nwifi_dns_dhcp = " + dns_dhcp + "\nwifi_ip = " + ip + "\nwifi_gateway = " + gateway +
           "\nwifi_netmask = " + netmask + "\nwifi_dns1 = " + dns1 + "\nwifi_dns2 = " + dns2 + "\n";
}

const std::string kStaticSettingsText =
    settings_text("true", "0", "0", "10.0.0.5", "10.0.0.1", "255.255.255.0", "8.8.4.4", "1.1.1.1");

void write_profile_file(bool enable, std::vector<wifi_ap_info> list,
                        wifi_network_setting* setting) {
    wapinfo_update_profile_to_user_setting(enable, &list, setting);
}

std::vector<wifi_ap_info> read_list() {
    bool enable = false;
    std::vector<wifi_ap_info> list;
    wapinfo_read_profile(&enable, &list, nullptr);
    return list;
}

// Every line of the file has the form "key = value" with a key the store
// writes, and no key appears twice.
void expect_only_keys(const std::string& text, const std::vector<std::string>& keys) {
    std::vector<std::string> lines = split_lines(text);
    ASSERT_EQ(lines.size(), keys.size()) << text;
    for (size_t i = 0; i < lines.size(); i++) {
        EXPECT_EQ(lines[i].rfind(keys[i] + " = ", 0), 0u) << "line " << i << ": " << lines[i];
    }
}

std::vector<std::string> file_keys(int profiles) {
    std::vector<std::string> keys = {
        "wifi_station_enable", "wifi_dhcp",    "wifi_dns_dhcp", "wifi_ip",
        "wifi_gateway",        "wifi_netmask", "wifi_dns1",     "wifi_dns2"};
    for (int n = 1; n <= profiles; n++) {
        std::string num = std::to_string(n);
        for (const char* key : {"ssid_", "security_", "passwd_", "passwd_encode_", "priority_"}) {
            keys.push_back(key + num);
        }
    }
    return keys;
}

}  // namespace

class ProfileWriter : public ProfileFileTest {};

TEST_F(ProfileWriter, FileTextIsSettingsThenProfilesKeyForKey) {
    wifi_network_setting setting = static_setting();
    write_profile_file(true,
                       {make_profile("Home", WIFI_SECURITY_WPA2_PSK_AES, "homekey1", 1),
                        make_profile("Cam Lab", WIFI_SECURITY_WEP, "0A0B0C0D0E", 2, false),
                        make_profile("Guest", WIFI_SECURITY_NONE, "", -1)},
                       &setting);
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE),
              kStaticSettingsText + profile_text(1, "Home", "wpa2", "homekey1", "ascii", "1") +
                  profile_text(2, "Cam Lab", "wep", "0A0B0C0D0E", "hex", "2") +
                  profile_text(3, "Guest", "none", "", "ascii", "-1"));
}

TEST_F(ProfileWriter, DisabledStationAndDhcpAreWrittenAsFalseAndOnes) {
    wifi_network_setting setting = dhcp_setting();
    write_profile_file(false, {}, &setting);
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE), settings_text("false", "1", "1", "", "", "", "", ""));
}

TEST_F(ProfileWriter, SynonymsAndSpecificCiphersAreWrittenUnderTheFirstName) {
    wifi_network_setting setting = dhcp_setting();
    write_profile_file(true,
                       {make_profile("A", WIFI_SECURITY_NONE, "", 1),
                        make_profile("B", WIFI_SECURITY_ANY_WPA, "k", 2),
                        make_profile("C", WIFI_SECURITY_WPA_EAP_AES, "k", 3),
                        make_profile("D", WIFI_SECURITY_WPA2_PSK_AES, "k", 4),
                        make_profile("E", WIFI_SECURITY_UNKNOWN, "k", 5)},
                       &setting);
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE),
              settings_text("true", "1", "1", "", "", "", "", "") +
                  profile_text(1, "A", "none", "", "ascii", "1") +
                  profile_text(2, "B", "mixed", "k", "ascii", "2") +
                  profile_text(3, "C", "wpa", "k", "ascii", "3") +
                  profile_text(4, "D", "wpa2", "k", "ascii", "4") +
                  profile_text(5, "E", "unknown", "k", "ascii", "5"));
}

TEST_F(ProfileWriter, OpenAndAnywpaReadInAnyCaseAreWrittenBackAsNoneAndMixed) {
    ASSERT_TRUE(
        write_file(WIFIM_PROFILE_FILE, profile_text(1, "A", "Open", "", "ascii", "1") +
                                           profile_text(2, "B", "ANYwpa", "k", "ascii", "2")));
    std::vector<wifi_ap_info> list = read_list();
    wifi_network_setting setting = dhcp_setting();
    wapinfo_update_profile_to_user_setting(true, &list, &setting);
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE), settings_text("true", "1", "1", "", "", "", "", "") +
                                                 profile_text(1, "A", "none", "", "ascii", "1") +
                                                 profile_text(2, "B", "mixed", "k", "ascii", "2"));
}

TEST_F(ProfileWriter, Wpa2PskAesReadsBackAsWpa2OfAnyKind) {
    wifi_network_setting setting = dhcp_setting();
    write_profile_file(true, {make_profile("Home", WIFI_SECURITY_WPA2_PSK_AES, "homekey1", 1)},
                       &setting);
    std::vector<wifi_ap_info> list = read_list();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].security, WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES);
}

TEST_F(ProfileWriter, EntryWithoutASecurityNameUsesNoNumber) {
    wifi_network_setting setting = dhcp_setting();
    write_profile_file(true,
                       {make_profile("First", WIFI_SECURITY_WEP, "k1", 1),
                        make_profile("Odd", static_cast<WiFi_Security>(42), "k2", 2),
                        make_profile("Third", WIFI_SECURITY_WPA_PSK_TKIP, "k3", 3),
                        make_profile("Neg", static_cast<WiFi_Security>(-1), "k4", 4)},
                       &setting);
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE),
              settings_text("true", "1", "1", "", "", "", "", "") +
                  profile_text(1, "First", "wep", "k1", "ascii", "1") +
                  profile_text(2, "Third", "wpa", "k3", "ascii", "3"));
}

TEST_F(ProfileWriter, EveryEntryIsWrittenWhetherSavedOrNot) {
    wifi_ap_info unsaved = make_profile("Unsaved", WIFI_SECURITY_WEP, "k", 1);
    unsaved.saved = false;
    wifi_ap_info saved = make_profile("Saved", WIFI_SECURITY_WEP, "k", 2);
    saved.saved = true;
    wifi_network_setting setting = dhcp_setting();
    write_profile_file(true, {unsaved, saved}, &setting);
    std::vector<wifi_ap_info> list = read_list();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].ssid, "Unsaved");
    EXPECT_EQ(list[1].ssid, "Saved");
}

TEST_F(ProfileWriter, WriteThenReadGivesBackTheListAndSettings) {
    std::vector<wifi_ap_info> written = {
        make_profile("Home", WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES, "homekey1", 1),
        make_profile("Cam Lab", WIFI_SECURITY_WEP, "0A0B0C0D0E", 2, false),
        make_profile("Guest", WIFI_SECURITY_NONE, "", 0),
        make_profile("Shop", WIFI_SECURITY_ANY_WPA, "p=a;s#s[w]", -1),
        make_profile("Old", WIFI_SECURITY_WPA_PSK_AES, "oldkey12", 3)};
    wifi_network_setting setting = static_setting();
    wapinfo_update_profile_to_user_setting(false, &written, &setting);

    bool enable = true;
    std::vector<wifi_ap_info> list;
    wifi_network_setting read_setting;
    wapinfo_read_profile(&enable, &list, &read_setting);
    EXPECT_FALSE(enable);
    EXPECT_EQ(read_setting.dhcp, setting.dhcp);
    EXPECT_EQ(read_setting.dns_dhcp, setting.dns_dhcp);
    EXPECT_EQ(read_setting.ip_addr, setting.ip_addr);
    EXPECT_EQ(read_setting.netmask, setting.netmask);
    EXPECT_EQ(read_setting.gateway, setting.gateway);
    EXPECT_EQ(read_setting.dns_server1, setting.dns_server1);
    EXPECT_EQ(read_setting.dns_server2, setting.dns_server2);
    ASSERT_EQ(list.size(), written.size());
    for (size_t i = 0; i < list.size(); i++) {
        SCOPED_TRACE(written[i].ssid);
        EXPECT_EQ(list[i].ssid, written[i].ssid);
        EXPECT_EQ(list[i].password, written[i].password);
        EXPECT_EQ(list[i].priority, written[i].priority);
        EXPECT_EQ(list[i].ascii_key, written[i].ascii_key);
        // What a profile does not keep in the file: scan data and the cipher.
        EXPECT_EQ(list[i].network_id, -1);
        EXPECT_EQ(list[i].bssid, "");
        EXPECT_EQ(list[i].signal, -1);
        EXPECT_FALSE(list[i].wps);
        EXPECT_TRUE(list[i].saved);
        EXPECT_FALSE(list[i].in_range);
    }
    EXPECT_EQ(list[0].security, WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES);
    EXPECT_EQ(list[1].security, WIFI_SECURITY_WEP);
    EXPECT_EQ(list[2].security, WIFI_SECURITY_NONE);
    EXPECT_EQ(list[3].security, WIFI_SECURITY_ANY_WPA);
    EXPECT_EQ(list[4].security, WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES);
}

TEST_F(ProfileWriter, NoSettingGivenKeepsTheFilesIpSettingsAndDropsEverythingElse) {
    ASSERT_TRUE(
        write_file(WIFIM_PROFILE_FILE, "custom_key = kept?\n" + kStaticSettingsText +
                                           profile_text(1, "OldNet", "wep", "k", "ascii", "1")));
    write_profile_file(false, {make_profile("NewNet", WIFI_SECURITY_WPA2_PSK_AES, "newkey12", 1)},
                       nullptr);
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE),
              settings_text("false", "0", "0", "10.0.0.5", "10.0.0.1", "255.255.255.0", "8.8.4.4",
                            "1.1.1.1") +
                  profile_text(1, "NewNet", "wpa2", "newkey12", "ascii", "1"));
}

TEST_F(ProfileWriter, NoSettingAndNoFileWritesTheDefaultSettings) {
    write_profile_file(true, {}, nullptr);
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE), settings_text("true", "1", "1", "", "", "", "", ""));
}

TEST_F(ProfileWriter, NoSettingAndStaticFileWithoutAddressesWritesTheFactoryAddresses) {
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE, "wifi_dhcp = 0\nwifi_dns_dhcp = 1\n"));
    write_profile_file(true, {}, nullptr);
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE),
              settings_text("true", "0", "1", "192.168.0.201", "192.168.0.1", "255.255.255.0",
                            "8.8.8.8", "8.8.8.8"));
}

TEST_F(ProfileWriter, NullListWritesOnlyTheSettings) {
    wifi_network_setting setting = static_setting();
    wapinfo_update_profile_to_user_setting(true, nullptr, &setting);
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE), kStaticSettingsText);
}

TEST_F(ProfileWriter, WritingReplacesALongerOldFile) {
    std::string old_text = kStaticSettingsText;
    for (int n = 1; n <= 50; n++) {
        old_text += profile_text(n, "Net" + std::to_string(n), "wpa", "key", "ascii", "1");
    }
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE, old_text));
    wifi_network_setting setting = dhcp_setting();
    write_profile_file(true, {make_profile("Only", WIFI_SECURITY_WEP, "k", 1)}, &setting);
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE), settings_text("true", "1", "1", "", "", "", "", "") +
                                                 profile_text(1, "Only", "wep", "k", "ascii", "1"));
}

// A line break in a value is stored as a blank, so a value can never end its
// line early and add a key of its own.
TEST_F(ProfileWriter, LineBreaksInValuesCannotAddKeys) {
    wifi_network_setting setting = dhcp_setting();
    setting.ip_addr = "10.0.0.9\nwifi_dhcp = 0";
    write_profile_file(true,
                       {make_profile("evil\nssid_2 = Forged\nsecurity_2 = none", WIFI_SECURITY_WEP,
                                     "pass\r\nwifi_station_enable = false", 1),
                        make_profile("Home", WIFI_SECURITY_WPA2_PSK_AES, "home\rkey", 2)},
                       &setting);
    std::string text = read_file(WIFIM_PROFILE_FILE);
    expect_only_keys(text, file_keys(2));

    bool enable = false;
    std::vector<wifi_ap_info> list;
    wifi_network_setting read_setting;
    wapinfo_read_profile(&enable, &list, &read_setting);
    EXPECT_TRUE(enable);
    EXPECT_TRUE(read_setting.dhcp);
    EXPECT_EQ(read_setting.ip_addr, "10.0.0.9 wifi_dhcp = 0");
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].ssid, "evil ssid_2 = Forged security_2 = none");
    EXPECT_EQ(list[0].password, "pass  wifi_station_enable = false");
    EXPECT_EQ(list[1].ssid, "Home");
    EXPECT_EQ(list[1].password, "home key");
}

TEST_F(ProfileWriter, IniSpecialCharactersInValuesSurviveARead) {
    const std::vector<std::string> values = {"a=b=c",
                                             ";starts like a comment",
                                             "#also a comment",
                                             "[looks like a section]",
                                             "\"quoted\"",
                                             "<<<EOF",
                                             "mid ; and # chars",
                                             "caf\xc3\xa9 \xe2\x98\x95"};
    std::vector<wifi_ap_info> written;
    for (size_t i = 0; i < values.size(); i++) {
        written.push_back(make_profile(values[i], WIFI_SECURITY_WEP, values[i], 1));
    }
    wifi_network_setting setting = dhcp_setting();
    wapinfo_update_profile_to_user_setting(true, &written, &setting);
    expect_only_keys(read_file(WIFIM_PROFILE_FILE), file_keys(static_cast<int>(values.size())));
    std::vector<wifi_ap_info> list = read_list();
    ASSERT_EQ(list.size(), values.size());
    for (size_t i = 0; i < values.size(); i++) {
        EXPECT_EQ(list[i].ssid, values[i]);
        EXPECT_EQ(list[i].password, values[i]);
    }
}

// The file cannot carry blanks at either end of a value: they are lost on
// the way back.
TEST_F(ProfileWriter, BlanksAroundValuesAreLostOnRead) {
    wifi_network_setting setting = dhcp_setting();
    write_profile_file(true, {make_profile("  Padded Net \t", WIFI_SECURITY_WEP, " key ", 1)},
                       &setting);
    std::vector<wifi_ap_info> list = read_list();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].ssid, "Padded Net");
    EXPECT_EQ(list[0].password, "key");
}

// An SSID that would read back empty would end the list there and hide
// every profile after it, so it is left out without using up a number.
TEST_F(ProfileWriter, SsidThatWouldReadBackEmptyIsLeftOut) {
    wifi_network_setting setting = dhcp_setting();
    write_profile_file(true,
                       {make_profile("First", WIFI_SECURITY_WEP, "k1", 1),
                        make_profile("", WIFI_SECURITY_WEP, "k2", 2),
                        make_profile("  \t ", WIFI_SECURITY_WEP, "k3", 3),
                        make_profile("\r\n", WIFI_SECURITY_WEP, "k4", 4),
                        make_profile(std::string("\0hidden", 7), WIFI_SECURITY_WEP, "k5", 5),
                        make_profile("Last", WIFI_SECURITY_WEP, "k6", 6)},
                       &setting);
    EXPECT_EQ(read_file(WIFIM_PROFILE_FILE),
              settings_text("true", "1", "1", "", "", "", "", "") +
                  profile_text(1, "First", "wep", "k1", "ascii", "1") +
                  profile_text(2, "Last", "wep", "k6", "ascii", "6"));
}

TEST_F(ProfileWriter, EmptyPasswordIsWrittenAndReadBackEmpty) {
    wifi_network_setting setting = dhcp_setting();
    write_profile_file(true, {make_profile("Open", WIFI_SECURITY_NONE, "", 1)}, &setting);
    std::vector<wifi_ap_info> list = read_list();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].password, "");
}

TEST_F(ProfileWriter, EnormousValuesAreWrittenWhole) {
    std::string ssid(1 << 20, 'x');
    std::string password(1 << 20, 'y');
    wifi_network_setting setting = dhcp_setting();
    write_profile_file(true, {make_profile(ssid, WIFI_SECURITY_WEP, password, 1)}, &setting);
    std::vector<wifi_ap_info> list = read_list();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].ssid, ssid);
    EXPECT_EQ(list[0].password, password);
}

// Five failed attempts, each followed by a pause of 50 to 200 ms.
TEST_F(ProfileWriter, SaveThatKeepsFailingGivesUpAfterFiveAttempts) {
    ASSERT_EQ(mkdir(WIFIM_PROFILE_FILE, 0755), 0);
    wifi_network_setting setting = dhcp_setting();
    long start = wifim_test::now_ms();
    write_profile_file(true, {make_profile("Home", WIFI_SECURITY_WEP, "k", 1)}, &setting);
    long elapsed = wifim_test::now_ms() - start;
    EXPECT_GE(elapsed, 5 * 50);
    EXPECT_LE(elapsed, 5 * 200 + 2000);
    struct stat st;
    ASSERT_EQ(stat(WIFIM_PROFILE_FILE, &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    rmdir(WIFIM_PROFILE_FILE);
}

// The names the controller gives networks, UTF-8 text and the P"..." form of
// names that are not, read back from the file as they were written.
TEST_F(ProfileWriter, NetworkNamesReadBackByteForByte) {
    const std::vector<std::string> names = {"Caf\xc3\xa9",
                                            "\xe5\x92\x96\xe5\x95\xa1",
                                            "cam \xf0\x9f\x93\xb7",
                                            "say \"hi\"",
                                            "back\\slash",
                                            "P\"Caf\\xe9\"",
                                            "\"quoted\""};
    std::vector<wifi_ap_info> list;
    for (const std::string& name : names) {
        list.push_back(make_profile(name, WIFI_SECURITY_NONE, "", 1));
    }
    write_profile_file(true, list, nullptr);
    std::vector<wifi_ap_info> back = read_list();
    ASSERT_EQ(back.size(), names.size()) << read_file("/www/nvram.wifista");
    for (size_t i = 0; i < names.size(); i++) {
        EXPECT_EQ(back[i].ssid, names[i]);
    }
}
