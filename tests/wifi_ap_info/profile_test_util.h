// Helpers shared by the profile store's tests.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "fixed_paths.h"
#include "wifi_ap_info/wifi_ap_info.h"

namespace profile_test {

// The tests write the device's real profile file, so they must run in the
// private filesystem root of tests/sandbox/run-isolated, where the test is
// process 1 of its own pid namespace.
class ProfileFileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (getpid() != 1) {
            GTEST_FAIL() << "run through ctest: this test writes " WIFIM_PROFILE_FILE;
        }
        unlink(WIFIM_PROFILE_FILE);
    }
};

inline wifi_ap_info make_profile(const std::string& ssid, WiFi_Security security,
                                 const std::string& password, int priority, bool ascii_key = true) {
    wifi_ap_info info;
    info.network_id = 7;
    info.bssid = "00:11:22:33:44:55";
    info.ssid = ssid;
    info.password = password;
    info.security = security;
    info.signal = -40;
    info.priority = priority;
    info.ascii_key = ascii_key;
    info.wps = true;
    info.saved = false;
    info.in_range = true;
    return info;
}

// The five lines the writer produces for profile number n.
inline std::string profile_text(int n, const std::string& ssid, const std::string& security,
                                const std::string& password, const std::string& encode,
                                const std::string& priority) {
    std::string num = std::to_string(n);
    return "ssid_" + num + " = " + ssid + "\n" + "security_" + num + " = " + security + "\n" +
           "passwd_" + num + " = " + password + "\n" + "passwd_encode_" + num + " = " + encode +
           "\n" + "priority_" + num + " = " + priority + "\n";
}

}  // namespace profile_test
