// Reading the profile file, from good files and from damaged ones.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <string>
#include <vector>

#include "profile_test_util.h"
#include "test_support.h"

using profile_test::profile_text;
using profile_test::ProfileFileTest;
using wifim_test::write_file;

namespace {

struct read_result {
    bool enable = false;
    std::vector<wifi_ap_info> list;
    wifi_network_setting setting;
};

read_result read_profile_file() {
    read_result result;
    result.enable = false;
    wapinfo_read_profile(&result.enable, &result.list, &result.setting);
    return result;
}

void expect_default_settings(const read_result& r) {
    EXPECT_TRUE(r.enable);
    EXPECT_TRUE(r.setting.dhcp);
    EXPECT_TRUE(r.setting.dns_dhcp);
    EXPECT_EQ(r.setting.ip_addr, "");
    EXPECT_EQ(r.setting.gateway, "");
    EXPECT_EQ(r.setting.netmask, "");
    EXPECT_EQ(r.setting.dns_server1, "");
    EXPECT_EQ(r.setting.dns_server2, "");
}

std::vector<std::string> ssids_of(const std::vector<wifi_ap_info>& list) {
    std::vector<std::string> ssids;
    for (const auto& entry : list) {
        ssids.push_back(entry.ssid);
    }
    return ssids;
}

const std::string kHomeProfile = profile_text(1, "Home", "wpa2", "homekey1", "ascii", "1");

}  // namespace

class ProfileReader : public ProfileFileTest {};

TEST_F(ProfileReader, MissingFileReadsAsDefaultsWithNoProfiles) {
    read_result r = read_profile_file();
    expect_default_settings(r);
    EXPECT_TRUE(r.list.empty());
}

TEST_F(ProfileReader, ProfileGetsTheRecordOfAFreshProfile) {
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE, kHomeProfile));
    read_result r = read_profile_file();
    ASSERT_EQ(r.list.size(), 1u);
    const wifi_ap_info& p = r.list[0];
    EXPECT_EQ(p.network_id, -1);
    EXPECT_EQ(p.bssid, "");
    EXPECT_EQ(p.ssid, "Home");
    EXPECT_EQ(p.password, "homekey1");
    EXPECT_EQ(p.security, WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES);
    EXPECT_EQ(p.signal, -1);
    EXPECT_EQ(p.priority, 1);
    EXPECT_TRUE(p.ascii_key);
    EXPECT_FALSE(p.wps);
    EXPECT_TRUE(p.saved);
    EXPECT_FALSE(p.in_range);
}

TEST_F(ProfileReader, ReadingEmptiesTheCallersList) {
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE, kHomeProfile));
    bool enable = false;
    std::vector<wifi_ap_info> list(3, profile_test::make_profile("Old", WIFI_SECURITY_WEP, "", 1));
    wapinfo_read_profile(&enable, &list, nullptr);
    EXPECT_EQ(ssids_of(list), std::vector<std::string>({"Home"}));
}

TEST_F(ProfileReader, StationSwitchAndStaticSettingsAreRead) {
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE,
                           "wifi_station_enable = false\nwifi_dhcp = 0\nwifi_dns_dhcp = 0\n"
                           "wifi_ip = 10.1.2.3\nwifi_gateway = 10.1.2.1\n"
                           "wifi_netmask = 255.255.0.0\nwifi_dns1 = 1.1.1.1\n"
                           "wifi_dns2 = 9.9.9.9\n"));
    read_result r = read_profile_file();
    EXPECT_FALSE(r.enable);
    EXPECT_FALSE(r.setting.dhcp);
    EXPECT_FALSE(r.setting.dns_dhcp);
    EXPECT_EQ(r.setting.ip_addr, "10.1.2.3");
    EXPECT_EQ(r.setting.gateway, "10.1.2.1");
    EXPECT_EQ(r.setting.netmask, "255.255.0.0");
    EXPECT_EQ(r.setting.dns_server1, "1.1.1.1");
    EXPECT_EQ(r.setting.dns_server2, "9.9.9.9");
}

