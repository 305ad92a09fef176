// The connection commands with the controller in-process against the
// simulator: what an attempt leaves of the registered profiles.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "service_funs/service_funs.h"
#include "test_support.h"
#include "in_process_controller.h"
#include "wpa_peer.h"
#include "wpacli_monitor/wpacm_internal.h"

static const char* kWorld =
    "scan_delay_ms 50\n"
    "connect_delay_ms 30\n"
    "ap 00:11:22:33:44:55 2437 -65 [WPA2-PSK-CCMP][ESS] key=secret123 wps=- ssid=home\n"
    "ap 00:11:22:33:44:66 2412 -40 [ESS] key=- wps=- ssid=cafe\n";

static const char* kProfiles =
    "ssid_1 = home\nsecurity_1 = wpa2\npasswd_1 = secret123\npasswd_encode_1 = ascii\n"
    "priority_1 = 1\n"
    "ssid_2 = attic\nsecurity_2 = none\npasswd_2 = \npasswd_encode_2 = ascii\n"
    "priority_2 = 2\n";

class ConnectionCommands : public ::testing::Test {
  protected:
    void SetUp() override {
        wifim_test::install_recording_scripts();
        wifim_test::write_file("/www/nvram.wifista", kProfiles);
        ASSERT_TRUE(wifim_test::start_controller(&sim, &data, kWorld));
        loop = std::thread([this] { wpacm_service(data); });
        before = wifim_test::read_file("/www/nvram.wifista");
    }
    void TearDown() override { wifim_test::stop_controller(&sim, &data, &loop); }
    std::string call(service_function handler, const std::string& request) {
        CSimpleIniA ini;
        ini.LoadData(request.c_str(), request.size());
        service_stream answer;
        handler(ini, answer, data);
        return answer.str();
    }
    std::vector<std::string> profiles() {
        std::vector<wifi_ap_info> list;
        wpacm_get_register_profile(data, list);
        std::vector<std::string> out;
        for (const wifi_ap_info& p : list) {
            out.push_back(p.ssid + ":" + p.password + ":" + (p.ascii_key ? "ascii" : "hex") + ":" +
                          std::to_string(p.priority));
        }
        return out;
    }
    // Nothing of the registered profiles changed, in memory or in the file.
    void expect_profiles_untouched() {
        EXPECT_EQ(profiles(),
                  (std::vector<std::string>{"home:secret123:ascii:1", "attic::ascii:2"}));
        EXPECT_EQ(wifim_test::read_file("/www/nvram.wifista"), before);
    }
    wifim_test::wpa_peer sim;
    wpacli_monitor_data* data = nullptr;
    std::thread loop;
    std::string before;
};

static std::string answer(const char* root, int result) {
    return std::string("<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<") + root + ">\n<result>" +
           std::to_string(result) + "</result>\n<enable>1</enable>\n</" + root + ">\n";
}

TEST_F(ConnectionCommands, FailedConnectToARegisteredNetworkKeepsKeyKeyFormAndPriority) {
    // A key in the other form that wpa_supplicant refuses: the attempt fails.
    EXPECT_EQ(call(service_connect_ap, "ssid=home\nsecurity=wpa2\nascii_key=0\npassword=wrongkey1"),
              answer("wifista_connecte", 3));
    EXPECT_EQ(wifim_test::log_lines_with("], Can't update network id:0,ssid:home").size(), 1u);
    expect_profiles_untouched();
}

TEST_F(ConnectionCommands, FailedReconnectKeepsThePriority) {
    ASSERT_EQ(wifim_test::sim_control(sim, "FAULT ENABLE_NETWORK FAIL"), "OK\n");
    EXPECT_EQ(call(service_reconnect_ap, "ssid=home"), answer("wifista_reconnecte", 3));
    EXPECT_EQ(call(service_reconnect_ap, "ssid=attic"), answer("wifista_reconnecte", 3));
    expect_profiles_untouched();
}

TEST_F(ConnectionCommands, FailedConnectToAnUnregisteredNetworkRegistersNothing) {
    ASSERT_EQ(wifim_test::sim_control(sim, "FAULT ENABLE_NETWORK FAIL"), "OK\n");
    EXPECT_EQ(call(service_connect_ap, "ssid=cafe\nsecurity=none"), answer("wifista_connecte", 3));
    expect_profiles_untouched();
}

TEST_F(ConnectionCommands, SuccessfulConnectStillPutsTheNetworkFirst) {
    EXPECT_EQ(call(service_connect_ap, "ssid=cafe\nsecurity=none"), answer("wifista_connecte", 0));
    EXPECT_EQ(profiles(), (std::vector<std::string>{"cafe::ascii:1", "home:secret123:ascii:2",
                                                    "attic::ascii:3"}));
    EXPECT_EQ(wifim_test::read_file("/www/nvram.wifista"),
              "wifi_station_enable = true\nwifi_dhcp = 1\nwifi_dns_dhcp = 1\nwifi_ip = \n"
              "wifi_gateway = \nwifi_netmask = \nwifi_dns1 = \nwifi_dns2 = \n"
              "ssid_1 = cafe\nsecurity_1 = none\npasswd_1 = \npasswd_encode_1 = ascii\n"
              "priority_1 = 1\n"
              "ssid_2 = home\nsecurity_2 = wpa2\npasswd_2 = secret123\npasswd_encode_2 = ascii\n"
              "priority_2 = 2\n"
              "ssid_3 = attic\nsecurity_3 = none\npasswd_3 = \npasswd_encode_3 = ascii\n"
              "priority_3 = 3\n");
}
