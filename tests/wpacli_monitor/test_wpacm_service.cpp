// The service loop, the connect and WPS procedures and the operations,
// in-process against the simulator.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "test_support.h"
#include "in_process_controller.h"
#include "wpa_peer.h"
#include "wpacli_monitor/wpacm_internal.h"

using wifim_test::sim_commands;
using wifim_test::sim_control;

// After a WPS exchange the station rejoins at once: on a device the
// connected hook takes its address by DHCP, long after the station has
// rejoined with the credential, while the tests' recording hook returns at
// once.
static const char* kWorld =
    "scan_delay_ms 50\n"
    "connect_delay_ms 30\n"
    "wps_delay_ms 50\n"
    "wps_reassoc_ms 0\n"
    "ap 00:11:22:33:44:55 2437 -65 [WPA2-PSK-CCMP][WPS][ESS] key=secret123 wps=pbc ssid=home\n"
    "ap 00:11:22:33:44:66 2412 -40 [ESS] key=- wps=- ssid=cafe\n"
    "ap 00:11:22:33:44:77 2462 -70 [WEP][ESS] key=12345 wps=- ssid=old\n";

static wifi_ap_info ap(const std::string& ssid, WiFi_Security security,
                       const std::string& password = "", int priority = 1, bool ascii = true) {
    wifi_ap_info a;
    clear_wifi_ap_info(&a);
    a.network_id = -1;
    a.ssid = ssid;
    a.security = security;
    a.password = password;
    a.priority = priority;
    a.ascii_key = ascii;
    a.saved = true;
    return a;
}

// Commands of the log from the first one starting with `from`.
static std::vector<std::string> commands_from(const std::string& from) {
    std::vector<std::string> all = sim_commands();
    std::vector<std::string> out;
    bool on = false;
    for (const std::string& c : all) {
        on = on || c.rfind(from, 0) == 0;
        if (on && c.rfind("EVENT", 0) != 0) {
            out.push_back(c);
        }
    }
    return out;
}

static bool has(const std::vector<std::string>& list, const std::string& item) {
    return std::find(list.begin(), list.end(), item) != list.end();
}

class ServiceLoop : public ::testing::Test {
  protected:
    void start(const std::string& profile = "", const std::string& world = kWorld,
               bool run_loop = true) {
        wifim_test::install_recording_scripts();
        if (!profile.empty()) {
            wifim_test::write_file("/www/nvram.wifista", profile);
        }
        ASSERT_TRUE(wifim_test::start_controller(&sim, &data, world));
        if (run_loop) {
            loop = std::thread([this] { wpacm_service(data); });
            // The loop is up once it has attached and asked for a scan.
            ASSERT_TRUE(wifim_test::wait_until([] { return has(sim_commands(), "SCAN"); }, 60000));
            usleep(300000);
        }
    }
    void TearDown() override { wifim_test::stop_controller(&sim, &data, &loop); }
    int connect(wifi_ap_info a) {
        wifim_test::clear_sim_commands();
        return wpacm_connect_to_ap(data, &a);
    }
    wifim_test::wpa_peer sim;
    wpacli_monitor_data* data = nullptr;
    std::thread loop;
};

TEST_F(ServiceLoop, ConnectSendsTheNetworkBlockInOrder) {
    start();
    EXPECT_EQ(connect(ap("home", WIFI_SECURITY_ANY_WPA, "secret123")), WIFI_CONNECT_STATUS_SUCCESS);
    // key_mgmt and proto already hold the wanted words: nothing is set.
    std::vector<std::string> expected = {
        "DISCONNECT",
        "LIST_NETWORKS",
        "ADD_NETWORK",
        "DISABLE_NETWORK 0",
        "GET_NETWORK 0 ssid",
        "SET_NETWORK 0 ssid \"home\"",
        "GET_NETWORK 0 key_mgmt",
        "GET_NETWORK 0 proto",
        "SET_NETWORK 0 priority 1",
        "SET_NETWORK 0 psk \"secret123\"",
        "DISABLE_NETWORK 0",
        "ENABLE_NETWORK 0",
        "RECONNECT",
        "STATUS",
    };
    std::vector<std::string> got = commands_from("DISCONNECT");
    got.resize(std::min(got.size(), expected.size()));
    EXPECT_EQ(got, expected);
    EXPECT_TRUE(wifim_test::file_exists("/tmp/wifista_connected"));
    EXPECT_EQ(wifim_test::log_lines_with("], connect success, connect result:5").size(), 1u);
    EXPECT_EQ(wifim_test::log_lines_with(
                  "], add network id:0 for connect to SSID:home, BSSID:00:11:22:33:44:55")
                  .size(),
              1u);
}

TEST_F(ServiceLoop, PskQuotingFollowsLengthAndKeyForm) {
    start();
    connect(ap("home", WIFI_SECURITY_ANY_WPA, std::string(64, 'a')));
    EXPECT_TRUE(has(sim_commands(), "SET_NETWORK 0 psk " + std::string(64, 'a')));
    connect(ap("home", WIFI_SECURITY_ANY_WPA, std::string(63, 'b')));
    EXPECT_TRUE(has(sim_commands(), "SET_NETWORK 0 psk \"" + std::string(63, 'b') + "\""));
    connect(ap("home", WIFI_SECURITY_ANY_WPA, "0123456789", 1, false));
    EXPECT_TRUE(has(sim_commands(), "SET_NETWORK 0 psk 0123456789"));
}

