// The controller's start-up, events, STATUS and scan list against the
// wpa_supplicant simulator, through the real control library.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <wpa_ctrl.h>

#include <regex>
#include <thread>

#include "test_support.h"
#include "wpa_peer.h"
#include "wpacli_monitor/wpacm_internal.h"

using wifim_test::read_file;
using wifim_test::sim_control;
using wifim_test::wpa_peer;

static const char* kWorld =
    "scan_delay_ms 50\n"
    "connect_delay_ms 30\n"
    "ap 00:11:22:33:44:55 2437 -65 [WPA2-PSK-CCMP][WPS][ESS] key=secret123 wps=pbc ssid=home  net\n"
    "ap 00:11:22:33:44:56 2412 -40 [ESS] key=- wps=- ssid=\n"
    "ap 00:11:22:33:44:57 2462 -90 [WEP][ESS] key=12345 wps=- ssid=old\n";

class ControllerWithPeer : public ::testing::Test {
  protected:
    void SetUp() override {
        unlink("/tmp/wifi_manager.log");
        wifim_test::install_recording_scripts();
        ASSERT_TRUE(wifim_test::start_simulator(&sim, kWorld));
        data = static_cast<wpacli_monitor_data*>(wpacm_init(sim.config, "wlan0", 10));
        ASSERT_NE(data, nullptr);
        events = wpa_ctrl_open(data->wpa_socket_file.c_str());
        commands = wpa_ctrl_open(data->wpa_socket_file.c_str());
        ASSERT_NE(events, nullptr);
        ASSERT_NE(commands, nullptr);
        ASSERT_EQ(wpa_ctrl_attach(events), 0);
        ASSERT_EQ(pipe(g_ping_pipe_fd), 0);
    }
    void TearDown() override {
        wpa_ctrl_close(events);
        wpa_ctrl_close(commands);
        wpacm_close(data);
        wifim_test::stop_wpa_peer(&sim);
        close(g_ping_pipe_fd[0]);
        close(g_ping_pipe_fd[1]);
        g_ping_pipe_fd[0] = g_ping_pipe_fd[1] = -1;
    }
    WiFi_Connection_Status event_after(const std::string& text) {
        EXPECT_EQ(sim_control(sim, "EVENT " + text), "OK\n");
        return wpacm_receive_wpa_supplicant_event(data, events, 1000);
    }
    std::vector<int> pings() {
        std::vector<int> out;
        int value;
        fcntl(g_ping_pipe_fd[0], F_SETFL, O_NONBLOCK);
        while (read(g_ping_pipe_fd[0], &value, sizeof(value)) == 4) {
            out.push_back(value);
        }
        return out;
    }
    wpa_peer sim;
    wpacli_monitor_data* data = nullptr;
    struct wpa_ctrl* events = nullptr;
    struct wpa_ctrl* commands = nullptr;
};

TEST(ControllerStart, MissingConfigurationGivesNoControllerAndOneLogLine) {
    unlink("/tmp/wifi_manager.log");
    EXPECT_EQ(wpacm_init("/tmp/no-such.conf", "wlan0", 10), nullptr);
    auto lines = wifim_test::split_lines(read_file("/tmp/wifi_manager.log"));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(std::regex_match(
        lines[0], std::regex(R"(.{19},ERROR,tid:\d+,wpacli_monitor.cpp-wpacm_init\[\d+\], )"
                             R"(the wpa_supplicant config file\(/tmp/no-such.conf\) not exist)")))
        << lines[0];
}

TEST(ControllerStart, ConfigurationWithoutCtrlInterfaceUsesTheDefaultDirectory) {
    wifim_test::write_file("/tmp/plain.conf", "update_config=1\n");
    auto* data = static_cast<wpacli_monitor_data*>(wpacm_init("/tmp/plain.conf", "wlan0", 10));
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->wpa_socket_file, "/var/run/wpa_supplicant/wlan0");
    EXPECT_EQ(data->continue_scan_request, 3);
    EXPECT_TRUE(data->enable_feature);
    wpacm_close(data);
    wifim_test::write_file("/tmp/named.conf",
                           "ctrl_interface=/tmp/ctl\nnetwork={\nssid=\"x\"\n}\n");
    data = static_cast<wpacli_monitor_data*>(wpacm_init("/tmp/named.conf", "eth7", 10));
    EXPECT_EQ(data->wpa_socket_file, "/tmp/ctl/eth7");
    EXPECT_EQ(wpacm_get_wlan_interface(data), "eth7");
    wpacm_close(data);
}