TEST_F(ProfileReader, AnyNonZeroDhcpNumberMeansDhcp) {
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE, "wifi_dhcp = 7\nwifi_dns_dhcp = -2\n"));
    read_result r = read_profile_file();
    EXPECT_TRUE(r.setting.dhcp);
    EXPECT_TRUE(r.setting.dns_dhcp);
}

TEST_F(ProfileReader, DhcpWithoutIpKeysGivesEmptyAddresses) {
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE, "wifi_dhcp = 1\nwifi_dns_dhcp = 1\n"));
    read_result r = read_profile_file();
    expect_default_settings(r);
}

TEST_F(ProfileReader, StaticWithoutIpKeysGetsTheFactoryAddresses) {
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE, "wifi_dhcp = 0\nwifi_dns_dhcp = 0\n"));
    read_result r = read_profile_file();
    EXPECT_FALSE(r.setting.dhcp);
    EXPECT_EQ(r.setting.ip_addr, "192.168.0.201");
    EXPECT_EQ(r.setting.gateway, "192.168.0.1");
    EXPECT_EQ(r.setting.netmask, "255.255.255.0");
    EXPECT_EQ(r.setting.dns_server1, "8.8.8.8");
    EXPECT_EQ(r.setting.dns_server2, "8.8.8.8");
}

TEST_F(ProfileReader, DhcpWithStaticDnsGetsOnlyTheDnsDefaults) {
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE, "wifi_dhcp = 1\nwifi_dns_dhcp = 0\n"));
    read_result r = read_profile_file();
    EXPECT_EQ(r.setting.ip_addr, "");
    EXPECT_EQ(r.setting.gateway, "");
    EXPECT_EQ(r.setting.netmask, "");
    EXPECT_EQ(r.setting.dns_server1, "8.8.8.8");
    EXPECT_EQ(r.setting.dns_server2, "8.8.8.8");
}

TEST_F(ProfileReader, NullSettingLeavesTheNetworkSettingsUnread) {
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE, "wifi_station_enable = false\n" + kHomeProfile));
    bool enable = true;
    std::vector<wifi_ap_info> list;
    wapinfo_read_profile(&enable, &list, nullptr);
    EXPECT_FALSE(enable);
    EXPECT_EQ(ssids_of(list), std::vector<std::string>({"Home"}));
}

TEST_F(ProfileReader, ListEndsAtTheFirstMissingNumber) {
    ASSERT_TRUE(
        write_file(WIFIM_PROFILE_FILE, profile_text(1, "A", "wpa", "k1", "ascii", "1") +
                                           profile_text(2, "B", "wpa", "k2", "ascii", "2") +
                                           profile_text(4, "D", "wpa", "k4", "ascii", "4")));
    read_result r = read_profile_file();
    EXPECT_EQ(ssids_of(r.list), std::vector<std::string>({"A", "B"}));
}

TEST_F(ProfileReader, EmptySsidOrSecurityEndsTheList) {
    ASSERT_TRUE(
        write_file(WIFIM_PROFILE_FILE, profile_text(1, "A", "wpa", "k1", "ascii", "1") +
                                           profile_text(2, "", "wpa", "k2", "ascii", "2") +
                                           profile_text(3, "C", "wpa", "k3", "ascii", "3")));
    EXPECT_EQ(ssids_of(read_profile_file().list), std::vector<std::string>({"A"}));

    ASSERT_TRUE(
        write_file(WIFIM_PROFILE_FILE, profile_text(1, "A", "", "k1", "ascii", "1") +
                                           profile_text(2, "B", "wpa", "k2", "ascii", "2")));
    EXPECT_TRUE(read_profile_file().list.empty());
}

TEST_F(ProfileReader, UnknownSecurityNameSkipsOnlyThatProfile) {
    ASSERT_TRUE(
        write_file(WIFIM_PROFILE_FILE, profile_text(1, "A", "wpa", "k1", "ascii", "1") +
                                           profile_text(2, "B", "wpa3", "k2", "ascii", "2") +
                                           profile_text(3, "C", "wep", "k3", "ascii", "3")));
    read_result r = read_profile_file();
    EXPECT_EQ(ssids_of(r.list), std::vector<std::string>({"A", "C"}));
}

