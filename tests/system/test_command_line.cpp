// The executable as the device's scripts use it: help, validation, client
// mode, and the daemon's start-up and shut-down, on the built binary.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <thread>

#include "test_support.h"
#include "wpa_peer.h"

using wifim_test::daemon_binary;
using wifim_test::file_exists;
using wifim_test::read_file;
using wifim_test::run_client;
using wifim_test::run_process;
using wifim_test::write_file;

static const char* kSocket = "/tmp/wifi_manager.socket";
static const char* kLog = "/tmp/wifi_manager.log";
// The wired peer writes its configuration here.
static const char* kWpaConf = "/tmp/wpa_supplicant.conf";

static std::string help_text() {
    return "\n"
           "WiFi manager, Version: 1.0.4\n"
           "Usage :" +
           daemon_binary() +
           " [option]\n"
           "  -h, --help              Display this message and exit\n"
           "  -v, --version           Display this message and exit\n"
           "  -F, --foreground        Daemon run in foreground.\n"
           "  -c, --config            The config file of wpa_supplicant .\n"
           "                          default value: /etc/wpa_supplicant.conf\n"
           "  -i, --interface         The network interface of wpa_supplicant.\n"
           "                          default value: wlan0\n"
           "  -m, --max_record        Maximum station information\n"
           "                          default value: 10\n"
           "  -T, --timeout           Timeout of send request to wifi_manager\n"
           "  -C, --command           Send request to wifi_manager.\n"
           "\n"
           "\n";
}

static const char* kInvalid =
    "the config file of wpa_supplicant not exist  or maximum WiFi AP setting illegal!!\n";
static const char* kUnknownAnswer =
    "<?xml version=\"1.0\" encoding=\"UTF-8\" ?><wifi_api>\n<result>-999</result>\n"
    "<result_str>unknow function</result_str>\n</wifi_api>";

// A daemon started with -F in the test's private root.
struct running_daemon {
    pid_t pid = -1;
    std::string console = "/tmp/daemon.console";
};

// The real wpa_supplicant (wired driver) the daemon's worker talks to.
static wifim_test::wpa_peer g_peer;

static running_daemon start_daemon(std::vector<std::string> extra = {}) {
    running_daemon d;
    if (g_peer.pid < 0) {
        EXPECT_TRUE(wifim_test::start_wired_wpa_supplicant(&g_peer));
    }
    std::vector<std::string> argv = {daemon_binary(), "-F", "-c", kWpaConf, "-i", "wlan0"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    d.pid = wifim_test::spawn_process(argv, d.console);
    return d;
}

class CommandLine : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(write_file(kWpaConf, "ctrl_interface=/tmp/wpa_ctrl\n"));
        wifim_test::install_recording_scripts();
    }
};

TEST_F(CommandLine, HelpTextIsPrintedByteForByte) {
    for (const char* opt : {"-h", "-v", "--help", "--version"}) {
        auto r = run_process({daemon_binary(), opt});
        EXPECT_EQ(r.exit_status, 0) << opt;
        EXPECT_EQ(r.out, help_text()) << opt;
    }
}

TEST_F(CommandLine, UnknownOptionPrintsHelpAndExitsZero) {
    auto r = run_process({daemon_binary(), "-x"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, help_text());
}

static void expect_refused(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {daemon_binary()};
    argv.insert(argv.end(), args.begin(), args.end());
    auto r = run_process(argv);
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.err, kInvalid);
    EXPECT_EQ(r.out, help_text());
    EXPECT_FALSE(file_exists(kSocket));
}

TEST_F(CommandLine, MissingConfigFileIsRefused) {
    expect_refused({"-F", "-c", "/tmp/none.conf"});
}

TEST_F(CommandLine, ConfigNamingADirectoryIsRefused) {
    expect_refused({"-F", "-c", "/tmp"});
}

TEST_F(CommandLine, MaxRecordOutsideOneToFiftyIsRefused) {
    expect_refused({"-F", "-c", kWpaConf, "-m", "0"});
    expect_refused({"-F", "-c", kWpaConf, "-m", "51"});
    expect_refused({"-F", "-c", kWpaConf, "--max_record", "abc"});
    expect_refused({"-F", "-c", kWpaConf, "-m", "-3"});
}

// An accepted setting starts the daemon: its socket appears.
static void expect_accepted(const std::vector<std::string>& extra) {
    unlink(kSocket);
    running_daemon d = start_daemon(extra);
    EXPECT_TRUE(wifim_test::wait_until([] { return file_exists(kSocket); }, 60000));
    EXPECT_EQ(read_file(d.console).find("illegal"), std::string::npos);
    wifim_test::stop_process(d.pid);
}