TEST(ControllerStart, SixteenProfilesWithABoundOfTenKeepTheFirstTenInOrder) {
    std::string text;
    for (int n = 1; n <= 16; n++) {
        // Priorities 16 down to 1, so the ordered list is the reverse.
        text += "ssid_" + std::to_string(n) + " = net" + std::to_string(n) + "\nsecurity_" +
                std::to_string(n) + " = wpa2\npasswd_" + std::to_string(n) +
                " = secret123\npasswd_encode_" + std::to_string(n) + " = ascii\npriority_" +
                std::to_string(n) + " = " + std::to_string(17 - n) + "\n";
    }
    wifim_test::write_file("/www/nvram.wifista", text);
    wifim_test::write_file("/tmp/plain.conf", "update_config=1\n");
    auto* data = static_cast<wpacli_monitor_data*>(wpacm_init("/tmp/plain.conf", "wlan0", 10));
    auto& list = data->registed_ap_info.registed_ap_info_vector;
    ASSERT_EQ(list.size(), 10u);
    for (int i = 0; i < 10; i++) {
        EXPECT_EQ(list[i].ssid, "net" + std::to_string(16 - i));
        EXPECT_EQ(list[i].priority, i + 1);
    }
    // Closing writes the list back.
    wpacm_close(data);
    std::string saved = read_file("/www/nvram.wifista");
    EXPECT_NE(saved.find("ssid_10 = net7\n"), std::string::npos);
    EXPECT_EQ(saved.find("ssid_11"), std::string::npos);
}

TEST(ControllerStart, TouchFileCreatesOnceAndFailsWhereItCannot) {
    unlink("/tmp/marker");
    EXPECT_EQ(touch_file("/tmp/marker"), 0);
    EXPECT_TRUE(wifim_test::file_exists("/tmp/marker"));
    EXPECT_EQ(touch_file("/tmp/marker"), 0);
    EXPECT_EQ(touch_file("/tmp/no/such/dir/marker"), -1);
}

TEST(ControllerStart, TouchFileNeverWritesThroughAPlantedLink) {
    unlink("/tmp/marker");
    unlink("/tmp/victim");
    ASSERT_EQ(symlink("/tmp/victim", "/tmp/marker"), 0);
    touch_file("/tmp/marker");
    EXPECT_FALSE(wifim_test::file_exists("/tmp/victim"));
    ASSERT_TRUE(wifim_test::write_file("/tmp/victim", "precious\n"));
    touch_file("/tmp/marker");
    EXPECT_EQ(wifim_test::read_file("/tmp/victim"), "precious\n");
    unlink("/tmp/marker");
    unlink("/tmp/victim");
}

TEST_F(ControllerWithPeer, FailReplyIsNotRetried) {
    sim_control(sim, "FAULT SCAN FAIL");
    wifim_test::clear_sim_commands();
    EXPECT_FALSE(wpacm_send_wpa_request(commands, "SCAN"));
    auto log = wifim_test::sim_commands();
    EXPECT_EQ(std::count(log.begin(), log.end(), "SCAN"), 1);
    EXPECT_TRUE(wifim_test::log_lines_with("Request fail").empty());
    sim_control(sim, "FAULT SCAN NONE");
    EXPECT_TRUE(wpacm_send_wpa_request(commands, "SCAN"));
    EXPECT_FALSE(wpacm_send_wpa_request(commands, "SCAN_RESULTS"));  // data, not "OK"
}

