// The worker connects on its own to the best registered network in range and
// reconnects after the link drops; these tests wait for the real timers.
#include "request_fixture.h"

static const char* kTwoAccessPoints =
    "scan_delay_ms 50\n"
    "connect_delay_ms 30\n"
    "ap 00:11:22:33:44:01 2412 -50 [WPA2-PSK-CCMP][ESS] key=secret123 wps=- ssid=home\n"
    "ap 00:11:22:33:44:02 2437 -60 [WPA2-PSK-TKIP][ESS] key=secret123 wps=- ssid=home\n"
    "ap 00:11:22:33:44:03 2462 -40 [ESS] key=- wps=- ssid=never\n";

TEST_F(DaemonRequests, ConnectsOnItsOwnAndReconnectsAfterADrop) {
    start(kTwoAccessPoints,
          "ssid_1 = never\nsecurity_1 = none\npasswd_1 = \npasswd_encode_1 = ascii\n"
          "priority_1 = 0\n"
          "ssid_2 = home\nsecurity_2 = wpa2\npasswd_2 = secret123\npasswd_encode_2 = ascii\n"
          "priority_2 = 1\n");
    // The first attempt comes about 20 s after start, once the forced scans are done.
    ASSERT_TRUE(wifim_test::wait_until(
        [] { return wifim_test::file_exists("/tmp/wifista_connected"); }, 60000));
    auto tries = wifim_test::log_lines_with("], Try to connect to SSID : home, network id:-1");
    ASSERT_EQ(tries.size(), 1u);
    EXPECT_TRUE(wifim_test::log_lines_with("Try to connect to SSID : never").empty());
    EXPECT_NE(wifim_test::wpa_cli(peer, {"STATUS"}).find("ssid=home\n"), std::string::npos);

    wifim_test::sim_control(peer, "DROP");
    EXPECT_TRUE(wifim_test::wait_until(
        [] { return !wifim_test::file_exists("/tmp/wifista_connected"); }, 60000));
    ASSERT_TRUE(wifim_test::wait_until(
        [] { return wifim_test::file_exists("/tmp/wifista_connected"); }, 60000));
    // The access point of the last connection is passed over this time.
    tries =
        wifim_test::log_lines_with("], Try to connect to SSID : home, network id:-1, skip bssid:");
    ASSERT_EQ(tries.size(), 2u);
    EXPECT_NE(tries[1].find("skip bssid:00:11:22:33:44:0"), std::string::npos);
    EXPECT_TRUE(wifim_test::log_lines_with("Try to connect to SSID : never").empty());
}

// A registered name with an accent, a CJK character, a quote, a backslash
// and an emoji matches its network in the scan list, which wpa_supplicant
// prints escaped. Two access points carry the name, so that the one left
// by the drop is passed over and the other is joined.
TEST_F(DaemonRequests, ConnectsOnItsOwnToANetworkWhoseNameIsNotPlainAscii) {
    const std::string name = "Caf\xc3\xa9 \"\xe4\xb8\xad\" \\ \xf0\x9f\x93\xb7";
    start(
        "scan_delay_ms 50\n"
        "connect_delay_ms 30\n"
        "ap 00:11:22:33:44:01 2412 -50 [WPA2-PSK-CCMP][ESS] key=secret123 wps=- ssid=" +
            name + "\n" +
            "ap 00:11:22:33:44:02 2437 -60 [WPA2-PSK-TKIP][ESS] key=secret123 wps=- ssid=" + name +
            "\n",
        "ssid_1 = " + name +
            "\nsecurity_1 = wpa2\npasswd_1 = secret123\npasswd_encode_1 = ascii\n"
            "priority_1 = 1\n");
    ASSERT_TRUE(wifim_test::wait_until(
        [] { return wifim_test::file_exists("/tmp/wifista_connected"); }, 60000));
    EXPECT_EQ(wifim_test::log_lines_with("], Try to connect to SSID : " + name + ", network id:-1")
                  .size(),
              1u);
    EXPECT_NE(wifim_test::wpa_cli(peer, {"STATUS"})
                  .find("\nssid=Caf\\xc3\\xa9 \\\"\\xe4\\xb8\\xad\\\" \\\\ \\xf0\\x9f\\x93\\xb7\n"),
              std::string::npos);

    wifim_test::sim_control(peer, "DROP");
    EXPECT_TRUE(wifim_test::wait_until(
        [] { return !wifim_test::file_exists("/tmp/wifista_connected"); }, 60000));
    ASSERT_TRUE(wifim_test::wait_until(
        [] { return wifim_test::file_exists("/tmp/wifista_connected"); }, 60000));
    auto tries =
        wifim_test::log_lines_with("], Try to connect to SSID : " + name + ", network id:-1");
    ASSERT_EQ(tries.size(), 2u);
    EXPECT_NE(tries[1].find("skip bssid:00:11:22:33:44:0"), std::string::npos);
    EXPECT_NE(ask("function=GetConnected").find("<ssid><![CDATA[" + name + "]]></ssid>\n"),
              std::string::npos);
}
