// The wpa_supplicant simulator, checked against the real wpa_cli, the real
// control library, and the real wpa_supplicant on a wired veth link.
#include <gtest/gtest.h>
#include <wpa_ctrl.h>

#include <regex>
#include <string>
#include <vector>

#include "test_support.h"
#include "wpa_peer.h"

using wifim_test::wpa_peer;

static const char* kWorld =
    "connect_delay_ms 30\n"
    "scan_delay_ms 50\n"
    "wps_delay_ms 50\n"
    "handshake_fail_ms 100\n"
    "ap 01:80:c2:00:00:03 0 0 [ESS] key=- wps=- ssid=wired\n"
    "ap 00:11:22:33:44:55 2437 -65 [WPA2-PSK-CCMP][WPS][ESS] key=secret123 wps=pbc ssid=home net\n"
    "ap 00:11:22:33:44:66 2412 -70 [WPA-PSK-CCMP][WPA2-PSK-CCMP][ESS] key=abcdefgh wps=12345670 "
    "ssid=office\n"
    "ap 00:11:22:33:44:77 2462 -80 [WPA2-PSK-CCMP][ESS] key=password reject ssid=busy\n";

// A control connection, as the daemon opens them.
struct ctrl_link {
    struct wpa_ctrl* ctrl = nullptr;
    explicit ctrl_link(const wpa_peer& peer) {
        ctrl = wpa_ctrl_open((peer.ctrl_dir + "/" + peer.interface).c_str());
    }
    ~ctrl_link() {
        if (ctrl != nullptr) {
            wpa_ctrl_close(ctrl);
        }
    }
    std::string request(const std::string& command) {
        char reply[4096];
        size_t len = sizeof(reply) - 1;
        if (ctrl == nullptr ||
            wpa_ctrl_request(ctrl, command.c_str(), command.size(), reply, &len, nullptr) != 0) {
            return "(no reply)";
        }
        return std::string(reply, len);
    }
    // Waits for an event that starts with prefix (after the level prefix).
    std::string wait_event(const std::string& prefix, int timeout_ms = 3000) {
        long start = wifim_test::now_ms();
        while (wifim_test::now_ms() - start < timeout_ms) {
            if (wpa_ctrl_pending(ctrl) > 0) {
                char buf[4096];
                size_t len = sizeof(buf) - 1;
                wpa_ctrl_recv(ctrl, buf, &len);
                std::string text(buf, len);
                if (text.find(prefix) != std::string::npos) {
                    return text;
                }
            } else {
                usleep(10000);
            }
        }
        return "";
    }
};

class Simulator : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(wifim_test::start_simulator(&sim, kWorld)); }
    void TearDown() override { wifim_test::stop_wpa_peer(&sim); }
    wpa_peer sim;
};

TEST_F(Simulator, AnswersTheRealWpaCli) {
    EXPECT_EQ(wifim_test::wpa_cli(sim, {"PING"}), "PONG\n");
    EXPECT_EQ(wifim_test::wpa_cli(sim, {"ADD_NETWORK"}), "0\n");
    EXPECT_EQ(wifim_test::wpa_cli(sim, {"SET_NETWORK", "0", "ssid", "\"home net\""}), "OK\n");
    EXPECT_EQ(wifim_test::wpa_cli(sim, {"LIST_NETWORKS"}),
              "network id / ssid / bssid / flags\n0\thome net\tany\t[DISABLED]\n");
    std::string results = wifim_test::wpa_cli(sim, {"SCAN_RESULTS"});
    EXPECT_NE(results.find("00:11:22:33:44:55\t2437\t-65\t[WPA2-PSK-CCMP][WPS][ESS]\thome net\n"),
              std::string::npos);
}