TEST_F(ControllerWithPeer, TransportFailureIsRetriedFiveTimesThenLogged) {
    sim_control(sim, "CRASH");
    ASSERT_TRUE(wifim_test::wait_until(
        [this] { return !wifim_test::file_exists(data->wpa_socket_file); }, 60000));
    long start = wifim_test::now_ms();
    EXPECT_FALSE(wpacm_send_wpa_request(commands, "SCAN"));
    EXPECT_GE(wifim_test::now_ms() - start, 10 + 20 + 30 + 40 + 50);
    auto lines = wifim_test::log_lines_with("Request fail, command:SCAN,result:");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(",ERROR,"), std::string::npos);
}

TEST_F(ControllerWithPeer, ClearAllEventDiscardsWaitingEvents) {
    sim_control(sim, "EVENT one ");
    sim_control(sim, "EVENT two ");
    usleep(100000);
    ASSERT_GT(wpa_ctrl_pending(events), 0);
    wpacm_clear_all_event(events);
    EXPECT_EQ(wpa_ctrl_pending(events), 0);
}

TEST_F(ControllerWithPeer, ScanResultsEventWithLevelPrefix) {
    EXPECT_EQ(event_after("CTRL-EVENT-SCAN-RESULTS "), WIFI_CONNECT_STATUS_SCANNED);
    EXPECT_EQ(event_after("CTRL-EVENT-SCAN-RESULTS"), WIFI_CONNECT_STATUS_UNKNOW);
    auto lines = wifim_test::log_lines_with("Received event, size:");
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines[0].find(",DEBUG,"), std::string::npos);
    EXPECT_NE(lines[0].find("Received event, size:27 , data:CTRL-EVENT-SCAN-RESULTS "),
              std::string::npos)
        << lines[0];
}

TEST_F(ControllerWithPeer, NoEventWithinOneSecondGivesNothing) {
    long start = wifim_test::now_ms();
    EXPECT_EQ(wpacm_receive_wpa_supplicant_event(data, events, 1000), WIFI_CONNECT_STATUS_UNKNOW);
    EXPECT_GE(wifim_test::now_ms() - start, 900);
    EXPECT_EQ(wpacm_receive_wpa_supplicant_event(nullptr, events, 1000),
              WIFI_CONNECT_STATUS_UNKNOW);
    EXPECT_EQ(wpacm_receive_wpa_supplicant_event(data, nullptr, 1000), WIFI_CONNECT_STATUS_UNKNOW);
}

TEST_F(ControllerWithPeer, DisconnectionFromTheZeroBssidChangesNothing) {
    touch_file("/tmp/wifista_connected");
    data->next_scan_clock = 0;
    data->next_connect_clock = 0;
    data->continue_scan_request = 0;
    EXPECT_EQ(event_after("CTRL-EVENT-DISCONNECTED bssid=00:00:00:00:00:00 reason=3"),
              WIFI_CONNECT_STATUS_UNKNOW);
    EXPECT_TRUE(wifim_test::file_exists("/tmp/wifista_connected"));
    EXPECT_EQ(data->next_scan_clock, 0);
    EXPECT_EQ(data->next_connect_clock, 0);
    EXPECT_EQ(data->continue_scan_request, 0);
}

TEST_F(ControllerWithPeer, RealDisconnectionReschedulesTheStation) {
    touch_file("/tmp/wifista_connected");
    data->continue_scan_request = 0;
    int64_t before = wpacm_clock_ms();
    EXPECT_EQ(event_after("CTRL-EVENT-DISCONNECTED bssid=00:11:22:33:44:55 reason=4"),
              WIFI_CONNECT_STATUS_DISCONNECTED);
    EXPECT_FALSE(wifim_test::file_exists("/tmp/wifista_connected"));
    EXPECT_EQ(data->continue_scan_request, 3);
    EXPECT_GE(data->next_scan_clock, before + 5000);
    EXPECT_LE(data->next_scan_clock, wpacm_clock_ms() + 5000);
    EXPECT_GE(data->next_connect_clock, before + 5000);
    data->continue_scan_request = 5;
    event_after("CTRL-EVENT-DISCONNECTED bssid=00:11:22:33:44:55 reason=4");
    EXPECT_EQ(data->continue_scan_request, 5);
}