TEST_F(ServiceLoop, WepKeysOfFiveAndTenCharacters) {
    start();
    EXPECT_EQ(connect(ap("old", WIFI_SECURITY_WEP, "12345")), WIFI_CONNECT_STATUS_SUCCESS);
    std::vector<std::string> got = commands_from("SET_NETWORK 0 priority 1");
    EXPECT_EQ(std::vector<std::string>(got.begin(), got.begin() + 7),
              (std::vector<std::string>{"SET_NETWORK 0 priority 1", "SET_NETWORK 0 auth_alg OPEN",
                                        "SET_NETWORK 0 key_mgmt NONE", "SET_NETWORK 0 mode 0",
                                        "SET_NETWORK 0 wep_key0 \"12345\"",
                                        "SET_NETWORK 0 wep_tx_keyidx 0", "DISABLE_NETWORK 0"}));
    connect(ap("old", WIFI_SECURITY_WEP, "0123456789"));
    EXPECT_TRUE(has(sim_commands(), "SET_NETWORK 0 wep_key0 0123456789"));
}

TEST_F(ServiceLoop, NegativePriorityBecomesZeroButOneIsSent) {
    start();
    wifi_ap_info a = ap("cafe", WIFI_SECURITY_NONE, "", -3);
    wifim_test::clear_sim_commands();
    auto* job = wpacm_new_job(data, JobID_ConnectAP, &a, "", 40000, true);
    wifi_ap_info out;
    EXPECT_EQ(wpacm_wait_job(data, job, &out), WIFI_CONNECT_STATUS_SUCCESS);
    EXPECT_EQ(out.priority, 0);
    EXPECT_EQ(out.bssid, "00:11:22:33:44:66");
    EXPECT_EQ(out.network_id, 0);
    EXPECT_TRUE(has(sim_commands(), "SET_NETWORK 0 priority 1"));
}

TEST_F(ServiceLoop, SecurityWithoutARowFailsAndEmptiesTheNetworks) {
    start();
    EXPECT_EQ(connect(ap("cafe", WIFI_SECURITY_WPA2_EAP_TKIP_AES, "x")), WIFI_CONNECT_STATUS_FAIL);
    EXPECT_EQ(wifim_test::log_lines_with("], Can't update network id:0,ssid:cafe").size(), 1u);
    EXPECT_EQ(wifim_test::wpa_cli(sim, {"LIST_NETWORKS"}), "network id / ssid / bssid / flags\n");
}

TEST_F(ServiceLoop, SsidNotInTheScanListStillConnects) {
    start();
    sim_control(sim, "AP 00:11:22:33:44:99 2412 -50 [ESS] ssid=late");
    EXPECT_EQ(connect(ap("late", WIFI_SECURITY_NONE)), WIFI_CONNECT_STATUS_SUCCESS);
    auto lines = wifim_test::log_lines_with("], add network id:0 for connect to SSID:late, BSSID:");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].substr(lines[0].size() - 17), "SSID:late, BSSID:");
}

TEST_F(ServiceLoop, HandshakeFailureDoesNotEndTheWait) {
    start();
    wifi_ap_info a = ap("nowhere", WIFI_SECURITY_NONE);
    auto* job = wpacm_new_job(data, JobID_ConnectAP, &a, "", 3000, true);
    usleep(1200000);
    sim_control(sim, "EVENT WPA: 4-Way Handshake failed - pre-shared key may be incorrect");
    long start_ms = wifim_test::now_ms();
    EXPECT_EQ(wpacm_wait_job(data, job, nullptr), WIFI_CONNECT_STATUS_ASSOC_REJECT);
    EXPECT_GE(wifim_test::now_ms() - start_ms, 1000);  // ran on to its deadline
}

TEST_F(ServiceLoop, ConnectedEventWithAnotherStateIsAFailure) {
    start();
    wifi_ap_info a = ap("nowhere", WIFI_SECURITY_NONE);
    auto* job = wpacm_new_job(data, JobID_ConnectAP, &a, "", 10000, true);
    usleep(1000000);
    sim_control(
        sim,
        "EVENT CTRL-EVENT-CONNECTED - Connection to 00:11:22:33:44:55 completed [id=0 id_str=]");
    EXPECT_EQ(wpacm_wait_job(data, job, nullptr), WIFI_CONNECT_STATUS_FAIL);
    EXPECT_EQ(
        wifim_test::log_lines_with("], already connected, but status of wpa_supplicant is not "
                                   "match, status: 5 / SCANNING")
            .size(),
        1u);
    EXPECT_EQ(wifim_test::wpa_cli(sim, {"LIST_NETWORKS"}), "network id / ssid / bssid / flags\n");
}

TEST_F(ServiceLoop, NormalConnectGivesWayToAHighPriorityJob) {
    start();
    wifi_ap_info a = ap("nowhere", WIFI_SECURITY_NONE);
    auto* normal = wpacm_new_job(data, JobID_ConnectAP, &a, "", 40000, false);
    usleep(1000000);
    long start_ms = wifim_test::now_ms();
    auto* high = wpacm_new_job(data, JobID_GetStatus, nullptr, "", 5000, true);
    EXPECT_EQ(wpacm_wait_job(data, normal, nullptr), WIFI_CONNECT_STATUS_EXPIRE);
    EXPECT_EQ(wpacm_wait_job(data, high, nullptr), WIFI_CONNECT_STATUS_SUCCESS);
    EXPECT_LT(wifim_test::now_ms() - start_ms, 5000);
}