TEST_F(Simulator, DeliversEventsToAttachedClients) {
    ctrl_link events(sim);
    ASSERT_EQ(wpa_ctrl_attach(events.ctrl), 0);
    ctrl_link commands(sim);
    EXPECT_EQ(commands.request("SCAN"), "OK\n");
    EXPECT_EQ(events.wait_event("CTRL-EVENT-SCAN-RESULTS"), "<3>CTRL-EVENT-SCAN-RESULTS ");
    EXPECT_EQ(wifim_test::sim_control(sim, "EVENT WPS-TIMEOUT "), "OK\n");
    EXPECT_EQ(events.wait_event("WPS-TIMEOUT"), "<3>WPS-TIMEOUT ");
    EXPECT_EQ(wpa_ctrl_detach(events.ctrl), 0);
}

TEST_F(Simulator, ConnectsWithTheRightKeyAndRefusesAWrongOne) {
    ctrl_link events(sim);
    ASSERT_EQ(wpa_ctrl_attach(events.ctrl), 0);
    ctrl_link c(sim);
    ASSERT_EQ(c.request("ADD_NETWORK"), "0\n");
    c.request("SET_NETWORK 0 ssid \"home net\"");
    c.request("SET_NETWORK 0 key_mgmt WPA-PSK");
    EXPECT_EQ(c.request("SET_NETWORK 0 psk \"wrongkey1\""), "OK\n");
    c.request("ENABLE_NETWORK 0");
    c.request("RECONNECT");
    EXPECT_EQ(events.wait_event("WPA: 4-Way"),
              "<3>WPA: 4-Way Handshake failed - pre-shared key may be incorrect");
    c.request("SET_NETWORK 0 psk \"secret123\"");
    c.request("RECONNECT");
    EXPECT_EQ(events.wait_event("CTRL-EVENT-CONNECTED"),
              "<3>CTRL-EVENT-CONNECTED - Connection to 00:11:22:33:44:55 completed [id=0 id_str=]");
    std::string status = c.request("STATUS");
    EXPECT_NE(status.find("ssid=home net\n"), std::string::npos);
    EXPECT_NE(status.find("wpa_state=COMPLETED\n"), std::string::npos);
    EXPECT_EQ(wifim_test::sim_control(sim, "DROP"), "OK\n");
    EXPECT_EQ(events.wait_event("CTRL-EVENT-DISCONNECTED"),
              "<3>CTRL-EVENT-DISCONNECTED bssid=00:11:22:33:44:55 reason=4");
}

TEST_F(Simulator, RejectsAssociationWhereTheWorldSaysSo) {
    ctrl_link events(sim);
    ASSERT_EQ(wpa_ctrl_attach(events.ctrl), 0);
    ctrl_link c(sim);
    c.request("ADD_NETWORK");
    c.request("SET_NETWORK 0 ssid \"busy\"");
    c.request("SET_NETWORK 0 psk \"password\"");
    c.request("ENABLE_NETWORK 0");
    EXPECT_EQ(events.wait_event("CTRL-EVENT-ASSOC-REJECT"),
              "<3>CTRL-EVENT-ASSOC-REJECT bssid=00:11:22:33:44:77 status_code=1");
}

TEST_F(Simulator, WpsByPushButtonAndByPin) {
    ctrl_link events(sim);
    ASSERT_EQ(wpa_ctrl_attach(events.ctrl), 0);
    ctrl_link c(sim);
    EXPECT_EQ(c.request("WPS_PBC any"), "OK\n");
    EXPECT_EQ(events.wait_event("CTRL-EVENT-EAP-METHOD"),
              "<3>CTRL-EVENT-EAP-METHOD EAP vendor 14122 method 1 (WSC) selected");
    EXPECT_EQ(events.wait_event("WPS-SUCCESS"), "<3>WPS-SUCCESS ");
    // The station leaves the association of the exchange and joins again
    // with the credential.
    EXPECT_EQ(events.wait_event("CTRL-EVENT-DISCONNECTED"),
              "<3>CTRL-EVENT-DISCONNECTED bssid=00:11:22:33:44:55 reason=3 locally_generated=1");
    EXPECT_EQ(events.wait_event("CTRL-EVENT-CONNECTED"),
              "<3>CTRL-EVENT-CONNECTED - Connection to 00:11:22:33:44:55 completed [id=0 id_str=]");
    EXPECT_NE(c.request("STATUS").find("ssid=home net\n"), std::string::npos);
    EXPECT_EQ(c.request("WPS_PIN any 12345670"), "12345670");
    EXPECT_EQ(events.wait_event("WPS-SUCCESS"), "<3>WPS-SUCCESS ");
    EXPECT_EQ(c.request("WPS_PIN any 11111111"), "11111111");
    EXPECT_EQ(events.wait_event("WPS-FAIL"), "<3>WPS-FAIL msg=8 config_error=18");
    wifim_test::sim_control(sim, "AP 00:11:22:33:44:99 2412 -50 [ESS] wps=pbc ssid=second");
    EXPECT_EQ(c.request("WPS_PBC any"), "OK\n");
    EXPECT_EQ(events.wait_event("WPS-OVERLAP"), "<3>WPS-OVERLAP-DETECTED ");
    wifim_test::sim_control(sim, "CLEAR_APS");
    EXPECT_EQ(c.request("WPS_PBC any"), "OK\n");
    EXPECT_EQ(events.wait_event("WPS-TIMEOUT"), "<3>WPS-TIMEOUT ");
}

