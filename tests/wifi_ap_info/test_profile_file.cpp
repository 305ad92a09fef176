// The profile file: what is read with its defaults, what is written and in
// which order, and what bad files read as.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "test_support.h"
#include "wifi_ap_info/wifi_ap_info.h"

using wifim_test::read_file;
using wifim_test::write_file;

static const char* kProfile = "/www/nvram.wifista";

static wifi_ap_info profile(const std::string& ssid, WiFi_Security security, int priority,
                            const std::string& password = "secret123", bool ascii = true) {
    wifi_ap_info ap;
    clear_wifi_ap_info(&ap);
    ap.network_id = -1;
    ap.ssid = ssid;
    ap.security = security;
    ap.priority = priority;
    ap.password = password;
    ap.ascii_key = ascii;
    ap.signal = -1;
    ap.saved = true;
    return ap;
}

struct read_back {
    bool enable = false;
    std::vector<wifi_ap_info> list;
    wifi_network_setting setting;
};

static read_back read_profile() {
    read_back r;
    wapinfo_read_profile(&r.enable, &r.list, &r.setting);
    return r;
}

class ProfileFile : public ::testing::Test {
  protected:
    void SetUp() override { unlink(kProfile); }
};

TEST_F(ProfileFile, MissingFileReadsAsDefaults) {
    read_back r = read_profile();
    EXPECT_TRUE(r.enable);
    EXPECT_TRUE(r.list.empty());
    EXPECT_TRUE(r.setting.dhcp);
    EXPECT_TRUE(r.setting.dns_dhcp);
    EXPECT_EQ(r.setting.ip_addr, "");
    EXPECT_EQ(r.setting.netmask, "");
    EXPECT_EQ(r.setting.gateway, "");
    EXPECT_EQ(r.setting.dns_server1, "");
    EXPECT_EQ(r.setting.dns_server2, "");
}

TEST_F(ProfileFile, StaticSettingsWithoutIpKeysGetTheStaticDefaults) {
    write_file(kProfile, "wifi_dhcp = 0\nwifi_dns_dhcp = 1\n");
    read_back r = read_profile();
    EXPECT_FALSE(r.setting.dhcp);
    EXPECT_TRUE(r.setting.dns_dhcp);
    EXPECT_EQ(r.setting.ip_addr, "192.168.0.201");
    EXPECT_EQ(r.setting.gateway, "192.168.0.1");
    EXPECT_EQ(r.setting.netmask, "255.255.255.0");
    EXPECT_EQ(r.setting.dns_server1, "8.8.8.8");
    EXPECT_EQ(r.setting.dns_server2, "8.8.8.8");
}

TEST_F(ProfileFile, DhcpWithStaticDnsGetsOnlyTheDnsDefaults) {
    write_file(kProfile, "wifi_dhcp = 1\nwifi_dns_dhcp = 0\n");
    read_back r = read_profile();
    EXPECT_EQ(r.setting.ip_addr, "");
    EXPECT_EQ(r.setting.dns_server1, "8.8.8.8");
    EXPECT_EQ(r.setting.dns_server2, "8.8.8.8");
}

TEST_F(ProfileFile, ListEndsAtTheFirstGap) {
    write_file(kProfile,
               "ssid_1 = one\nsecurity_1 = wpa2\npasswd_1 = k1\npasswd_encode_1 = ascii\n"
               "priority_1 = 1\n"
               "ssid_2 = two\nsecurity_2 = none\npasswd_2 = \npasswd_encode_2 = ascii\n"
               "priority_2 = 2\n"
               "ssid_4 = four\nsecurity_4 = wep\npasswd_4 = 12345\npasswd_encode_4 = ascii\n"
               "priority_4 = 4\n");
    read_back r = read_profile();
    ASSERT_EQ(r.list.size(), 2u);
    EXPECT_EQ(r.list[0].ssid, "one");
    EXPECT_EQ(r.list[0].security, WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES);
    EXPECT_EQ(r.list[0].password, "k1");
    EXPECT_EQ(r.list[0].network_id, -1);
    EXPECT_EQ(r.list[0].signal, -1);
    EXPECT_TRUE(r.list[0].saved);
    EXPECT_FALSE(r.list[0].in_range);
    EXPECT_FALSE(r.list[0].wps);
    EXPECT_EQ(r.list[1].ssid, "two");
    EXPECT_EQ(r.list[1].security, WIFI_SECURITY_NONE);
}