TEST_F(ServiceLoop, HighPriorityDisconnectEndsAWaitingScan) {
    // Scan results take 20 s: the loop's first scan job is still waiting.
    start("", std::string(kWorld) + "scan_delay_ms 20000\n");
    usleep(500000);
    long start_ms = wifim_test::now_ms();
    auto* disconnect = wpacm_new_job(data, JobID_Disconnect, nullptr, "", 10000, true);
    EXPECT_EQ(wpacm_wait_job(data, disconnect, nullptr), WIFI_CONNECT_STATUS_SUCCESS);
    EXPECT_LT(wifim_test::now_ms() - start_ms, 4000);
    EXPECT_EQ(wifim_test::log_lines_with(
                  "], updated result, index:1, priority:normal, Job ID:1, result:1, time out:")
                  .size(),
              1u);
}

TEST_F(ServiceLoop, PinJobWithEmptyPinSendsTheBareCommand) {
    start();
    wifim_test::clear_sim_commands();
    auto* job = wpacm_new_job(data, JobID_WPS_PIN, nullptr, "", 2000, true);
    wpacm_wait_job(data, job, nullptr);
    EXPECT_TRUE(has(sim_commands(), "WPS_PIN any "));
    EXPECT_FALSE(has(sim_commands(), "WPS_PBC any"));
}

TEST_F(ServiceLoop, WpsOverlapEndsAtOnceAndRemovesTheNetworks) {
    start("", std::string(kWorld) + "ap 00:11:22:33:44:98 2412 -50 [ESS] wps=pbc ssid=second\n");
    wifi_ap_info out;
    long start_ms = wifim_test::now_ms();
    EXPECT_EQ(wpacm_wps(data, "", &out), WIFI_CONNECT_STATUS_WPS_OVERLAP);
    EXPECT_LT(wifim_test::now_ms() - start_ms, 5000);
    EXPECT_EQ(wifim_test::wpa_cli(sim, {"LIST_NETWORKS"}), "network id / ssid / bssid / flags\n");
    EXPECT_EQ(out.ssid, "");
}

TEST_F(ServiceLoop, ConnectedEventAloneDoesNotEndTheWpsWait) {
    start("", std::string(kWorld) + "wps_delay_ms 10000\n");
    auto* job = wpacm_new_job(data, JobID_WPS_PBC, nullptr, "", 3000, true);
    usleep(1500000);
    sim_control(
        sim,
        "EVENT CTRL-EVENT-CONNECTED - Connection to 00:11:22:33:44:55 completed [id=0 id_str=]");
    EXPECT_EQ(wpacm_wait_job(data, job, nullptr), WIFI_CONNECT_STATUS_CONNECTED);
    EXPECT_EQ(wifim_test::log_lines_with("], Connected by WPS success, but can't read profile from "
                                         "config file, status:5")
                  .size(),
              1u);
}

TEST_F(ServiceLoop, WpsSuccessReadsTheSavedProfileBack) {
    start();
    wifi_ap_info out;
    EXPECT_EQ(wpacm_wps(data, "", &out), WIFI_CONNECT_STATUS_SUCCESS);
    EXPECT_EQ(out.ssid, "home");
    EXPECT_EQ(out.security, WIFI_SECURITY_WPA2_PSK_AES);
    EXPECT_EQ(out.password, "secret123");
    EXPECT_TRUE(out.ascii_key);
    // The station left the association of the exchange after WPS-SUCCESS
    // (a disconnection of its own, reason 3): once the loop reads that
    // event, the marker made on success goes with it, although the station
    // has joined again with the credential.
    EXPECT_TRUE(wifim_test::wait_until(
        [] {
            return !wifim_test::log_lines_with(
                        "data:CTRL-EVENT-DISCONNECTED bssid=00:11:22:33:44:55 "
                        "reason=3 locally_generated=1")
                        .empty();
        },
        10000));
    EXPECT_TRUE(wifim_test::wait_until(
        [] { return !wifim_test::file_exists("/tmp/wifista_connected"); }, 10000));
    EXPECT_EQ(sim_control(sim, "STATE"), "COMPLETED\n");
    for (const char* line :
         {"], Connected by WPS success, reading config file....",
          "], Connected by WPS success, readed config file....",
          "], Connected by WPS success, ssid:home, security:11, password:secret123"}) {
        auto lines = wifim_test::log_lines_with(line);
        ASSERT_EQ(lines.size(), 1u) << line;
        EXPECT_NE(lines[0].find(",ERROR,"), std::string::npos);
    }
}

// The real station drops its WPS association after WPS-SUCCESS and joins
// again with the credential. A connected hook that returns before that finds
// the station not yet "COMPLETED": the run counts as unsuccessful, its
// networks are removed and nothing is read back, yet the job is posted as a
// success (the loop posts SUCCESS for WPS_SUCCESS).
TEST_F(ServiceLoop, WpsSuccessBeforeTheStationHasRejoinedReadsNothingBack) {
    start("", std::string(kWorld) + "wps_reassoc_ms 5000\n");
    wifim_test::clear_sim_commands();
    wifi_ap_info out;
    EXPECT_EQ(wpacm_wps(data, "", &out), WIFI_CONNECT_STATUS_SUCCESS);
    EXPECT_EQ(out.ssid, "");
    EXPECT_EQ(out.security, WIFI_SECURITY_UNKNOWN);
    EXPECT_EQ(wifim_test::log_lines_with("], Connected by WPS success, but can't read profile from "
                                         "config file, status:11")
                  .size(),
              1u);
    EXPECT_TRUE(wifim_test::log_lines_with("], Connected by WPS success, reading config").empty());
    EXPECT_TRUE(has(commands_from("WPS_PBC any"), "LIST_NETWORKS"));
    EXPECT_FALSE(wifim_test::file_exists("/tmp/wifista_connected"));
}