TEST_F(ProfileReader, SecurityNamedUnknownIsNotUsable) {
    ASSERT_TRUE(
        write_file(WIFIM_PROFILE_FILE, profile_text(1, "A", "unknown", "k1", "ascii", "1") +
                                           profile_text(2, "B", "UNKNOWN", "k2", "ascii", "2") +
                                           profile_text(3, "C", "none", "", "ascii", "3")));
    read_result r = read_profile_file();
    EXPECT_EQ(ssids_of(r.list), std::vector<std::string>({"C"}));
}

TEST_F(ProfileReader, OpenInAnyCaseAndNoneReadAsNone) {
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE, profile_text(1, "A", "OpEn", "", "ascii", "1") +
                                                   profile_text(2, "B", "none", "", "ascii", "2") +
                                                   profile_text(3, "C", "OPEN", "", "ascii", "3")));
    read_result r = read_profile_file();
    ASSERT_EQ(r.list.size(), 3u);
    for (const auto& p : r.list) {
        EXPECT_EQ(p.security, WIFI_SECURITY_NONE) << p.ssid;
    }
}

TEST_F(ProfileReader, AnywpaInAnyCaseReadsAsAnyWpa) {
    ASSERT_TRUE(
        write_file(WIFIM_PROFILE_FILE, profile_text(1, "A", "AnyWPA", "k", "ascii", "1") +
                                           profile_text(2, "B", "mixed", "k", "ascii", "2")));
    read_result r = read_profile_file();
    ASSERT_EQ(r.list.size(), 2u);
    EXPECT_EQ(r.list[0].security, WIFI_SECURITY_ANY_WPA);
    EXPECT_EQ(r.list[1].security, WIFI_SECURITY_ANY_WPA);
}

TEST_F(ProfileReader, RepeatedSsidUpdatesTheEarlierEntry) {
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE,
                           profile_text(1, "Same", "wpa", "first", "ascii", "1") +
                               profile_text(2, "Other", "wep", "k2", "ascii", "2") +
                               profile_text(3, "Same", "wep", "0A0B0C0D0E", "hex", "3")));
    read_result r = read_profile_file();
    ASSERT_EQ(ssids_of(r.list), std::vector<std::string>({"Same", "Other"}));
    EXPECT_EQ(r.list[0].password, "0A0B0C0D0E");
    EXPECT_EQ(r.list[0].security, WIFI_SECURITY_WEP);
    EXPECT_EQ(r.list[0].priority, 3);
    EXPECT_FALSE(r.list[0].ascii_key);
    EXPECT_TRUE(r.list[0].saved);
}

TEST_F(ProfileReader, SsidsDifferingOnlyInCaseAreTwoProfiles) {
    ASSERT_TRUE(
        write_file(WIFIM_PROFILE_FILE, profile_text(1, "cafe", "wpa", "k1", "ascii", "1") +
                                           profile_text(2, "CAFE", "wpa", "k2", "ascii", "2")));
    EXPECT_EQ(ssids_of(read_profile_file().list), std::vector<std::string>({"cafe", "CAFE"}));
}

TEST_F(ProfileReader, MissingPriorityGivesMinusOne) {
    ASSERT_TRUE(
        write_file(WIFIM_PROFILE_FILE,
                   "ssid_1 = A\nsecurity_1 = wpa\npasswd_1 = k\npasswd_encode_1 = ascii\n"));
    read_result r = read_profile_file();
    ASSERT_EQ(r.list.size(), 1u);
    EXPECT_EQ(r.list[0].priority, -1);
}

TEST_F(ProfileReader, PriorityThatIsNotANumberGivesMinusOne) {
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE, profile_text(1, "A", "wpa", "k", "ascii", "high")));
    ASSERT_EQ(read_profile_file().list.size(), 1u);
    EXPECT_EQ(read_profile_file().list[0].priority, -1);
}

TEST_F(ProfileReader, PriorityBeyondIntIsClamped) {
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE,
                           profile_text(1, "A", "wpa", "k", "ascii", "99999999999999") +
                               profile_text(2, "B", "wpa", "k", "ascii", "-99999999999999")));
    read_result r = read_profile_file();
    ASSERT_EQ(r.list.size(), 2u);
    EXPECT_EQ(r.list[0].priority, INT_MAX);
    EXPECT_EQ(r.list[1].priority, INT_MIN);
}

