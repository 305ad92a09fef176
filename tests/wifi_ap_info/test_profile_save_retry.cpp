// A save of the profile file that fails is retried. The test binary is linked
// with --wrap=fdopen so that the open of the new contents' file can be made
// to fail, or to land on /dev/full so that the write itself fails.
#include <gtest/gtest.h>
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "profile_test_util.h"
#include "test_support.h"

using profile_test::make_profile;
using profile_test::ProfileFileTest;

namespace {

enum class open_fault { none, refuse, full_device };

open_fault g_fault = open_fault::none;
int g_faults_left = 0;
std::vector<long> g_write_open_ms;

// The file a descriptor is open on.
std::string fd_path(int fd) {
    char link[64];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    char target[PATH_MAX] = {};
    ssize_t n = readlink(link, target, sizeof(target) - 1);
    return n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
}

}  // namespace

extern "C" FILE* __real_fdopen(int fd, const char* mode);

extern "C" FILE* __wrap_fdopen(int fd, const char* mode) {
    bool profile_write = fd_path(fd) == WIFIM_PROFILE_FILE ".tmp" && mode[0] == 'w';
    if (!profile_write) {
        return __real_fdopen(fd, mode);
    }
    g_write_open_ms.push_back(wifim_test::now_ms());
    if (g_faults_left == 0 || g_fault == open_fault::none) {
        return __real_fdopen(fd, mode);
    }
    g_faults_left--;
    if (g_fault == open_fault::full_device) {
        close(fd);
        return fopen("/dev/full", mode);
    }
    errno = EACCES;
    return nullptr;
}

namespace {

class ProfileSaveRetry : public ProfileFileTest {
  protected:
    void TearDown() override {
        g_fault = open_fault::none;
        g_faults_left = 0;
        g_write_open_ms.clear();
    }

    // Saves one profile and returns the time the call took.
    long save_one_profile() {
        std::vector<wifi_ap_info> list = {make_profile("Home", WIFI_SECURITY_WEP, "k", 1)};
        wifi_network_setting setting;
        setting.dhcp = true;
        setting.dns_dhcp = true;
        long start = wifim_test::now_ms();
        wapinfo_update_profile_to_user_setting(true, &list, &setting);
        return wifim_test::now_ms() - start;
    }

    void expect_pauses_between_attempts() {
        for (size_t i = 1; i < g_write_open_ms.size(); i++) {
            long pause = g_write_open_ms[i] - g_write_open_ms[i - 1];
            EXPECT_GE(pause, 50) << "before attempt " << i + 1;
            EXPECT_LE(pause, 200 + 500) << "before attempt " << i + 1;
        }
    }
};

std::vector<wifi_ap_info> read_list() {
    bool enable = false;
    std::vector<wifi_ap_info> list;
    wapinfo_read_profile(&enable, &list, nullptr);
    return list;
}

}  // namespace

TEST_F(ProfileSaveRetry, SaveThatWorksOpensTheFileOnce) {
    save_one_profile();
    EXPECT_EQ(g_write_open_ms.size(), 1u);
    EXPECT_EQ(read_list().size(), 1u);
}

TEST_F(ProfileSaveRetry, FailedOpensAreRetriedAfterAPause) {
    g_fault = open_fault::refuse;
    g_faults_left = 2;
    long elapsed = save_one_profile();
    EXPECT_EQ(g_write_open_ms.size(), 3u);
    expect_pauses_between_attempts();
    EXPECT_GE(elapsed, 2 * 50);
    ASSERT_EQ(read_list().size(), 1u);
    EXPECT_EQ(read_list()[0].ssid, "Home");
}

TEST_F(ProfileSaveRetry, FailedWritesAreRetriedAfterAPause) {
    g_fault = open_fault::full_device;
    g_faults_left = 4;
    save_one_profile();
    EXPECT_EQ(g_write_open_ms.size(), 5u);
    expect_pauses_between_attempts();
    EXPECT_EQ(read_list().size(), 1u);
}

TEST_F(ProfileSaveRetry, GivesUpAfterFiveFailedOpensWithAPauseAfterTheLast) {
    g_fault = open_fault::refuse;
    g_faults_left = 100;
    long elapsed = save_one_profile();
    EXPECT_EQ(g_write_open_ms.size(), 5u);
    expect_pauses_between_attempts();
    EXPECT_GE(elapsed, 5 * 50);
    EXPECT_FALSE(wifim_test::file_exists(WIFIM_PROFILE_FILE));
}

TEST_F(ProfileSaveRetry, GivesUpAfterFiveFailedWrites) {
    g_fault = open_fault::full_device;
    g_faults_left = 100;
    long elapsed = save_one_profile();
    EXPECT_EQ(g_write_open_ms.size(), 5u);
    EXPECT_GE(elapsed, 5 * 50);
    EXPECT_FALSE(wifim_test::file_exists(WIFIM_PROFILE_FILE));
}

TEST_F(ProfileSaveRetry, FailedSavesLeaveThePreviousFileWhole) {
    save_one_profile();
    std::string before = wifim_test::read_file(WIFIM_PROFILE_FILE);
    ASSERT_NE(before.find("ssid_1 = Home"), std::string::npos);
    std::vector<wifi_ap_info> list = {make_profile("Other", WIFI_SECURITY_NONE, "", 1)};
    g_fault = open_fault::full_device;
    g_faults_left = 100;
    wapinfo_update_profile_to_user_setting(true, &list, nullptr);
    EXPECT_EQ(wifim_test::read_file(WIFIM_PROFILE_FILE), before);
    EXPECT_FALSE(wifim_test::file_exists(WIFIM_PROFILE_FILE ".tmp"));
}