TEST_F(ServiceLoop, TwoSavedNetworksAreNotOneProfile) {
    start();
    sim_control(sim,
                "AP 00:11:22:33:44:88 2412 -50 [WPA2-PSK-CCMP][ESS] key=secret123 "
                "wps=12345670 ssid=pinned");
    sim_control(sim, "FAULT SAVE_CONFIG FAIL");
    wifim_test::write_file(
        sim.config,
        "ctrl_interface=/tmp/wpa_ctrl\nnetwork={\n\tssid=\"a\"\n\tkey_mgmt=NONE\n"
        "\tproto=WPA\n\tpairwise=NONE\n}\nnetwork={\n\tssid=\"b\"\n"
        "\tkey_mgmt=NONE\n\tproto=WPA\n\tpairwise=NONE\n}\n");
    wifim_test::clear_sim_commands();
    wifi_ap_info out;
    EXPECT_EQ(wpacm_wps(data, "12345670", &out), WIFI_CONNECT_STATUS_FAIL);
    EXPECT_TRUE(has(sim_commands(), "WPS_PIN any 12345670"));
    std::vector<std::string> tail = commands_from("SAVE_CONFIG");
    EXPECT_TRUE(has(tail, "DISCONNECT"));
    EXPECT_EQ(wifim_test::log_lines_with(
                  "], Connected by WPS success, but can't read profile from config file")
                  .size(),
              1u);
}

TEST_F(ServiceLoop, StationSwitchedOffFailsEveryJob) {
    start();
    wpacm_set_enable(data, false);
    EXPECT_NE(wifim_test::read_file("/www/nvram.wifista").find("wifi_station_enable = false"),
              std::string::npos);
    long start_ms = wifim_test::now_ms();
    auto* job = wpacm_new_job(data, JobID_GetStatus, nullptr, "", 5000, true);
    EXPECT_EQ(wpacm_wait_job(data, job, nullptr), WIFI_CONNECT_STATUS_FAIL);
    EXPECT_LT(wifim_test::now_ms() - start_ms, 2500);
    EXPECT_TRUE(wifim_test::wait_until(
        [this] { return data->next_scan_clock == 0 && data->next_connect_clock == 0; }, 60000));
}

TEST_F(ServiceLoop, SettingTheSameSwitchDoesNothing) {
    start();
    unlink("/www/nvram.wifista");
    auto* pending = wpacm_new_job(data, JobID_Nothing, nullptr, "", 5000, false);
    wpacm_set_enable(data, true);
    EXPECT_FALSE(wifim_test::file_exists("/www/nvram.wifista"));
    EXPECT_EQ(wpacm_wait_job(data, pending, nullptr), WIFI_CONNECT_STATUS_SUCCESS);
}

TEST_F(ServiceLoop, StartWhileConnectedKeepsTheNetworks) {
    start("", kWorld, false);
    for (auto c : std::vector<std::vector<std::string>>{{"ADD_NETWORK"},
                                                        {"SET_NETWORK", "0", "ssid", "\"cafe\""},
                                                        {"SET_NETWORK", "0", "key_mgmt", "NONE"},
                                                        {"ENABLE_NETWORK", "0"}}) {
        wifim_test::wpa_cli(sim, c);
    }
    ASSERT_TRUE(wifim_test::wait_until(
        [this] { return sim_control(sim, "STATE") == "COMPLETED\n"; }, 60000));
    unlink("/tmp/wifista_connected");
    wifim_test::clear_sim_commands();
    loop = std::thread([this] { wpacm_service(data); });
    ASSERT_TRUE(wifim_test::wait_until([] { return has(sim_commands(), "SCAN_RESULTS"); }, 60000));
    EXPECT_TRUE(wifim_test::file_exists("/tmp/wifista_connected"));
    EXPECT_FALSE(has(sim_commands(), "LIST_NETWORKS"));
    EXPECT_FALSE(has(sim_commands(), "REMOVE_NETWORK 0"));
    EXPECT_EQ(data->next_connect_clock, 0);
}

TEST_F(ServiceLoop, DisconnectWhenNotConnectedPostsNothing) {
    start();
    wifim_test::clear_sim_commands();
    EXPECT_FALSE(wpacm_disconnect(data));
    EXPECT_FALSE(has(sim_commands(), "DISCONNECT"));
}

TEST_F(ServiceLoop, DisconnectDemotesTheProfile) {
    start();
    wifi_ap_info cafe = ap("cafe", WIFI_SECURITY_NONE);
    ASSERT_EQ(wpacm_connect_to_ap(data, &cafe), WIFI_CONNECT_STATUS_SUCCESS);
    wpacm_update_wifi_profile(data, &cafe, true);
    // The loop learns of the connection at its next scan.
    ASSERT_TRUE(wifim_test::wait_until(
        [this] {
            std::string ssid, bssid;
            return wpacm_get_connected_ssid(data, ssid, bssid) && ssid == "cafe";
        },
        60000));
    EXPECT_TRUE(wpacm_disconnect(data));
    std::vector<wifi_ap_info> list;
    wpacm_get_register_profile(data, list);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].priority, -1);
    EXPECT_NE(wifim_test::read_file("/www/nvram.wifista").find("priority_1 = -1"),
              std::string::npos);
}