TEST_F(ProfileReader, KeyFormIsAsciiWhenEmptyOrAsciiInAnyCaseElseHex) {
    ASSERT_TRUE(
        write_file(WIFIM_PROFILE_FILE, profile_text(1, "A", "wpa", "k", "ASCII", "1") +
                                           profile_text(2, "B", "wpa", "k", "", "2") +
                                           profile_text(3, "C", "wpa", "k", "hex", "3") +
                                           profile_text(4, "D", "wpa", "k", "base64", "4")));
    read_result r = read_profile_file();
    ASSERT_EQ(r.list.size(), 4u);
    EXPECT_TRUE(r.list[0].ascii_key);
    EXPECT_TRUE(r.list[1].ascii_key);
    EXPECT_FALSE(r.list[2].ascii_key);
    EXPECT_FALSE(r.list[3].ascii_key);
}

TEST_F(ProfileReader, MissingKeyAndKeyFormReadAsEmptyTextKey) {
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE,
                           "ssid_1 = Cafe\nsecurity_1 = open\npriority_1 = 2\n"
                           "ssid_2 = Lab\nsecurity_2 = wpa2\n"));
    read_result r = read_profile_file();
    ASSERT_EQ(ssids_of(r.list), std::vector<std::string>({"Cafe", "Lab"}));
    EXPECT_EQ(r.list[0].password, "");
    EXPECT_TRUE(r.list[0].ascii_key);
    EXPECT_EQ(r.list[0].priority, 2);
    EXPECT_EQ(r.list[1].password, "");
    EXPECT_TRUE(r.list[1].ascii_key);
}

TEST_F(ProfileReader, KeyNamesAreMatchedWithoutRegardToCase) {
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE,
                           "WIFI_STATION_ENABLE = no\nSSID_1 = A\n"
                           "Security_1 = wep\nPASSWD_1 = k\n"));
    read_result r = read_profile_file();
    EXPECT_FALSE(r.enable);
    ASSERT_EQ(r.list.size(), 1u);
    EXPECT_EQ(r.list[0].password, "k");
}

TEST_F(ProfileReader, EmptyFileReadsAsDefaults) {
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE, ""));
    read_result r = read_profile_file();
    expect_default_settings(r);
    EXPECT_TRUE(r.list.empty());
}

TEST_F(ProfileReader, TruncatedFileKeepsTheCompleteProfiles) {
    std::string text = "wifi_station_enable = true\nwifi_dhcp = 0\n" + kHomeProfile +
                       profile_text(2, "Lab", "wpa", "labkey12", "ascii", "2");
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE, text.substr(0, text.find("security_2") + 12)));
    read_result r = read_profile_file();
    EXPECT_FALSE(r.setting.dhcp);
    EXPECT_EQ(ssids_of(r.list), std::vector<std::string>({"Home"}));
}

TEST_F(ProfileReader, TruncatedSecurityNameMakesItsProfileUnusable) {
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE, kHomeProfile + "ssid_2 = Lab\nsecurity_2 = wp"));
    EXPECT_EQ(ssids_of(read_profile_file().list), std::vector<std::string>({"Home"}));
}

TEST_F(ProfileReader, BinaryJunkReadsAsDefaults) {
    std::string junk;
    unsigned state = 12345;
    for (int i = 0; i < 65536; i++) {
        state = state * 1103515245u + 12345u;
        junk.push_back(static_cast<char>((state >> 16) & 0xff));
    }
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE, junk));
    read_result r = read_profile_file();
    expect_default_settings(r);
    EXPECT_TRUE(r.list.empty());
}

TEST_F(ProfileReader, ProfilesAmidJunkLinesAreStillRead) {
    std::string junk_lines = "\x01\xfe\x7f garbage \xff\xc3=\x80\x02\n=\xaa\n\x90\x91\n;\x92\n";
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE, junk_lines + kHomeProfile + junk_lines +
                                                   "wifi_dhcp = 0\n" + junk_lines));
    read_result r = read_profile_file();
    EXPECT_FALSE(r.setting.dhcp);
    EXPECT_EQ(ssids_of(r.list), std::vector<std::string>({"Home"}));
}

