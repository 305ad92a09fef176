// The supervisor: the worker's pings, restarts with the station scripts, and
// orderly shut-down; faults injected into the built daemon.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <regex>
#include <thread>

#include "supervised_home.h"
#include "test_support.h"
#include "wifi_manager/wifi_manager.h"
#include "wpa_peer.h"

using wifim_test::log_lines_with;

TEST(Supervisor, PingIsClampedToTenToOneHundredFifty) {
    EXPECT_EQ(wifim_clamp_ping(5), 10);
    EXPECT_EQ(wifim_clamp_ping(-7), 10);
    EXPECT_EQ(wifim_clamp_ping(10), 10);
    EXPECT_EQ(wifim_clamp_ping(30), 30);
    EXPECT_EQ(wifim_clamp_ping(120), 120);
    EXPECT_EQ(wifim_clamp_ping(150), 150);
    EXPECT_EQ(wifim_clamp_ping(1000), 150);
}

// Runs the supervisor loop over a stand-in worker that pings once with
// `value` (or never, when value is 0); returns the seconds from the start
// until the supervisor gave up on it.
static double seconds_until_overdue(int value) {
    unlink("/tmp/wifi_manager.log");
    wifim_test::install_recording_scripts();
    pid_t supervisor = fork();
    if (supervisor == 0) {
        if (pipe(g_ping_pipe_fd) != 0) {
            _exit(2);
        }
        g_child_pid = fork();
        if (g_child_pid == 0) {
            if (value != 0) {
                ssize_t ignored = write(g_ping_pipe_fd[1], &value, sizeof(value));
                (void)ignored;
            }
            pause();
            _exit(0);
        }
        wifim_monitor_child_process();
        _exit(0);  // a freshly forked stand-in ends here
    }
    long start = wifim_test::now_ms();
    bool overdue = wifim_test::wait_until(
        [] { return !log_lines_with("Can't receive child ping message").empty(); }, 90000);
    double seconds = (wifim_test::now_ms() - start) / 1000.0;
    kill(supervisor, SIGKILL);
    waitpid(supervisor, nullptr, 0);
    return overdue ? seconds : -1;
}

TEST(Supervisor, APingOfFiveCountsAsTen) {
    double seconds = seconds_until_overdue(5);
    // The upper bounds leave room for a loaded machine: each of the
    // supervisor's one-second rounds may run late, never early.
    EXPECT_GE(seconds, 8.5);
    EXPECT_LE(seconds, 20.0);
    auto lines = log_lines_with("Can't receive child ping message");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(std::regex_search(
        lines[0],
        std::regex(
            R"(,INFO ,tid:\d+,wifi_manager.cpp-wifim_monitor_child_process\[\d+\], )"
            R"(Can't receive child ping message, wait count:1, terminating child process$)")))
        << lines[0];
}

TEST(Supervisor, AWorkerThatNeverPingsIsGivenThirtySeconds) {
    double seconds = seconds_until_overdue(0);
    EXPECT_GE(seconds, 28.5);
    EXPECT_LE(seconds, 45.0);
}

// The whole daemon against the simulator.
class Faults : public ::testing::Test {
  protected:
    void SetUp() override {
        wifim_test::install_recording_scripts();
        wifim_test::write_file("/www/nvram.wifista", kProfile);
        ASSERT_TRUE(wifim_test::start_simulator(&peer, kWorld));
        ASSERT_TRUE(wifim_test::start_daemon(&daemon, peer.config));
    }
    void TearDown() override {
        if (daemon.pid > 0) {
            wifim_test::stop_daemon(&daemon);
        }
        wifim_test::stop_wpa_peer(&peer);
    }
    pid_t worker() { return worker_of(daemon.pid); }
    // The worker's illegal-signal handler has logged its end.
    static bool worker_ended_itself() {
        return !log_lines_with(
                    "], Received exception or illegal signal, child pid:0, closed process")
                    .empty();
    }
    std::string ask(const std::string& request) {
        return wifim_test::run_client(request, {"-T", "5"}).out;
    }
    // The registered profile and IP settings the user saved are still there.
    void expect_profile_kept() {
        std::string text = wifim_test::read_file("/www/nvram.wifista");
        for (const char* line : {"wifi_ip = 10.1.1.2\n", "wifi_dns1 = 1.1.1.1\n", "ssid_1 = home\n",
                                 "passwd_1 = secret123\n"}) {
            EXPECT_NE(text.find(line), std::string::npos) << line << " in\n" << text;
        }
    }
    wifim_test::wpa_peer peer;
    wifim_test::running_daemon daemon;
};