TEST_F(ProfileFile, UnknownSecuritySkipsOnlyThatProfile) {
    write_file(kProfile,
               "ssid_1 = one\nsecurity_1 = wpa\npasswd_1 = k\npasswd_encode_1 = ascii\n"
               "ssid_2 = two\nsecurity_2 = wpa3\npasswd_2 = k\npasswd_encode_2 = ascii\n"
               "ssid_3 = three\nsecurity_3 = unknown\npasswd_3 = k\npasswd_encode_3 = ascii\n"
               "ssid_4 = four\nsecurity_4 = mixed\npasswd_4 = k\npasswd_encode_4 = hex\n");
    read_back r = read_profile();
    ASSERT_EQ(r.list.size(), 2u);
    EXPECT_EQ(r.list[0].ssid, "one");
    EXPECT_EQ(r.list[1].ssid, "four");
    EXPECT_EQ(r.list[1].security, WIFI_SECURITY_ANY_WPA);
    EXPECT_FALSE(r.list[1].ascii_key);
}

TEST_F(ProfileFile, RepeatedSsidUpdatesTheEarlierEntry) {
    write_file(kProfile,
               "ssid_1 = home\nsecurity_1 = wpa\npasswd_1 = first\npasswd_encode_1 = ascii\n"
               "priority_1 = 1\n"
               "ssid_2 = cafe\nsecurity_2 = none\npasswd_2 = \npasswd_encode_2 = ascii\n"
               "priority_2 = 2\n"
               "ssid_3 = home\nsecurity_3 = wep\npasswd_3 = 0123456789\npasswd_encode_3 = hex\n"
               "priority_3 = 7\n");
    read_back r = read_profile();
    ASSERT_EQ(r.list.size(), 2u);
    EXPECT_EQ(r.list[0].ssid, "home");
    EXPECT_EQ(r.list[0].password, "0123456789");
    EXPECT_EQ(r.list[0].security, WIFI_SECURITY_WEP);
    EXPECT_EQ(r.list[0].priority, 7);
    EXPECT_FALSE(r.list[0].ascii_key);
}

TEST_F(ProfileFile, MissingPriorityReadsAsMinusOne) {
    write_file(kProfile, "ssid_1 = one\nsecurity_1 = wpa\npasswd_1 = k\npasswd_encode_1 = ascii\n");
    read_back r = read_profile();
    ASSERT_EQ(r.list.size(), 1u);
    EXPECT_EQ(r.list[0].priority, -1);
}

TEST_F(ProfileFile, MissingPasswordAndEncodingReadAsEmptyText) {
    write_file(kProfile, "ssid_1 = one\nsecurity_1 = wpa\n");
    read_back r = read_profile();
    ASSERT_EQ(r.list.size(), 1u);
    EXPECT_EQ(r.list[0].password, "");
    EXPECT_TRUE(r.list[0].ascii_key);
}

TEST_F(ProfileFile, EncodingOtherThanAsciiMeansHex) {
    write_file(kProfile,
               "ssid_1 = a\nsecurity_1 = wpa\npasswd_1 = k\npasswd_encode_1 = ASCII\n"
               "ssid_2 = b\nsecurity_2 = wpa\npasswd_2 = k\npasswd_encode_2 = base64\n");
    read_back r = read_profile();
    ASSERT_EQ(r.list.size(), 2u);
    EXPECT_TRUE(r.list[0].ascii_key);
    EXPECT_FALSE(r.list[1].ascii_key);
}

TEST_F(ProfileFile, WriterProducesKeysInOrder) {
    std::vector<wifi_ap_info> list = {
        profile("home", WIFI_SECURITY_WPA2_PSK_AES, 1, "secret123"),
        profile("cafe", WIFI_SECURITY_NONE, 2, ""),
        profile("old", WIFI_SECURITY_WEP, -1, "0123456789", false),
    };
    wifi_network_setting setting = {false,      false,     "10.0.0.5", "255.255.255.0",
                                    "10.0.0.1", "1.1.1.1", "9.9.9.9"};
    wapinfo_update_profile_to_user_setting(false, &list, &setting);
    EXPECT_EQ(read_file(kProfile),
              "wifi_station_enable = false\n"
              "wifi_dhcp = 0\n"
              "wifi_dns_dhcp = 0\n"
              "wifi_ip = 10.0.0.5\n"
              "wifi_gateway = 10.0.0.1\n"
              "wifi_netmask = 255.255.255.0\n"
              "wifi_dns1 = 1.1.1.1\n"
              "wifi_dns2 = 9.9.9.9\n"
              "ssid_1 = home\n"
              "security_1 = wpa2\n"
              "passwd_1 = secret123\n"
              "passwd_encode_1 = ascii\n"
              "priority_1 = 1\n"
              "ssid_2 = cafe\n"
              "security_2 = none\n"
              "passwd_2 = \n"
              "passwd_encode_2 = ascii\n"
              "priority_2 = 2\n"
              "ssid_3 = old\n"
              "security_3 = wep\n"
              "passwd_3 = 0123456789\n"
              "passwd_encode_3 = hex\n"
              "priority_3 = -1\n");
}