TEST_F(ControllerWithPeer, EapMethodCountsAsWpsStartOnlyForWsc) {
    EXPECT_EQ(event_after("CTRL-EVENT-EAP-METHOD EAP vendor 14122 method 1 (WSC) selected"),
              WIFI_CONNECT_STATUS_WPS_START);
    EXPECT_EQ(wifim_test::log_lines_with("], WPS start").size(), 1u);
    EXPECT_EQ(event_after("CTRL-EVENT-EAP-METHOD EAP vendor 0 method 25 (PEAP) selected"),
              WIFI_CONNECT_STATUS_UNKNOW);
}

TEST_F(ControllerWithPeer, ConnectedEventRunsTheHookBetweenLongAndNormalPings) {
    wifim_test::set_hook_exit_status(0);
    pings();
    EXPECT_EQ(event_after("CTRL-EVENT-CONNECTED - Connection to 00:11:22:33:44:55 completed "
                          "[id=0 id_str=]"),
              WIFI_CONNECT_STATUS_CONNECTED);
    EXPECT_EQ(pings(), (std::vector<int>{120, 30}));
    EXPECT_EQ(wifim_test::recorded_script_calls(),
              (std::vector<std::string>{"wifista_connected.sh"}));
    EXPECT_EQ(wifim_test::log_lines_with("], Connected").size(), 1u);
}

TEST_F(ControllerWithPeer, ConnectedEventWithFailingHookIsDeniedByIp) {
    wifim_test::set_hook_exit_status(1);
    EXPECT_EQ(event_after("CTRL-EVENT-CONNECTED - Connection to 00:11:22:33:44:55 completed "
                          "[id=0 id_str=]"),
              WIFI_CONNECT_STATUS_DENIAL_BY_IP);
    EXPECT_EQ(event_after("WPS-SUCCESS "), WIFI_CONNECT_STATUS_DENIAL_BY_IP);
    wifim_test::set_hook_exit_status(0);
    EXPECT_EQ(event_after("WPS-SUCCESS "), WIFI_CONNECT_STATUS_WPS_SUCCESS);
}

TEST_F(ControllerWithPeer, WpsEventsAndTheirLogLines) {
    EXPECT_EQ(event_after("WPS-CRED-RECEIVED "), WIFI_CONNECT_STATUS_CONNECTING);
    EXPECT_EQ(event_after("WPS-OVERLAP-DETECTED "), WIFI_CONNECT_STATUS_WPS_OVERLAP);
    EXPECT_EQ(event_after("WPS-FAIL msg=8"), WIFI_CONNECT_STATUS_WPS_FAIL);
    EXPECT_EQ(event_after("WPS-TIMEOUT "), WIFI_CONNECT_STATUS_WPS_TIMEOUT);
    EXPECT_EQ(event_after("WPA: 4-Way Handshake failed - pre-shared key may be incorrect"),
              WIFI_CONNECT_STATUS_ASSOC_REJECT);
    EXPECT_EQ(event_after("Trying to associate with 00:11:22:33:44:55"),
              WIFI_CONNECT_STATUS_CONNECTING);
    EXPECT_EQ(wifim_test::log_lines_with("INFO ,").size() >= 2, true);
    EXPECT_EQ(wifim_test::log_lines_with("], WPS: Network configuration received").size(), 1u);
    EXPECT_EQ(wifim_test::log_lines_with("WARN ,tid:").size(), 2u);
    EXPECT_EQ(wifim_test::log_lines_with("], WPS: More than one AP is currently in active WPS PBC "
                                         "mode. Wait couple of minutes and try again")
                  .size(),
              1u);
    EXPECT_EQ(wifim_test::log_lines_with("], WPS: Registration failed").size(), 1u);
    EXPECT_EQ(wifim_test::log_lines_with("], WPS: timeout").size(), 1u);
}