TEST_F(ServiceLoop, AfterAClientsFailedConnectTheStationReturnsToItsNetworkOnItsOwn) {
    start(
        "ssid_1 = home\nsecurity_1 = wpa2\npasswd_1 = secret123\npasswd_encode_1 = ascii\n"
        "priority_1 = 1\n");
    // Once home's one access point is in the scan list, the attempt uses it.
    ASSERT_TRUE(wifim_test::wait_until(
        [this] {
            std::vector<wifi_ap_info> seen;
            wpacm_get_wifi_ap_list(data, seen);
            return std::any_of(seen.begin(), seen.end(),
                               [](const wifi_ap_info& a) { return a.ssid == "home"; });
        },
        60000));
    // A key that wpa_supplicant refuses.
    EXPECT_EQ(connect(ap("home", WIFI_SECURITY_ANY_WPA, "wrongk1")), WIFI_CONNECT_STATUS_FAIL);
    ASSERT_EQ(wifim_test::log_lines_with(
                  "], add network id:0 for connect to SSID:home, BSSID:00:11:22:33:44:55")
                  .size(),
              1u);
    // The automatic connection comes 5 s after the failed attempt, after a
    // scan, and passes over no access point.
    ASSERT_TRUE(wifim_test::wait_until(
        [this] {
            return wifim_test::file_exists("/tmp/wifista_connected") &&
                   sim_control(sim, "STATE") == "COMPLETED\n";
        },
        60000));
    auto tries = wifim_test::log_lines_with("], Try to connect to SSID : home, network id:-1");
    ASSERT_EQ(tries.size(), 1u);
    EXPECT_EQ(tries[0].substr(tries[0].size() - 13), ", skip bssid:") << tries[0];
}

TEST_F(ServiceLoop, RemovingAnUnregisteredConnectedSsidStillDisconnects) {
    start();
    wifi_ap_info cafe = ap("cafe", WIFI_SECURITY_NONE);
    ASSERT_EQ(wpacm_connect_to_ap(data, &cafe), WIFI_CONNECT_STATUS_SUCCESS);
    wifim_test::clear_sim_commands();
    unlink("/www/nvram.wifista");
    EXPECT_TRUE(wpacm_remove_ssid(data, "cafe", WIFI_SECURITY_NONE));
    // The disconnect job runs although no profile was removed; it leaves
    // wpa_supplicant without networks and the station unmarked.
    EXPECT_TRUE(
        wifim_test::wait_until([] { return has(sim_commands(), "REMOVE_NETWORK 0"); }, 60000));
    EXPECT_TRUE(wifim_test::wait_until(
        [] { return !wifim_test::file_exists("/tmp/wifista_connected"); }, 60000));
    EXPECT_FALSE(wifim_test::file_exists("/www/nvram.wifista"));
    EXPECT_TRUE(wpacm_remove_ssid(data, "never", WIFI_SECURITY_NONE));
}

// Profile list operations, without the loop.
class Profiles : public ServiceLoop {
  protected:
    void SetUp() override {
        start(
            "ssid_1 = a\nsecurity_1 = wpa2\npasswd_1 = k1\npasswd_encode_1 = ascii\npriority_1 = "
            "1\n"
            "ssid_2 = b\nsecurity_2 = wpa2\npasswd_2 = k2\npasswd_encode_2 = ascii\npriority_2 = "
            "2\n"
            "ssid_3 = c\nsecurity_3 = wpa2\npasswd_3 = k3\npasswd_encode_3 = ascii\npriority_3 = "
            "3\n",
            kWorld, false);
    }
    std::vector<std::string> order() {
        std::vector<wifi_ap_info> list;
        wpacm_get_register_profile(data, list);
        std::vector<std::string> out;
        for (const auto& p : list) {
            out.push_back(p.ssid + ":" + std::to_string(p.priority));
        }
        return out;
    }
};

TEST_F(Profiles, NewProfileOfPriorityTwoMakesRoom) {
    wifi_ap_info n = ap("new", WIFI_SECURITY_ANY_WPA, "secret123", 2);
    wpacm_update_wifi_profile(data, &n, true);
    EXPECT_EQ(order(), (std::vector<std::string>{"a:1", "new:2", "b:3", "c:4"}));
    EXPECT_NE(wifim_test::read_file("/www/nvram.wifista").find("ssid_2 = new\n"),
              std::string::npos);
}

TEST_F(Profiles, UnknownProfileWithoutAppendChangesNothing) {
    std::string before = wifim_test::read_file("/www/nvram.wifista");
    wifi_ap_info n = ap("new", WIFI_SECURITY_ANY_WPA, "secret123", 1);
    wpacm_update_wifi_profile(data, &n, false);
    EXPECT_EQ(order(), (std::vector<std::string>{"a:1", "b:2", "c:3"}));
    EXPECT_EQ(wifim_test::read_file("/www/nvram.wifista"), before);
}

TEST_F(Profiles, AppendingBeyondTheBoundDropsTheLast) {
    data->max_bound_wifiap_info = 3;
    wifi_ap_info n = ap("new", WIFI_SECURITY_ANY_WPA, "secret123", 1);
    wpacm_update_wifi_profile(data, &n, true);
    EXPECT_EQ(order(), (std::vector<std::string>{"new:1", "a:2", "b:3"}));
}