TEST_F(Simulator, FaultsSilenceAndCrash) {
    ctrl_link c(sim);
    EXPECT_EQ(wifim_test::sim_control(sim, "FAULT SCAN FAIL"), "OK\n");
    EXPECT_EQ(c.request("SCAN"), "FAIL\n");
    EXPECT_EQ(wifim_test::sim_control(sim, "FAULT SCAN SILENT"), "OK\n");
    EXPECT_EQ(c.request("SCAN"), "(no reply)");
    wifim_test::sim_control(sim, "FAULT SCAN NONE");
    EXPECT_EQ(c.request("SCAN"), "OK\n");
    std::vector<std::string> log = wifim_test::sim_commands();
    EXPECT_EQ(std::count(log.begin(), log.end(), "SCAN"), 3);
    EXPECT_EQ(wifim_test::sim_control(sim, "CRASH"), "OK\n");
    EXPECT_TRUE(wifim_test::wait_until(
        [this] { return !wifim_test::file_exists(sim.ctrl_dir + "/" + sim.interface); }, 60000));
}

TEST_F(Simulator, SaveConfigWritesNetworkBlocks) {
    ctrl_link c(sim);
    c.request("ADD_NETWORK");
    c.request("SET_NETWORK 0 ssid \"home net\"");
    c.request("SET_NETWORK 0 psk \"secret123\"");
    c.request("SET_NETWORK 0 key_mgmt WPA-PSK");
    EXPECT_EQ(c.request("SAVE_CONFIG"), "OK\n");
    EXPECT_EQ(wifim_test::read_file(sim.config),
              "ctrl_interface=/tmp/wpa_ctrl\nupdate_config=1\n\nnetwork={\n\tssid=\"home net\"\n"
              "\tpsk=\"secret123\"\n\tkey_mgmt=WPA-PSK\n\tdisabled=1\n}\n");
}

// The same commands to the simulator and to the real wpa_supplicant (wired
// driver on a veth link), compared reply for reply.
class AgainstRealWpaSupplicant : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(wifim_test::start_wired_wpa_supplicant(&real, "wlan0"));
        ASSERT_TRUE(wifim_test::start_simulator(&sim, kWorld, "wlan1"));
    }
    void TearDown() override {
        wifim_test::stop_wpa_peer(&real);
        wifim_test::stop_wpa_peer(&sim);
    }
    // Both peers' replies, with the station's own MAC address and UUID
    // masked (they differ by nature).
    void expect_same(ctrl_link& a, ctrl_link& b, const std::string& command) {
        std::regex own("(address|uuid)=[^\n]*");
        EXPECT_EQ(std::regex_replace(a.request(command), own, "$1=*"),
                  std::regex_replace(b.request(command), own, "$1=*"))
            << command;
    }
    wpa_peer real;
    wpa_peer sim;
};