TEST_F(CommandLine, MaxRecordOfOneAndFiftyIsAccepted) {
    expect_accepted({"-m", "1"});
    expect_accepted({"-m", "50"});
}

TEST_F(CommandLine, ConfigNamingADanglingSymbolicLinkIsAccepted) {
    ASSERT_EQ(symlink("/tmp/nowhere.conf", "/tmp/link.conf"), 0);
    unlink(kSocket);
    running_daemon d = start_daemon({"-c", "/tmp/link.conf"});
    EXPECT_TRUE(wifim_test::wait_until([] { return file_exists(kSocket); }, 60000));
    wifim_test::stop_process(d.pid);
}

TEST_F(CommandLine, ClientWithoutDaemonFailsToConnect) {
    auto r = run_client("function=GetAPList");
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, "result=fail\nresult_string=Can't connect to socket\n");
}

TEST_F(CommandLine, ClientSkipsValidation) {
    // -m 0 and a missing -c file would stop the daemon; the client sends anyway.
    auto r = run_client("function=GetAPList", {"-m", "0", "-c", "/tmp/none.conf"});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, "result=fail\nresult_string=Can't connect to socket\n");
    EXPECT_EQ(r.err, "");
}

TEST_F(CommandLine, ClientWithSocketFileButNoListenerRetriesThenFails) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, kSocket);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    close(fd);  // the file stays, nobody listens
    auto r = run_client("function=GetAPList");
    EXPECT_EQ(r.out, "result=fail\nresult_string=Can't connect to socket\n");
    EXPECT_GE(r.elapsed_ms, 200);  // ten attempts with 5..45 ms pauses
}

// A listener that takes the request and answers after delay_ms.
static std::thread slow_server(int delay_ms, const std::string& answer) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, kSocket);
    unlink(kSocket);
    bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    listen(fd, 1);
    return std::thread([fd, delay_ms, answer] {
        int c = accept(fd, nullptr, nullptr);
        char buf[4096];
        ssize_t ignored = read(c, buf, sizeof(buf));
        std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));
        uint32_t head[3] = {0x7E58D3A9u, static_cast<uint32_t>(answer.size()), 0};
        ignored = send(c, head, sizeof(head), MSG_NOSIGNAL);
        ignored = send(c, answer.data(), answer.size(), MSG_NOSIGNAL);
        (void)ignored;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        close(c);
        close(fd);
    });
}

TEST_F(CommandLine, ClientGivesUpWhenTheAnswerIsLate) {
    std::thread server = slow_server(2500, "<late/>");
    auto r = run_client("function=GetAPList", {"-T", "1"});
    EXPECT_EQ(r.out, "result=fail\nresult_string=Can't receive data from socket\n");
    EXPECT_EQ(r.exit_status, 0);
    server.join();
}

TEST_F(CommandLine, TimeoutOfZeroWaitsWithoutLimit) {
    std::thread server = slow_server(4000, "<late/>");
    auto r = run_client("function=GetAPList", {"-T", "0"});
    EXPECT_EQ(r.out, "result=success\n<late/>\n");
    EXPECT_GE(r.elapsed_ms, 3900);
    server.join();
}

TEST_F(CommandLine, RoundTripThroughTheDaemon) {
    running_daemon d = start_daemon();
    ASSERT_TRUE(wifim_test::wait_until([] { return file_exists(kSocket); }, 60000));
    auto r = run_client("function=NoSuchFunction");
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, std::string("result=success\n") + kUnknownAnswer + "\n");
    wifim_test::stop_process(d.pid);
}