TEST_F(Profiles, AutomaticChoiceSkipsPriorityZeroAndTheLastBssid) {
    std::map<std::string, wifi_scan_ap_info>& scan = data->scan_result.scan_result_list;
    auto seen = [&](const std::string& ssid, const std::string& bssid) {
        wifi_scan_ap_info e;
        e.ap_info = ap(ssid, WIFI_SECURITY_WPA2_PSK_AES);
        e.ap_info.bssid = bssid;
        e.in_scan_result = true;
        e.timeout_ms = e.mini_alive_ms = wpacm_clock_ms() + 45000;
        e.not_in_range_count = 0;
        scan[wpacm_scan_key(e.ap_info)] = e;
    };
    seen("a", "aa:aa:aa:aa:aa:aa");
    seen("b", "bb:bb:bb:bb:bb:bb");
    wpacm_loop_state loop_state;
    loop_state.data = data;
    clear_wifi_ap_info(&loop_state.candidate);
    loop_state.no_profile_count = 0;
    loop_state.last_bssid = "";
    EXPECT_EQ(wpacm_choose_profile(&loop_state), 0);
    EXPECT_EQ(loop_state.candidate.ssid, "a");
    loop_state.last_bssid = "aa:aa:aa:aa:aa:aa";
    EXPECT_EQ(wpacm_choose_profile(&loop_state), 0);
    EXPECT_EQ(loop_state.candidate.ssid, "b");
    EXPECT_EQ(wifim_test::log_lines_with(
                  "], Try to connect to SSID : b, network id:-1, skip bssid:aa:aa:aa:aa:aa:aa")
                  .size(),
              1u);
    // Priority 0 takes no part in the automatic choice.
    data->registed_ap_info.registed_ap_info_vector[1].priority = 0;
    data->registed_ap_info.registed_ap_info_vector[0].priority = 0;
    clear_wifi_ap_info(&loop_state.candidate);
    loop_state.last_bssid = "";
    EXPECT_EQ(wpacm_choose_profile(&loop_state), -2);
}

// Only a client's attempt that did not connect leaves nothing to pass over;
// an automatic attempt, failed or not, and a client's success leave their
// access point.
TEST(PassedOverAccessPoint, OnlyAClientsFailedAttemptLeavesNone) {
    wpacm_job_data_struct job;
    clear_wifi_ap_info(&job.ap_info);
    job.ap_info.bssid = "00:11:22:33:44:55";
    job.high_priority = true;
    EXPECT_EQ(wpacm_bssid_to_pass_over(job, WIFI_CONNECT_STATUS_CONNECTED), "00:11:22:33:44:55");
    EXPECT_EQ(wpacm_bssid_to_pass_over(job, WIFI_CONNECT_STATUS_EXPIRE), "");
    EXPECT_EQ(wpacm_bssid_to_pass_over(job, WIFI_CONNECT_STATUS_ASSOC_REJECT), "");
    EXPECT_EQ(wpacm_bssid_to_pass_over(job, WIFI_CONNECT_STATUS_FAIL), "");
    job.high_priority = false;
    EXPECT_EQ(wpacm_bssid_to_pass_over(job, WIFI_CONNECT_STATUS_CONNECTED), "00:11:22:33:44:55");
    EXPECT_EQ(wpacm_bssid_to_pass_over(job, WIFI_CONNECT_STATUS_EXPIRE), "00:11:22:33:44:55");
    EXPECT_EQ(wpacm_bssid_to_pass_over(job, WIFI_CONNECT_STATUS_FAIL), "00:11:22:33:44:55");
}

TEST_F(Profiles, NoProfileBacksOffThirtySecondsSixTimesThenSixty) {
    data->registed_ap_info.registed_ap_info_vector.clear();
    wpacm_loop_state loop_state;
    loop_state.data = data;
    clear_wifi_ap_info(&loop_state.candidate);
    loop_state.no_profile_count = 0;
    for (int attempt = 1; attempt <= 8; attempt++) {
        int64_t now = wpacm_clock_ms();
        wpacm_auto_connect(&loop_state);
        int64_t delay = data->next_connect_clock - now;
        int64_t expected = attempt <= 6 ? 30000 : 60000;
        EXPECT_GE(delay, expected) << attempt;
        EXPECT_LE(delay, expected + 5000) << attempt;  // room for a loaded machine
    }
    auto lines =
        wifim_test::log_lines_with("], No any available WiFi profile, lsat bssid:, ret:-2");
    EXPECT_EQ(lines.size(), 8u);
    EXPECT_EQ(wifim_test::log_lines_with("], Registed WiFi AP list is empty!!").size(), 8u);
}