TEST_F(ProfileFile, WriteThenReadGivesTheSameListExceptTheSpecificCipher) {
    std::vector<wifi_ap_info> list = {
        profile("home", WIFI_SECURITY_WPA2_PSK_AES, 1, "secret123"),
        profile("any", WIFI_SECURITY_ANY_WPA, 2, "abcdefgh"),
        profile("wep", WIFI_SECURITY_WEP, 3, "0123456789", false),
        profile("open net", WIFI_SECURITY_NONE, 0, ""),
    };
    wifi_network_setting setting = {true, false, "", "", "", "8.8.4.4", ""};
    wapinfo_update_profile_to_user_setting(true, &list, &setting);
    read_back r = read_profile();
    EXPECT_TRUE(r.enable);
    EXPECT_TRUE(r.setting.dhcp);
    EXPECT_FALSE(r.setting.dns_dhcp);
    EXPECT_EQ(r.setting.dns_server1, "8.8.4.4");
    EXPECT_EQ(r.setting.dns_server2, "");
    ASSERT_EQ(r.list.size(), 4u);
    EXPECT_EQ(r.list[0].security, WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES);  // "wpa2"
    for (size_t i = 0; i < list.size(); i++) {
        EXPECT_EQ(r.list[i].ssid, list[i].ssid);
        EXPECT_EQ(r.list[i].password, list[i].password);
        EXPECT_EQ(r.list[i].priority, list[i].priority);
        EXPECT_EQ(r.list[i].ascii_key, list[i].ascii_key);
        if (i > 0) {
            EXPECT_EQ(r.list[i].security, list[i].security);
        }
    }
}

TEST_F(ProfileFile, ProfileWithoutASecurityNameIsLeftOutAndTakesNoNumber) {
    std::vector<wifi_ap_info> list = {
        profile("first", WIFI_SECURITY_NONE, 1, ""),
        profile("bad", static_cast<WiFi_Security>(42), 2),
        profile("third", WIFI_SECURITY_WEP, 3, "12345"),
    };
    wapinfo_update_profile_to_user_setting(true, &list, nullptr);
    std::string text = read_file(kProfile);
    EXPECT_NE(text.find("ssid_1 = first\n"), std::string::npos);
    EXPECT_NE(text.find("ssid_2 = third\n"), std::string::npos);
    EXPECT_EQ(text.find("bad"), std::string::npos);
    EXPECT_EQ(text.find("ssid_3"), std::string::npos);
}

TEST_F(ProfileFile, WriterWithoutSettingsKeepsTheFilesIpSettings) {
    write_file(kProfile,
               "wifi_dhcp = 0\nwifi_dns_dhcp = 0\nwifi_ip = 172.16.0.9\nwifi_gateway = 172.16.0.1\n"
               "wifi_netmask = 255.255.0.0\nwifi_dns1 = 4.4.4.4\nwifi_dns2 = 5.5.5.5\n"
               "unknown_key = dropped\n");
    std::vector<wifi_ap_info> list = {profile("n", WIFI_SECURITY_ANY_WPA, 1)};
    wapinfo_update_profile_to_user_setting(true, &list, nullptr);
    read_back r = read_profile();
    EXPECT_FALSE(r.setting.dhcp);
    EXPECT_EQ(r.setting.ip_addr, "172.16.0.9");
    EXPECT_EQ(r.setting.gateway, "172.16.0.1");
    EXPECT_EQ(r.setting.netmask, "255.255.0.0");
    EXPECT_EQ(r.setting.dns_server1, "4.4.4.4");
    EXPECT_EQ(r.setting.dns_server2, "5.5.5.5");
    EXPECT_EQ(read_file(kProfile).find("unknown_key"), std::string::npos);
    ASSERT_EQ(r.list.size(), 1u);
}