TEST_F(CommandLine, RequestSocketIsWorldWritable) {
    running_daemon d = start_daemon();
    ASSERT_TRUE(wifim_test::wait_until([] { return file_exists(kSocket); }, 60000));
    struct stat st;
    ASSERT_EQ(stat(kSocket, &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666u);
    wifim_test::stop_process(d.pid);
}

static std::vector<std::string> log_lines_matching(const std::string& text) {
    std::vector<std::string> out;
    for (const auto& line : wifim_test::split_lines(read_file(kLog))) {
        if (line.find(text) != std::string::npos) {
            out.push_back(line);
        }
    }
    return out;
}

TEST_F(CommandLine, WorkerLogsStartAndCloseAndRemovesItsSocket) {
    running_daemon d = start_daemon();
    ASSERT_TRUE(wifim_test::wait_until([] { return file_exists(kSocket); }, 60000));
    int status = wifim_test::stop_process(d.pid, 5000);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    // The worker may still be finishing after the supervisor has gone.
    EXPECT_TRUE(
        wifim_test::wait_until([] { return !log_lines_matching("Program close").empty(); }, 60000));
    std::regex start_line(
        R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d,FOCUS,tid:\d+,wifi_manager.cpp-main\[\d+\], Program start -- Version: 1.0.4)");
    std::regex close_line(
        R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d,FOCUS,tid:\d+,wifi_manager.cpp-main\[\d+\], Program close)");
    auto starts = log_lines_matching("Program start");
    auto closes = log_lines_matching("Program close");
    ASSERT_EQ(starts.size(), 1u);
    ASSERT_EQ(closes.size(), 1u);
    EXPECT_TRUE(std::regex_match(starts[0], start_line)) << starts[0];
    EXPECT_TRUE(std::regex_match(closes[0], close_line)) << closes[0];
    EXPECT_EQ(log_lines_matching("Received terminate signal. program closing..").size(), 2u);
    EXPECT_FALSE(file_exists(kSocket));
}

TEST_F(CommandLine, ForegroundEchoesLogLinesToTheConsole) {
    running_daemon d = start_daemon();
    ASSERT_TRUE(wifim_test::wait_until([] { return file_exists(kSocket); }, 60000));
    wifim_test::stop_process(d.pid, 5000);
    EXPECT_NE(read_file(d.console).find("Program start -- Version: 1.0.4"), std::string::npos);
}

static pid_t session_of(pid_t pid) {
    std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t p = stat.rfind(')');
    if (p == std::string::npos) {
        return -1;
    }
    int fields[4] = {0};
    char state;
    sscanf(stat.c_str() + p + 2, "%c %d %d %d", &state, &fields[0], &fields[1], &fields[2]);
    return fields[2];
}

static std::vector<pid_t> children_of(pid_t parent) {
    std::vector<pid_t> out;
    std::string text = read_file("/proc/" + std::to_string(parent) + "/task/" +
                                 std::to_string(parent) + "/children");
    for (const auto& tok :
         wifim_test::split_lines(std::regex_replace(text, std::regex(" "), "\n"))) {
        if (!tok.empty()) {
            out.push_back(static_cast<pid_t>(std::stoi(tok)));
        }
    }
    return out;
}

TEST_F(CommandLine, ForegroundStillForksAWorkerInItsOwnSession) {
    running_daemon d = start_daemon();
    ASSERT_TRUE(wifim_test::wait_until([] { return file_exists(kSocket); }, 60000));
    std::vector<pid_t> workers = children_of(d.pid);
    ASSERT_EQ(workers.size(), 1u);
    EXPECT_TRUE(wifim_test::process_alive(d.pid));  // the supervisor did not detach
    EXPECT_EQ(session_of(workers[0]), workers[0]);  // the worker called setsid
    EXPECT_NE(session_of(workers[0]), session_of(d.pid));
    wifim_test::stop_process(d.pid, 5000);
}

TEST_F(CommandLine, WithoutForegroundTheDaemonDetaches) {
    ASSERT_TRUE(wifim_test::start_wired_wpa_supplicant(&g_peer));
    auto r = run_process({daemon_binary(), "-c", kWpaConf}, 5000);
    EXPECT_EQ(r.exit_status, 0);  // the first parent returns at once
    EXPECT_TRUE(wifim_test::wait_until([] { return file_exists(kSocket); }, 60000));
    auto client = run_client("function=x");
    EXPECT_EQ(client.out, std::string("result=success\n") + kUnknownAnswer + "\n");
}

TEST_F(CommandLine, FiveSilentClientsHoldOffASixth) {
    running_daemon d = start_daemon();
    ASSERT_TRUE(wifim_test::wait_until([] { return file_exists(kSocket); }, 60000));
    std::vector<int> silent;
    for (int i = 0; i < 5; i++) {
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        struct sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        strcpy(addr.sun_path, kSocket);
        ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
        silent.push_back(fd);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    // Each silent client holds a service thread until its second is up.
    auto r = run_client("function=x");
    EXPECT_EQ(r.out, std::string("result=success\n") + kUnknownAnswer + "\n");
    EXPECT_GE(r.elapsed_ms, 700);
    for (int fd : silent) {
        close(fd);
    }
    wifim_test::stop_process(d.pid, 5000);
}