TEST_F(Faults, StoppedWorkerIsReplacedAndTheStationRestarted) {
    pid_t first = worker();
    ASSERT_GT(first, 0);
    kill(first, SIGSTOP);
    ASSERT_TRUE(wifim_test::wait_until(
        [] { return log_lines_with("Program start -- Version: 1.0.4").size() == 2; }, 150000));
    EXPECT_EQ(log_lines_with("], Can't receive child ping message, wait count:1, terminating child "
                             "process")
                  .size(),
              1u);
    EXPECT_EQ(log_lines_with("], Restart child process").size(), 1u);
    EXPECT_EQ(wifim_test::recorded_script_calls(),
              (std::vector<std::string>{"wifi_station.sh stop", "wifi_station.sh start"}));
    EXPECT_FALSE(wifim_test::process_alive(first));
    ASSERT_TRUE(wifim_test::wait_until(
        [this] { return ask("function=GetWPSPin").rfind("result=success\n", 0) == 0; }, 60000));
    expect_profile_kept();
}

TEST_F(Faults, LostWpaSupplicantEndsTheWorkerWhichIsRestarted) {
    wifim_test::sim_control(peer, "CRASH");
    ASSERT_TRUE(wifim_test::wait_until(worker_ended_itself, 90000));
    auto lines = log_lines_with("Received exception or illegal signal, child pid:0");
    EXPECT_NE(lines[0].find(",ERROR,"), std::string::npos);
    wifim_test::stop_wpa_peer(&peer);
    ASSERT_TRUE(wifim_test::start_simulator(&peer, kWorld));
    // Restarted after the allowance; it then connects on its own to "home".
    ASSERT_TRUE(wifim_test::wait_until(
        [] { return log_lines_with("Program start -- Version: 1.0.4").size() == 2; }, 150000));
    EXPECT_TRUE(wifim_test::wait_until(
        [] { return wifim_test::file_exists("/tmp/wifista_connected"); }, 120000));
    expect_profile_kept();
}

TEST_F(Faults, WpaSupplicantLostDuringAScanEndsTheWorker) {
    // wpa_supplicant goes while a SCAN of the worker waits for its reply.
    // A failed SCAN keeps its command connection for the next job, so the
    // scans that follow fail on it without telling the worker anything; the
    // next job of another kind (here the status job of a client's GetAPList)
    // fails too and closes the connection, and opening a new one then finds
    // wpa_supplicant gone: the worker ends itself and is restarted, while it
    // pinged its supervisor all along.
    // The worker's start-up sends a SCAN of its own, outside any job: the
    // fault is set once the scan jobs have begun, so that the silent SCAN
    // is one of theirs.
    ASSERT_TRUE(wifim_test::wait_until(
        [] { return !log_lines_with("], Scan success, force_scan_count:").empty(); }, 60000));
    wifim_test::sim_control(peer, "FAULT SCAN SILENT");
    wifim_test::clear_sim_commands();
    ASSERT_TRUE(wifim_test::wait_until(
        [] {
            for (const std::string& c : wifim_test::sim_commands()) {
                if (c == "SCAN") {
                    return true;
                }
            }
            return false;
        },
        60000));
    wifim_test::sim_control(peer, "CRASH");
    ASSERT_TRUE(wifim_test::wait_until(
        [] { return !log_lines_with("], send SCAN command fail, scan late, priority:").empty(); },
        90000));
    EXPECT_FALSE(log_lines_with("], Request fail, command:SCAN,result:").empty());
    // A queued scan event may already have led the worker to the same end;
    // the request is answered or refused, and either way the worker ends.
    ask("function=GetAPList");
    ASSERT_TRUE(wifim_test::wait_until(worker_ended_itself, 90000));
    EXPECT_FALSE(log_lines_with("], Can't connect to wpa_supplicant, socket file:").empty());
    EXPECT_TRUE(log_lines_with("Can't receive child ping message").empty());
}

