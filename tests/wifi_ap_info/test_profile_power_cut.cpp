// The profile file survives a worker killed in the middle of a save (as a
// power cut would leave it): a writer process saves version after version
// and is killed with SIGKILL at random moments, hundreds of times; the file
// always reads back whole, as the last version saved or the one being saved.
//
// WIFIM_POWER_CUT_ROUNDS sets the number of kills (300 by default).
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "profile_test_util.h"
#include "test_support.h"

using profile_test::make_profile;
using profile_test::ProfileFileTest;

namespace {

// Everything in the file is derived from the version number, so a file that
// mixes two versions, or lacks a part of one, does not read back as any.
std::vector<wifi_ap_info> version_profiles(int version) {
    std::vector<wifi_ap_info> list;
    int count = 1 + version % 7;
    for (int i = 0; i < count; i++) {
        list.push_back(make_profile("net-" + std::to_string(version) + "-" + std::to_string(i),
                                    WIFI_SECURITY_WPA2_PSK_AES,
                                    "key-" + std::to_string(version * 31 + i), i + 1));
    }
    return list;
}

wifi_network_setting version_setting(int version) {
    wifi_network_setting setting;
    setting.dhcp = false;
    setting.dns_dhcp = false;
    setting.ip_addr = "10.0." + std::to_string(version / 250) + "." + std::to_string(version % 250);
    setting.netmask = "255.255.0.0";
    setting.gateway = "10.0.0.1";
    setting.dns_server1 = "10.0.0.2";
    setting.dns_server2 = std::to_string(version);
    return setting;
}

// The version the file holds whole, or -1.
int version_in_file() {
    bool enable = false;
    std::vector<wifi_ap_info> list;
    wifi_network_setting setting;
    wapinfo_read_profile(&enable, &list, &setting);
    if (setting.dns_server2.empty()) {
        return -1;
    }
    int version = atoi(setting.dns_server2.c_str());
    wifi_network_setting expected = version_setting(version);
    std::vector<wifi_ap_info> expected_list = version_profiles(version);
    if (setting.ip_addr != expected.ip_addr || setting.gateway != expected.gateway ||
        setting.netmask != expected.netmask || setting.dns_server1 != expected.dns_server1 ||
        enable != (version % 2 == 0) || list.size() != expected_list.size()) {
        return -1;
    }
    for (size_t i = 0; i < list.size(); i++) {
        if (list[i].ssid != expected_list[i].ssid ||
            list[i].password != expected_list[i].password ||
            list[i].priority != expected_list[i].priority) {
            return -1;
        }
    }
    return version;
}

// Saves versions first, first+1, ... until killed; reports each version
// once it is saved by writing it into the pipe.
[[noreturn]] void write_storm(int first, int report_fd) {
    for (int version = first;; version++) {
        std::vector<wifi_ap_info> list = version_profiles(version);
        wifi_network_setting setting = version_setting(version);
        wapinfo_update_profile_to_user_setting(version % 2 == 0, &list, &setting);
        if (write(report_fd, &version, sizeof(version)) != sizeof(version)) {
            _exit(1);
        }
    }
}

class ProfilePowerCut : public ProfileFileTest {};

}  // namespace