TEST_F(ProfileFile, SaveIsRetriedFiveTimesThenGivenUp) {
    // A directory where the file should be makes every open fail.
    ASSERT_EQ(mkdir(kProfile, 0755), 0);
    std::vector<wifi_ap_info> list = {profile("n", WIFI_SECURITY_ANY_WPA, 1)};
    wifi_network_setting setting = {true, true, "", "", "", "", ""};
    long start = wifim_test::now_ms();
    wapinfo_update_profile_to_user_setting(true, &list, &setting);
    long took = wifim_test::now_ms() - start;
    EXPECT_GE(took, 5 * 50);  // five failures, each followed by 50..200 ms
    EXPECT_LE(took, 5 * 200 + 500);
    rmdir(kProfile);
}

TEST_F(ProfileFile, LineBreakInAValueCannotAddKeys) {
    std::vector<wifi_ap_info> list = {
        profile("good", WIFI_SECURITY_NONE, 1, ""),
        profile("evil\nssid_9 = injected", WIFI_SECURITY_ANY_WPA, 2, "k"),
        profile("pass", WIFI_SECURITY_ANY_WPA, 3, "a\r\nwifi_dhcp = 0"),
        profile("last", WIFI_SECURITY_WEP, 4, "12345"),
    };
    wapinfo_update_profile_to_user_setting(true, &list, nullptr);
    std::string text = read_file(kProfile);
    EXPECT_EQ(text.find("injected"), std::string::npos);
    EXPECT_EQ(text.find("ssid_9"), std::string::npos);
    read_back r = read_profile();
    ASSERT_EQ(r.list.size(), 2u);
    EXPECT_EQ(r.list[0].ssid, "good");
    EXPECT_EQ(r.list[1].ssid, "last");
    EXPECT_TRUE(r.setting.dhcp);
}

TEST_F(ProfileFile, ValuesWithSeparatorsSurviveARoundTrip) {
    std::vector<wifi_ap_info> list = {
        profile("a=b;c#d", WIFI_SECURITY_ANY_WPA, 1, "p=w;d#x\"q\""),
        profile("#hash", WIFI_SECURITY_ANY_WPA, 2, ";semi"),
    };
    wapinfo_update_profile_to_user_setting(true, &list, nullptr);
    read_back r = read_profile();
    ASSERT_EQ(r.list.size(), 2u);
    EXPECT_EQ(r.list[0].ssid, "a=b;c#d");
    EXPECT_EQ(r.list[0].password, "p=w;d#x\"q\"");
    EXPECT_EQ(r.list[1].ssid, "#hash");
    EXPECT_EQ(r.list[1].password, ";semi");
}

TEST_F(ProfileFile, BadFilesReadAsDefaultsPlusValidProfiles) {
    const std::string cases[] = {
        "",
        std::string("\0\x01\x02\xff\xfe garbage \x80\n\x7f", 18),
        "ssid_1 = trunc\nsecurity_1 = wp",
        "[section]\nssid_1 = hidden\nsecurity_1 = wpa\n",
        "wifi_station_enable = maybe\nwifi_dhcp = nonsense\n",
    };
    for (const std::string& text : cases) {
        write_file(kProfile, text);
        read_back r = read_profile();
        EXPECT_TRUE(r.list.empty());
        EXPECT_TRUE(r.setting.dhcp);
    }
}

TEST_F(ProfileFile, DuplicateKeysAndEnormousValues) {
    std::string huge(200000, 'x');
    write_file(kProfile, "ssid_1 = first\nssid_1 = " + huge +
                             "\nsecurity_1 = wpa\nsecurity_1 = none\npasswd_1 = k\n");
    read_back r = read_profile();
    ASSERT_EQ(r.list.size(), 1u);
    EXPECT_EQ(r.list[0].ssid, huge);
    EXPECT_EQ(r.list[0].security, WIFI_SECURITY_NONE);
}

TEST_F(ProfileFile, UnreadableFileReadsAsDefaults) {
    write_file(kProfile,
               "wifi_station_enable = false\nssid_1 = a\nsecurity_1 = wpa\npasswd_1 = k\n", 0000);
    // Root reads anything, so the reader runs as an unprivileged user.
    pid_t child = fork();
    if (child == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0) {
            _exit(2);
        }
        read_back r = read_profile();
        _exit(r.enable && r.list.empty() && r.setting.dhcp ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}