// A line opening with "[" starts a section even without its closing
// bracket, so the keys after it are not the station's.
TEST_F(ProfileReader, KeysAfterABrokenSectionLineAreNotRead) {
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE,
                           kHomeProfile + "[\x90\nwifi_dhcp = 0\n" +
                               profile_text(2, "Lab", "wpa", "labkey12", "ascii", "2")));
    read_result r = read_profile_file();
    EXPECT_TRUE(r.setting.dhcp);
    EXPECT_EQ(ssids_of(r.list), std::vector<std::string>({"Home"}));
}

// The file is text: a NUL byte ends what can be read of it.
TEST_F(ProfileReader, NothingAfterANulByteIsRead) {
    std::string text = kHomeProfile + std::string(1, '\0') + "\n" +
                       profile_text(2, "Lab", "wpa", "labkey12", "ascii", "2");
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE, text));
    EXPECT_EQ(ssids_of(read_profile_file().list), std::vector<std::string>({"Home"}));
}

TEST_F(ProfileReader, DuplicateKeysTakeTheLastValue) {
    ASSERT_TRUE(
        write_file(WIFIM_PROFILE_FILE, "wifi_station_enable = false\nwifi_station_enable = true\n" +
                                           kHomeProfile + "ssid_1 = Later\npasswd_1 = laterkey\n"));
    read_result r = read_profile_file();
    EXPECT_TRUE(r.enable);
    ASSERT_EQ(ssids_of(r.list), std::vector<std::string>({"Later"}));
    EXPECT_EQ(r.list[0].password, "laterkey");
}

TEST_F(ProfileReader, EnormousValuesAreReadWhole) {
    std::string ssid(1 << 20, 's');
    std::string password(2 << 20, 'p');
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE,
                           profile_text(1, ssid, "wpa2", password, "ascii", "1") +
                               profile_text(2, "Lab", "wpa", "labkey12", "ascii", "2")));
    read_result r = read_profile_file();
    ASSERT_EQ(r.list.size(), 2u);
    EXPECT_EQ(r.list[0].ssid, ssid);
    EXPECT_EQ(r.list[0].password, password);
    EXPECT_EQ(r.list[1].ssid, "Lab");
}

TEST_F(ProfileReader, KeysUnderASectionHeaderAreNotTheStationsKeys) {
    ASSERT_TRUE(
        write_file(WIFIM_PROFILE_FILE, "wifi_dhcp = 0\n" + kHomeProfile +
                                           "[extra]\nwifi_station_enable = false\n"
                                           "wifi_dhcp = 1\n" +
                                           profile_text(2, "Lab", "wpa", "k", "ascii", "2")));
    read_result r = read_profile_file();
    EXPECT_TRUE(r.enable);
    EXPECT_FALSE(r.setting.dhcp);
    EXPECT_EQ(ssids_of(r.list), std::vector<std::string>({"Home"}));
}

TEST_F(ProfileReader, FileThatIsADirectoryReadsAsDefaults) {
    ASSERT_EQ(mkdir(WIFIM_PROFILE_FILE, 0755), 0);
    read_result r = read_profile_file();
    expect_default_settings(r);
    EXPECT_TRUE(r.list.empty());
    rmdir(WIFIM_PROFILE_FILE);
}

// Root reads any file, so the reader runs in a child that has given up root.
TEST_F(ProfileReader, UnreadableFileReadsAsDefaults) {
    ASSERT_TRUE(write_file(WIFIM_PROFILE_FILE,
                           "wifi_station_enable = false\nwifi_dhcp = 0\n" + kHomeProfile, 0000));
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0) {
            _exit(2);
        }
        bool enable = false;
        std::vector<wifi_ap_info> list(1);
        wifi_network_setting setting;
        wapinfo_read_profile(&enable, &list, &setting);
        bool defaults = enable && setting.dhcp && setting.dns_dhcp && setting.ip_addr.empty();
        _exit(defaults && list.empty() ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "2: could not drop root, 1: not read as defaults";
}
