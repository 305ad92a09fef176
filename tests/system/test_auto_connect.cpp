// The worker connects on its own to the best registered network in range and
// reconnects after the link drops; these tests wait for the real timers.
#include <iostream>

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

// A failed attempt of a client at a registered network leaves the profile
// as it was, and the station goes back to that network on its own. The
// network has one access point, the one the failed attempt used.
static const char* kOneHome =
    "scan_delay_ms 50\n"
    "connect_delay_ms 30\n"
    "temp_disable_ms 100000\n"
    "ap 00:11:22:33:44:01 2412 -50 [WPA2-PSK-CCMP][ESS] key=secret123 wps=- ssid=home\n"
    "ap 00:11:22:33:44:03 2462 -40 [ESS] key=- wps=- ssid=cafe\n";

static const char* kHomeProfile =
    "ssid_1 = home\nsecurity_1 = wpa2\npasswd_1 = secret123\npasswd_encode_1 = ascii\n"
    "priority_1 = 1\n";

// Connected to home, as the simulator sees it. Read from the simulator and
// the marker file only: a request would queue a job that ends a running
// automatic attempt.
static bool on_home(const wifim_test::wpa_peer& peer) {
    if (!wifim_test::file_exists("/tmp/wifista_connected")) {
        return false;
    }
    std::string status = wifim_test::wpa_cli(peer, {"STATUS"});
    return status.find("wpa_state=COMPLETED\n") != std::string::npos &&
           status.find("\nssid=home\n") != std::string::npos;
}

// After a client's failed attempt the automatic scan and connection wait
// 5 s; the scan then ends within 50 ms here and the automatic attempt
// follows it at once, joining within a few 30 ms steps. A scan that misses
// it is followed by the next within 10 s (20 s for one that times out).
// Sixty seconds is twice the worst of these on a loaded machine.
static const int kRejoinMs = 60000;

class FailedAttempts : public DaemonRequests {
  protected:
    // Starts with home registered and waits for the first automatic
    // connection (about 20 s after start, once the forced scans are done).
    void start_on_home() {
        start(kOneHome, kHomeProfile);
        ASSERT_TRUE(wifim_test::wait_until([this] { return on_home(peer); }, 60000));
        profile_before = wifim_test::read_file("/www/nvram.wifista");
        ASSERT_NE(profile_before.find(kHomeProfile), std::string::npos) << profile_before;
    }
    // Back on home on its own, the automatic choice passing over no access
    // point, and the profile file as it was.
    void expect_back_on_home() {
        long asked = wifim_test::now_ms();
        ASSERT_TRUE(wifim_test::wait_until([this] { return on_home(peer); }, kRejoinMs))
            << wifim_test::wpa_cli(peer, {"STATUS"});
        std::cout << "back on home " << wifim_test::now_ms() - asked << " ms after the answer\n";
        auto tries = wifim_test::log_lines_with("], Try to connect to SSID : home, network id:-1");
        ASSERT_EQ(tries.size(), 2u);
        EXPECT_EQ(tries[1].substr(tries[1].size() - 13), ", skip bssid:") << tries[1];
        EXPECT_NE(ask("function=GetConnected").find("<ssid><![CDATA[home]]></ssid>"),
                  std::string::npos);
        EXPECT_EQ(wifim_test::read_file("/www/nvram.wifista"), profile_before);
    }
    std::string profile_before;
};

TEST_F(FailedAttempts, WrongKeyForTheRegisteredNetworkKeepsItsProfileAndTheStationReturns) {
    start_on_home();
    // Another key, in the other key form: 64 hexadecimal digits.
    const std::string wrong(64, 'a');
    // The network stays disabled past the attempt's deadline once its key
    // has failed, so the attempt ends on a scan's status: result 1.
    EXPECT_EQ(ask("function=ConnectAP\nssid=home\nsecurity=wpa2\nascii_key=0\npassword=" + wrong),
              command_answer("wifista_connecte", 1, 1));
    EXPECT_EQ(wifim_test::log_lines_with("], connect fail, connect result:3").size(), 1u);
    // Key, key form and priority as they were.
    EXPECT_EQ(wifim_test::read_file("/www/nvram.wifista"), profile_before);
    expect_back_on_home();
}

TEST_F(FailedAttempts, FailedReconnectKeepsTheProfileAndAnUnknownNetworkStaysUnregistered) {
    start_on_home();
    // wpa_supplicant refuses to enable the network of this one attempt.
    ASSERT_EQ(wifim_test::sim_control(peer, "FAULT ENABLE_NETWORK ONCE"), "OK\n");
    EXPECT_EQ(ask("function=ReconnectAP\nssid=home"), command_answer("wifista_reconnecte", 3, 1));
    EXPECT_EQ(wifim_test::log_lines_with("], Can't enable network id:0, ssid:home").size(), 1u);
    EXPECT_EQ(wifim_test::read_file("/www/nvram.wifista"), profile_before);
    expect_back_on_home();

    // A failed attempt at a network that is not registered registers nothing.
    ASSERT_EQ(wifim_test::sim_control(peer, "FAULT ENABLE_NETWORK ONCE"), "OK\n");
    EXPECT_EQ(ask("function=ConnectAP\nssid=cafe\nsecurity=none"),
              command_answer("wifista_connecte", 3, 1));
    EXPECT_EQ(wifim_test::read_file("/www/nvram.wifista"), profile_before);
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