TEST(WpsConfigReader, KeysAndKeyManagementWords) {
    auto profiles = wpacm_read_wpa_config_profiles(
        "ctrl_interface=/run\nnetwork={\n\tssid=\"q\"\n\tpsk=\"pass phrase\"\n\tproto=RSN\n"
        "\tkey_mgmt=WPA-PSK\n\tpairwise=CCMP\n}\n"
        "network={\n\tssid=\"hex\"\n\tpsk=" +
        std::string(64, 'f') +
        "\n\tproto=WPA\n\tkey_mgmt=WPA-PSK\n\tpairwise=TKIP\n}\n"
        "network={\n\tssid=\"two\"\n\tpsk=\"x\"\n\tproto=RSN\n\tkey_mgmt=WPA-PSK WPA-EAP\n"
        "\tpairwise=CCMP TKIP\n}\n"
        "network={\n}\n");
    ASSERT_EQ(profiles.size(), 2u);
    EXPECT_EQ(profiles[0].ssid, "q");
    EXPECT_EQ(profiles[0].password, "passphrase");
    EXPECT_TRUE(profiles[0].ascii_key);
    EXPECT_EQ(profiles[0].security, WIFI_SECURITY_WPA2_PSK_AES);
    EXPECT_EQ(profiles[1].password, std::string(64, 'f'));
    EXPECT_FALSE(profiles[1].ascii_key);
    EXPECT_EQ(profiles[1].security, WIFI_SECURITY_WPA_PSK_TKIP);
}

// The block wpa_supplicant 2.10 writes for a WPS credential on a driver
// that offers GCMP and the 256-bit ciphers.
static const char* kCurrentWpsBlock =
    "ctrl_interface=/run/wpa_supplicant\nupdate_config=1\n\nnetwork={\n"
    "\tssid=\"hwsim-wpa2\"\n\tpsk=\"correct-horse-battery\"\n\tproto=RSN\n"
    "\tkey_mgmt=WPA-PSK\n\tpairwise=CCMP-256 GCMP-256 CCMP GCMP\n"
    "\tgroup=CCMP-256 GCMP-256 CCMP GCMP TKIP\n\tauth_alg=OPEN\n\tmesh_fwding=1\n"
    "\tpbss=2\n}\n";

TEST(WpsConfigReader, CurrentWpaSupplicantCredentialIsWpa2Aes) {
    auto profiles = wpacm_read_wpa_config_profiles(kCurrentWpsBlock);
    ASSERT_EQ(profiles.size(), 1u);
    EXPECT_EQ(profiles[0].ssid, "hwsim-wpa2");
    EXPECT_EQ(profiles[0].security, WIFI_SECURITY_WPA2_PSK_AES);
    EXPECT_EQ(profiles[0].password, "correct-horse-battery");
    EXPECT_TRUE(profiles[0].ascii_key);
}

// A block the table does not know is read from its own words: the
// protocol and the cipher kinds of the pairwise list.
static WiFi_Security security_of_block(const std::string& lines) {
    auto profiles =
        wpacm_read_wpa_config_profiles("network={\n\tssid=\"n\"\n\tpsk=\"k\"\n" + lines + "}\n");
    return profiles.size() == 1 ? profiles[0].security : WIFI_SECURITY_UNKNOWN;
}

TEST(WpsConfigReader, UnknownBlocksAreReadFromTheirOwnWords) {
    const std::string psk = "\tkey_mgmt=WPA-PSK\n";
    EXPECT_EQ(security_of_block(psk + "\tproto=RSN\n\tpairwise=GCMP-256 CCMP\n"),
              WIFI_SECURITY_WPA2_PSK_AES);
    EXPECT_EQ(security_of_block(psk + "\tproto=WPA\n\tpairwise=CCMP-256 GCMP\n"),
              WIFI_SECURITY_WPA_PSK_AES);
    EXPECT_EQ(security_of_block(psk + "\tproto=RSN\n\tpairwise=CCMP TKIP\n"),
              WIFI_SECURITY_WPA2_PSK_TKIP_AES);
    EXPECT_EQ(security_of_block(psk + "\tproto=WPA\n\tpairwise=TKIP GCMP\n"),
              WIFI_SECURITY_WPA_PSK_TKIP_AES);
    EXPECT_EQ(security_of_block(psk + "\tproto=RSN\n\tpairwise=TKIP \n"),
              WIFI_SECURITY_WPA2_PSK_TKIP);
    EXPECT_EQ(security_of_block(psk + "\tproto=WPA\n\tpairwise=TKIP\n"),
              WIFI_SECURITY_WPA_PSK_TKIP);
}

TEST(WpsConfigReader, WordsThatNameNoKindDropTheBlock) {
    const std::string psk = "\tkey_mgmt=WPA-PSK\n";
    // Neither protocol alone, or none given.
    EXPECT_EQ(security_of_block(psk + "\tproto=WPA RSN\n\tpairwise=CCMP\n"), WIFI_SECURITY_UNKNOWN);
    EXPECT_EQ(security_of_block(psk + "\tpairwise=CCMP\n"), WIFI_SECURITY_UNKNOWN);
    // A cipher of no known kind, or no cipher at all.
    EXPECT_EQ(security_of_block(psk + "\tproto=RSN\n\tpairwise=CCMP NONE\n"),
              WIFI_SECURITY_UNKNOWN);
    EXPECT_EQ(security_of_block(psk + "\tproto=RSN\n"), WIFI_SECURITY_UNKNOWN);
    // Key management other than exactly WPA-PSK.
    EXPECT_EQ(security_of_block("\tkey_mgmt=WPA-PSK SAE\n\tproto=RSN\n\tpairwise=CCMP\n"),
              WIFI_SECURITY_UNKNOWN);
    EXPECT_EQ(security_of_block("\tkey_mgmt=SAE\n\tproto=RSN\n\tpairwise=CCMP\n"),
              WIFI_SECURITY_UNKNOWN);
}