TEST_F(AgainstRealWpaSupplicant, RepliesMatchForTheNetworkCommandsTheDaemonSends) {
    ctrl_link r(real);
    ctrl_link s(sim);
    const char* commands[] = {
        "PING",
        "STATUS",
        "LIST_NETWORKS",
        "ADD_NETWORK",
        "GET_NETWORK 0 ssid",
        "GET_NETWORK 0 key_mgmt",
        "GET_NETWORK 0 proto",
        "GET_NETWORK 0 pairwise",
        "GET_NETWORK 0 group",
        "GET_NETWORK 0 priority",
        "GET_NETWORK 0 psk",
        "GET_NETWORK 0 auth_alg",
        "SET_NETWORK 0 ssid \"wired\"",
        "SET_NETWORK 0 ssid 776972656400",
        "SET_NETWORK 0 ssid \"wired\"",
        "GET_NETWORK 0 ssid",
        "SET_NETWORK 0 psk \"short\"",
        "SET_NETWORK 0 psk \"longenough\"",
        "SET_NETWORK 0 psk 0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef",
        "GET_NETWORK 0 psk",
        "SET_NETWORK 0 wep_key0 \"12345\"",
        "SET_NETWORK 0 wep_key0 \"1234\"",
        "SET_NETWORK 0 wep_key0 0123456789",
        "SET_NETWORK 0 key_mgmt BOGUS",
        "SET_NETWORK 0 key_mgmt WPA-PSK",
        "GET_NETWORK 0 key_mgmt",
        "SET_NETWORK 0 proto RSN",
        "SET_NETWORK 0 pairwise CCMP",
        "SET_NETWORK 0 pairwise ",
        "SET_NETWORK 0 priority 1",
        "GET_NETWORK 0 priority",
        "SET_NETWORK 0 auth_alg OPEN",
        "SET_NETWORK 0 key_mgmt NONE",
        "SET_NETWORK 0 mode 0",
        "SET_NETWORK 0 wep_tx_keyidx 0",
        "DISABLE_NETWORK 0",
        "LIST_NETWORKS",
        "ENABLE_NETWORK 7",
        "REMOVE_NETWORK 7",
        "ADD_NETWORK",
        "REMOVE_NETWORK 1",
        "LIST_NETWORKS",
        "DISCONNECT",
        "NO_SUCH_COMMAND",
    };
    for (const char* command : commands) {
        expect_same(r, s, command);
    }
}

TEST_F(AgainstRealWpaSupplicant, OpenNetworkConnectsWithTheSameEventAndStatus) {
    ctrl_link r_events(real);
    ctrl_link s_events(sim);
    ASSERT_EQ(wpa_ctrl_attach(r_events.ctrl), 0);
    ASSERT_EQ(wpa_ctrl_attach(s_events.ctrl), 0);
    ctrl_link r(real);
    ctrl_link s(sim);
    for (const char* command : {"REMOVE_NETWORK all", "ADD_NETWORK", "SET_NETWORK 0 ssid \"wired\"",
                                "SET_NETWORK 0 key_mgmt NONE", "SET_NETWORK 0 priority 1",
                                "ENABLE_NETWORK 0", "RECONNECT"}) {
        expect_same(r, s, command);
    }
    std::string real_event = r_events.wait_event("CTRL-EVENT-CONNECTED", 10000);
    EXPECT_NE(real_event, "");
    EXPECT_EQ(s_events.wait_event("CTRL-EVENT-CONNECTED"), real_event);
    expect_same(r, s, "STATUS");
    expect_same(r, s, "LIST_NETWORKS");
    expect_same(r, s, "DISCONNECT");
    std::string real_drop = r_events.wait_event("CTRL-EVENT-DISCONNECTED");
    EXPECT_EQ(s_events.wait_event("CTRL-EVENT-DISCONNECTED"), real_drop);
    expect_same(r, s, "STATUS");
    expect_same(r, s, "SAVE_CONFIG");
    // The daemon reads back ssid, psk, key_mgmt, proto and pairwise; both
    // files hold the same lines for them.
    auto network_lines = [](const std::string& text) {
        std::vector<std::string> out;
        for (const auto& line : wifim_test::split_lines(text)) {
            if (line.rfind("\tssid=", 0) == 0 || line.rfind("\tkey_mgmt=", 0) == 0 ||
                line.rfind("\tpriority=", 0) == 0 || line == "network={" || line == "}") {
                out.push_back(line);
            }
        }
        return out;
    };
    EXPECT_EQ(network_lines(wifim_test::read_file(sim.config)),
              network_lines(wifim_test::read_file(real.config)));
    EXPECT_EQ(network_lines(wifim_test::read_file(sim.config)),
              (std::vector<std::string>{"network={", "\tssid=\"wired\"", "\tkey_mgmt=NONE",
                                        "\tpriority=1", "}"}));
}

