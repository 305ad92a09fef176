// End to end against the real wpa_supplicant (wired driver on a veth link)
// with real interface state: address, default route and name servers.
#include <regex>

#include "request_fixture.h"
#include "wpacli_monitor/wpacm_internal.h"

class WithRealWpaSupplicant : public DaemonRequests {
  protected:
    void start_real() {
        wifim_test::install_recording_scripts();
        ASSERT_TRUE(wifim_test::start_wired_wpa_supplicant(&peer));
        auto r = wifim_test::run_process(
            {"/bin/sh", "-c",
             "ip addr add 192.168.77.2/24 dev wlan0 && ip route add default via 192.168.77.1"});
        ASSERT_EQ(r.exit_status, 0) << r.err;
        wifim_test::write_file("/etc/resolv.conf",
                               "nameserver 192.168.77.1\n#wifi_manager\nnameserver 10.9.9.9\n");
        ASSERT_TRUE(wifim_test::start_daemon(&daemon, peer.config));
    }
};

TEST_F(WithRealWpaSupplicant, ConnectReportDisconnectRemove) {
    start_real();
    EXPECT_EQ(ask("function=ConnectAP\nssid=wired\nsecurity=none"),
              command_answer("wifista_connecte", 0, 1));
    EXPECT_NE(wifim_test::wpa_cli(peer, {"STATUS"}).find("wpa_state=COMPLETED"), std::string::npos);
    // Not in any scan list (a wired link has none): the security stays empty
    // after about 15 s of looking.
    long start = wifim_test::now_ms();
    EXPECT_EQ(ask("function=GetConnected"),
              "<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<wifista_connected>\n"
              "<result>0</result>\n<ssid><![CDATA[wired]]></ssid>\n<security></security>\n"
              "<enable>1</enable>\n<ip_addr>192.168.77.2</ip_addr>\n"
              "<netmask>255.255.255.0</netmask>\n<gateway>192.168.77.1</gateway>\n"
              "<dns_server>192.168.77.1</dns_server>\n<dns_server></dns_server>\n"
              "</wifista_connected>\n");
    EXPECT_GE(wifim_test::now_ms() - start, 14000);
    EXPECT_NE(wifim_test::read_file("/www/nvram.wifista").find("ssid_1 = wired\n"),
              std::string::npos);
    EXPECT_EQ(ask("function=Disconnect"), command_answer("wifista_reconnecte", 0, 1));
    EXPECT_EQ(ask("function=Remove\nssid=wired\nsecurity=none"),
              command_answer("wifista_remove", 0, 1));
    EXPECT_EQ(wifim_test::read_file("/www/nvram.wifista").find("wired"), std::string::npos);
}

TEST_F(WithRealWpaSupplicant, WorkerClearsNetworksAtStartAndProfilesReadBackFromSavedConfig) {
    ASSERT_TRUE(wifim_test::start_wired_wpa_supplicant(&peer));
    wifim_test::wpa_cli(peer, {"ADD_NETWORK"});
    wifim_test::wpa_cli(peer, {"SET_NETWORK", "0", "ssid", "\"stale\""});
    wifim_test::install_recording_scripts();
    ASSERT_TRUE(wifim_test::start_daemon(&daemon, peer.config));
    // Not connected at start: every network is removed.
    EXPECT_TRUE(wifim_test::wait_until(
        [this] {
            return wifim_test::wpa_cli(peer, {"LIST_NETWORKS"}) ==
                   "network id / ssid / bssid / flags\n";
        },
        60000));
    ASSERT_EQ(ask("function=ConnectAP\nssid=wired\nsecurity=open"),
              command_answer("wifista_connecte", 0, 1));
    // A network as WPS leaves it, saved by wpa_supplicant itself.
    wifim_test::wpa_cli(peer, {"ADD_NETWORK"});
    for (auto var : std::vector<std::vector<std::string>>{{"ssid", "\"learnt net\""},
                                                          {"psk", "\"secret123\""},
                                                          {"proto", "RSN"},
                                                          {"key_mgmt", "WPA-PSK"},
                                                          {"pairwise", "CCMP"}}) {
        EXPECT_EQ(wifim_test::wpa_cli(peer, {"SET_NETWORK", "1", var[0], var[1]}), "OK\n");
    }
    EXPECT_EQ(wifim_test::wpa_cli(peer, {"SAVE_CONFIG"}), "OK\n");
    auto profiles = wpacm_read_wpa_config_profiles(wifim_test::read_file(peer.config));
    // The open network is saved without proto and pairwise lines: no row of
    // the table matches it, its own key_mgmt=NONE without a WEP key makes it
    // open. Blanks inside values are dropped.
    ASSERT_EQ(profiles.size(), 2u) << wifim_test::read_file(peer.config);
    EXPECT_EQ(profiles[0].ssid, "wired");
    EXPECT_EQ(profiles[0].security, WIFI_SECURITY_NONE);
    EXPECT_EQ(profiles[0].password, "");
    EXPECT_TRUE(profiles[0].ascii_key);
    profiles.erase(profiles.begin());
    EXPECT_EQ(profiles[0].ssid, "learntnet");
    EXPECT_EQ(profiles[0].security, WIFI_SECURITY_WPA2_PSK_AES);
    EXPECT_EQ(profiles[0].password, "secret123");
    EXPECT_TRUE(profiles[0].ascii_key);
}