TEST_F(Faults, WorkerWithoutAControllerIsRestartedWithoutGrowth) {
    // wpa_supplicant's configuration disappears: the next worker cannot start
    // its controller.
    unlink(peer.config.c_str());
    std::string fds_before = std::to_string(
        wifim_test::run_process({"/bin/ls", "/proc/" + std::to_string(daemon.pid) + "/fd"})
            .out.size());
    kill(worker(), SIGSTOP);
    ASSERT_TRUE(wifim_test::wait_until(
        [] { return !log_lines_with("], Can't initialize wpa monitor").empty(); }, 150000));
    EXPECT_NE(log_lines_with("Can't initialize wpa monitor")[0].find("wifi_manager.cpp-main["),
              std::string::npos);
    std::string fds_after = std::to_string(
        wifim_test::run_process({"/bin/ls", "/proc/" + std::to_string(daemon.pid) + "/fd"})
            .out.size());
    EXPECT_EQ(fds_after, fds_before);
    expect_profile_kept();
}

TEST_F(Faults, TerminateSignalEndsBothProcessesInOrder) {
    pid_t w = worker();
    // Requests keep the worker's threads writing the log meanwhile, but
    // never fill it: a full log is cut down to a single byte, which would take
    // the lines this test looks for with it.
    std::atomic<bool> flooding{true};
    std::thread flood([this, &flooding] {
        while (flooding &&
               wifim_test::read_file("/tmp/wifi_manager.log").size() < WIFIM_LOG_MAX_SIZE / 2) {
            ask("function=GetNetSetting");
        }
    });
    usleep(500000);
    // The bounds only keep a hung daemon from hanging the test; the grace
    // before SIGKILL is long enough for a loaded machine.
    int status = wifim_test::stop_daemon(&daemon, 30000);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_TRUE(wifim_test::wait_until([w] { return !wifim_test::process_alive(w); }, 60000));
    flooding = false;
    flood.join();
    EXPECT_EQ(log_lines_with("], Program close").size(), 1u);
    EXPECT_EQ(log_lines_with("], Received terminate signal. program closing..").size(), 2u);
    EXPECT_FALSE(wifim_test::file_exists("/tmp/wifi_manager.socket"));
    expect_profile_kept();
}

TEST_F(Faults, SecondTerminateSignalEndsAtOnce) {
    kill(daemon.pid, SIGTERM);
    kill(daemon.pid, SIGTERM);
    int status = wifim_test::wait_process(daemon.pid, 30000);
    daemon.pid = -1;
    ASSERT_NE(status, -1);
    // Either the first signal's orderly exit or the second's default end.
    EXPECT_TRUE((WIFEXITED(status) && WEXITSTATUS(status) == 0) ||
                (WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM));
}

TEST_F(Faults, TerminateWithRequestsWaitingForTheControllerEndsTheWorkerInOrder) {
    pid_t w = worker();
    ASSERT_GT(w, 0);
    // A WPS run waits up to two minutes for a registrar that never comes;
    // its request threads are inside the controller when the signal lands.
    std::vector<std::thread> waiting;
    for (int i = 0; i < 3; i++) {
        waiting.emplace_back([] { wifim_test::run_client("function=WPS", {"-T", "0"}, 200000); });
    }
    ASSERT_TRUE(
        wifim_test::wait_until([] { return !log_lines_with("WPS PBC, pin:").empty(); }, 60000));
    int status = wifim_test::stop_daemon(&daemon, 30000);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_TRUE(wifim_test::wait_until([w] { return !wifim_test::process_alive(w); }, 60000));
    for (auto& t : waiting) {
        t.join();
    }
    EXPECT_EQ(log_lines_with("], Program close").size(), 1u);
    EXPECT_TRUE(log_lines_with("Received exception or illegal signal").empty());
    expect_profile_kept();
}