TEST_F(ControllerWithPeer, ScanListFromTheSimulator) {
    ASSERT_TRUE(wpacm_update_scan_result(data, commands));
    auto& list = data->scan_result.scan_result_list;
    ASSERT_EQ(list.size(), 2u);  // the hidden network is not listed
    const wifi_scan_ap_info& home = list.at("home  net+security_id:11");
    EXPECT_EQ(home.ap_info.bssid, "00:11:22:33:44:55");
    EXPECT_EQ(home.ap_info.signal, 50);
    EXPECT_TRUE(home.ap_info.wps);
    EXPECT_TRUE(home.in_scan_result);
    EXPECT_EQ(list.at("old+security_id:2").ap_info.signal, 1);
    // Reading the list refreshed the STATUS snapshot too.
    wpa_supplicant_status status;
    wpacm_get_last_status(data, &status);
    EXPECT_EQ(status.wpa_state, "DISCONNECTED");
    EXPECT_EQ(status.ssid, "");
    auto logged = wifim_test::log_lines_with("get SCAN_RESULT, size:");
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_NE(logged[0].find(",DEBUG,"), std::string::npos);
}

TEST_F(ControllerWithPeer, StatusOfALostStationSchedulesItAgain) {
    data->next_connect_clock = 0;
    data->next_scan_clock = 0;
    int64_t before = wpacm_clock_ms();
    EXPECT_TRUE(wpacm_update_status(commands, data));
    EXPECT_GE(data->next_connect_clock, before + 5000);
    EXPECT_GE(data->next_scan_clock, before + 5000);
}

TEST_F(ControllerWithPeer, ScanResultsWithoutTheirHeaderLeaveTheScanListLocked) {
    sim_control(sim, "FAULT SCAN_RESULTS FAIL");
    // In a child process: the consequence is a thread that blocks for good.
    pid_t child = fork();
    if (child == 0) {
        bool first = wpacm_update_scan_result(data, commands);
        bool locked = pthread_mutex_trylock(&data->scan_result.scan_result_mutex) == EBUSY;
        if (first || !locked) {
            _exit(3);
        }
        wpacm_update_scan_result(data, commands);  // never returns
        _exit(0);
    }
    EXPECT_EQ(wifim_test::wait_process(child, 2000), -1);  // still blocked
    kill(child, SIGKILL);
    int status = wifim_test::wait_process(child, 2000);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

// A controller mutex that cannot be locked ends the worker with SIGILL.
TEST_F(ControllerWithPeer, LockFailureLogsAndRaisesSigill) {
    pid_t child = fork();
    if (child == 0) {
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
        pthread_mutex_init(&data->request.job_mutex, &attr);
        pthread_mutex_lock(&data->request.job_mutex);
        // Locking it again from the same thread fails with EDEADLK.
        wpacm_new_job(data, JobID_Scan, nullptr, "", 1000, false);
        _exit(0);
    }
    int status = wifim_test::wait_process(child, 5000);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGILL);
    auto lines = wifim_test::log_lines_with("Can't lock mutex, terminated service");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(std::regex_search(
        lines[0],
        std::regex(
            R"(,ERROR,tid:\d+,wpacli_monitor.cpp-wpacm_new_job\[\d+\], Can't lock mutex, terminated service$)")))
        << lines[0];
}

// The service loop answers a job that is already past its deadline with
// EXPIRE and does not carry it out.
TEST_F(ControllerWithPeer, ExpiredJobIsAnsweredWithoutBeingPerformed) {
    std::thread loop([this] { wpacm_service(data); });
    ASSERT_TRUE(wifim_test::wait_until(
        [] {
            auto log = wifim_test::sim_commands();
            return std::find(log.begin(), log.end(), "ATTACH") != log.end();
        },
        60000));
    wifi_ap_info ap;
    clear_wifi_ap_info(&ap);
    ap.ssid = "home  net";
    ap.security = WIFI_SECURITY_ANY_WPA;
    ap.password = "secret123";
    ap.ascii_key = true;
    wifim_test::clear_sim_commands();
    auto* job = wpacm_new_job(data, JobID_ConnectAP, &ap, "", -1, true);
    EXPECT_EQ(wpacm_wait_job(data, job, nullptr), WIFI_CONNECT_STATUS_EXPIRE);
    data->stop_service = true;
    loop.join();
    auto log = wifim_test::sim_commands();
    EXPECT_EQ(std::find(log.begin(), log.end(), "ADD_NETWORK"), log.end());
    EXPECT_EQ(std::find(log.begin(), log.end(), "DISCONNECT"), log.end());
}