TEST(WpsConfigReader, OpenBlockWithoutWepKeyIsNoneAndWithOneIsDropped) {
    auto profiles = wpacm_read_wpa_config_profiles(
        "network={\n\tssid=\"cafe\"\n\tkey_mgmt=NONE\n}\n"
        "network={\n\tssid=\"old\"\n\tkey_mgmt=NONE\n\twep_key0=\"abcde\"\n}\n");
    ASSERT_EQ(profiles.size(), 1u);
    EXPECT_EQ(profiles[0].ssid, "cafe");
    EXPECT_EQ(profiles[0].security, WIFI_SECURITY_NONE);
    EXPECT_EQ(profiles[0].password, "");
    EXPECT_TRUE(profiles[0].ascii_key);
}

TEST(WpsConfigReader, TableRowsComeFirst) {
    // Row 0 (open, protocol WPA) and row 1 (WEP) match as the table says,
    // before the block's own words are looked at.
    auto profiles = wpacm_read_wpa_config_profiles(
        "network={\n\tssid=\"o\"\n\tkey_mgmt=NONE\n\tproto=WPA\n\tpairwise=NONE\n"
        "\twep_key0=\"abcde\"\n}\n"
        "network={\n\tssid=\"w\"\n\tkey_mgmt=NONE\n\tpairwise=NONE\n\twep_key0=0102030405\n}\n");
    ASSERT_EQ(profiles.size(), 2u);
    EXPECT_EQ(profiles[0].security, WIFI_SECURITY_NONE);
    EXPECT_EQ(profiles[1].security, WIFI_SECURITY_WEP);
    EXPECT_EQ(profiles[1].password, "0102030405");
    EXPECT_FALSE(profiles[1].ascii_key);
}

TEST(WpsConfigReader, TwoUsableBlocksStayTwoAndTwoKeyManagementsStayDropped) {
    std::string text = kCurrentWpsBlock;
    text += "network={\n\tssid=\"second\"\n\tkey_mgmt=NONE\n}\n";
    EXPECT_EQ(wpacm_read_wpa_config_profiles(text).size(), 2u);
    // Two key managements: the stripped words match no row, and the block's
    // own words name no kind.
    EXPECT_EQ(security_of_block("\tkey_mgmt=WPA-PSK WPA-EAP\n\tproto=RSN\n\tpairwise=CCMP\n"),
              WIFI_SECURITY_UNKNOWN);
}

TEST(WpsPin, CheckDigitOfTheWpsPin) {
    EXPECT_EQ(wpacm_wps_pin_from_value(12345670), "23456709");
    EXPECT_EQ(wpacm_wps_pin_from_value(0), "00000000");
    EXPECT_EQ(wpacm_wps_pin_from_value(1234567), "12345670");
    std::string pin = wpacm_get_wps_pin(nullptr);
    ASSERT_EQ(pin.size(), 8u);
    EXPECT_EQ(pin.find_first_not_of("0123456789"), std::string::npos);
    EXPECT_EQ(wpacm_wps_pin_from_value(static_cast<uint32_t>(std::stoul(pin.substr(0, 7)))), pin);
}

// wpa_supplicant saves an SSID of printable ASCII quoted and any other as
// bare hexadecimal; it also reads P"escaped" text.
TEST(WpsConfigReader, HexAndEscapedSsidsAreDecoded) {
    auto profiles = wpacm_read_wpa_config_profiles(
        "network={\n\tssid=436166c3a9\n\tkey_mgmt=NONE\n}\n"
        "network={\n\tssid=P\"\\xe4\\xb8\\xad \\\"q\\\"\"\n\tkey_mgmt=NONE\n}\n"
        "network={\n\tssid=\"a\"b\\c\"\n\tkey_mgmt=NONE\n}\n"
        "network={\n\tssid=436166e9\n\tkey_mgmt=NONE\n}\n");
    ASSERT_EQ(profiles.size(), 4u);
    EXPECT_EQ(profiles[0].ssid, "Caf\xc3\xa9");
    EXPECT_EQ(profiles[1].ssid, "\xe4\xb8\xad\"q\"");
    EXPECT_EQ(profiles[2].ssid, "a\"b\\c");
    EXPECT_EQ(profiles[3].ssid, "P\"Caf\\xe9\"");
}

// A name of printable ASCII without quote or backslash is sent quoted as
// ever; any other in hexadecimal, which wpa_supplicant takes byte for byte.
TEST_F(ServiceLoop, SsidsThatAreNotPlainAsciiAreSentInHexadecimal) {
    start("", std::string(kWorld) +
                  "ap 00:11:22:33:44:88 2412 -50 [ESS] key=- wps=- ssid=Caf\xc3\xa9\n"
                  "ap 00:11:22:33:44:99 2412 -50 [ESS] key=- wps=- ssid=Caf\xe9\n"
                  "ap 00:11:22:33:44:aa 2412 -50 [ESS] key=- wps=- ssid=a\"b\\c\n");
    const char* cases[][2] = {
        {"cafe", "SET_NETWORK 0 ssid \"cafe\""},
        {"Caf\xc3\xa9", "SET_NETWORK 0 ssid 436166c3a9"},
        {"P\"Caf\\xe9\"", "SET_NETWORK 0 ssid 436166e9"},
        {"a\"b\\c", "SET_NETWORK 0 ssid 6122625c63"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(connect(ap(c[0], WIFI_SECURITY_NONE)), WIFI_CONNECT_STATUS_SUCCESS) << c[0];
        EXPECT_TRUE(has(sim_commands(), c[1])) << c[0];
    }
}