TEST_F(ProfilePowerCut, KilledSavesLeaveTheLastOrTheNextVersionWhole) {
    const char* env = getenv("WIFIM_POWER_CUT_ROUNDS");
    int rounds = env != nullptr && atoi(env) > 0 ? atoi(env) : 300;
    {
        std::vector<wifi_ap_info> list = version_profiles(0);
        wifi_network_setting setting = version_setting(0);
        wapinfo_update_profile_to_user_setting(true, &list, &setting);
    }
    ASSERT_EQ(version_in_file(), 0);
    int last_saved = 0;
    int cut_mid_save = 0;
    srand(static_cast<unsigned>(getpid()) ^ static_cast<unsigned>(wifim_test::now_ms()));
    for (int round = 0; round < rounds; round++) {
        int report[2];
        ASSERT_EQ(pipe(report), 0);
        pid_t writer = fork();
        ASSERT_GE(writer, 0);
        if (writer == 0) {
            close(report[0]);
            write_storm(last_saved + 1, report[1]);
        }
        close(report[1]);
        // Let it save a few versions first, then kill it at a random moment.
        int version = 0;
        for (int i = 0; i < 2 && read(report[0], &version, sizeof(version)) == sizeof(version);
             i++) {
            last_saved = version;
        }
        usleep(static_cast<useconds_t>(rand() % 4000));
        kill(writer, SIGKILL);
        int status = 0;
        waitpid(writer, &status, 0);
        while (read(report[0], &version, sizeof(version)) == sizeof(version)) {
            last_saved = version;
        }
        close(report[0]);
        int found = version_in_file();
        ASSERT_TRUE(found == last_saved || found == last_saved + 1)
            << "round " << round << ": the file holds version " << found << " after version "
            << last_saved << " was saved:\n"
            << wifim_test::read_file(WIFIM_PROFILE_FILE);
        if (found == last_saved + 1) {
            cut_mid_save++;  // renamed in place before the report got out
        }
        last_saved = found;
    }
    struct stat st;
    ASSERT_EQ(stat(WIFIM_PROFILE_FILE, &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    printf("power cut: %d writers killed, %d after the rename but before the report\n", rounds,
           cut_mid_save);
    RecordProperty("kills", rounds);
}

TEST_F(ProfilePowerCut, ALeftoverTemporaryFileIsReplacedNotWrittenThrough) {
    // A save cut short leaves its temporary file; a link planted in its
    // place must not redirect the next save.
    ASSERT_TRUE(wifim_test::write_file("/tmp/elsewhere", "untouched\n"));
    ASSERT_EQ(symlink("/tmp/elsewhere", WIFIM_PROFILE_FILE ".tmp"), 0);
    std::vector<wifi_ap_info> list = version_profiles(4);
    wifi_network_setting setting = version_setting(4);
    wapinfo_update_profile_to_user_setting(true, &list, &setting);
    EXPECT_EQ(version_in_file(), 4);
    EXPECT_EQ(wifim_test::read_file("/tmp/elsewhere"), "untouched\n");
    EXPECT_FALSE(wifim_test::file_exists(WIFIM_PROFILE_FILE ".tmp"));
}

TEST_F(ProfilePowerCut, ASymbolicLinkToTheFileSurvivesTheSave) {
    // Some devices keep the settings on another partition and link to them.
    mkdir("/tmp/nvram", 0755);
    unlink("/tmp/nvram/wifista");
    ASSERT_EQ(symlink("../tmp/nvram/wifista", WIFIM_PROFILE_FILE), 0);
    std::vector<wifi_ap_info> list = version_profiles(6);
    wifi_network_setting setting = version_setting(6);
    wapinfo_update_profile_to_user_setting(true, &list, &setting);
    struct stat st;
    ASSERT_EQ(lstat(WIFIM_PROFILE_FILE, &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode)) << "the link was replaced by a file";
    EXPECT_EQ(version_in_file(), 6);
    ASSERT_EQ(stat("/tmp/nvram/wifista", &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_FALSE(wifim_test::file_exists("/tmp/nvram/wifista.tmp"));
    unlink(WIFIM_PROFILE_FILE);
}

TEST_F(ProfilePowerCut, TheFileIsTheOwnersAloneWhateverTheUmask) {
    mode_t old = umask(0);
    std::vector<wifi_ap_info> list = version_profiles(2);
    wifi_network_setting setting = version_setting(2);
    wapinfo_update_profile_to_user_setting(true, &list, &setting);
    umask(old);
    struct stat st;
    ASSERT_EQ(stat(WIFIM_PROFILE_FILE, &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}