// Names that are not plain ASCII: set in each form wpa_supplicant takes,
// read back, listed, shown by STATUS once joined and saved, in the same
// words by both.
TEST_F(AgainstRealWpaSupplicant, NamesThatAreNotPlainAsciiAreKeptAndPrintedAlike) {
    wifim_test::stop_wpa_peer(&sim);
    ASSERT_TRUE(wifim_test::start_simulator(
        &sim,
        std::string(kWorld) + "ap 01:80:c2:00:00:03 0 0 [ESS] key=- wps=- ssid=Caf\xc3\xa9 \"q\\\n",
        "wlan1"));
    ctrl_link r_events(real);
    ctrl_link s_events(sim);
    ASSERT_EQ(wpa_ctrl_attach(r_events.ctrl), 0);
    ASSERT_EQ(wpa_ctrl_attach(s_events.ctrl), 0);
    ctrl_link r(real);
    ctrl_link s(sim);
    const char* commands[] = {
        "REMOVE_NETWORK all",
        "ADD_NETWORK",
        "SET_NETWORK 0 ssid 436166c3a9202271 5c",
        "SET_NETWORK 0 ssid 436166c3a92022715c",
        "GET_NETWORK 0 ssid",
        "ADD_NETWORK",
        "SET_NETWORK 1 ssid P\"Caf\\xe9\\n\\\"\\\\\"",
        "GET_NETWORK 1 ssid",
        "ADD_NETWORK",
        "SET_NETWORK 2 ssid \"a\"b\\c\"",
        "GET_NETWORK 2 ssid",
        "SET_NETWORK 2 ssid 6122625c63",
        "GET_NETWORK 2 ssid",
        "LIST_NETWORKS",
        "SET_NETWORK 0 key_mgmt NONE",
        // A WPA-PSK network without a key is never saved.
        "SET_NETWORK 1 key_mgmt NONE",
        "SET_NETWORK 2 key_mgmt NONE",
        "DISABLE_NETWORK 1",
        "DISABLE_NETWORK 2",
        "ENABLE_NETWORK 0",
        "RECONNECT",
    };
    for (const char* command : commands) {
        expect_same(r, s, command);
    }
    std::string real_event = r_events.wait_event("CTRL-EVENT-CONNECTED", 10000);
    EXPECT_NE(real_event, "");
    EXPECT_EQ(s_events.wait_event("CTRL-EVENT-CONNECTED"), real_event);
    expect_same(r, s, "STATUS");
    EXPECT_NE(s.request("STATUS").find("\nssid=Caf\\xc3\\xa9 \\\"q\\\\\n"), std::string::npos);
    // Both peers save to the same file: each file is read after its save.
    auto ssid_lines = [](const std::string& text) {
        std::vector<std::string> out;
        for (const auto& line : wifim_test::split_lines(text)) {
            if (line.rfind("\tssid=", 0) == 0) {
                out.push_back(line);
            }
        }
        return out;
    };
    ASSERT_EQ(r.request("SAVE_CONFIG"), "OK\n");
    std::vector<std::string> real_lines = ssid_lines(wifim_test::read_file(real.config));
    ASSERT_EQ(s.request("SAVE_CONFIG"), "OK\n");
    EXPECT_EQ(ssid_lines(wifim_test::read_file(sim.config)), real_lines);
    EXPECT_EQ(real_lines,
              (std::vector<std::string>{"\tssid=436166c3a92022715c", "\tssid=436166e90a225c",
                                        "\tssid=\"a\"b\\c\""}));
}
