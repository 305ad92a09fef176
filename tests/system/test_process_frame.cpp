// The process frame as the field meets it: what the scripts the daemon runs
// inherit, a worker left without its supervisor or without its request
// socket, the order of the two processes' ends, faults of the supervisor,
// and the command-line client against a busy or slow daemon.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "raw_client.h"
#include "supervised_home.h"
#include "test_support.h"
#include "wifi_manager/wifi_manager.h"
#include "wpa_peer.h"

using wifim_test::log_lines_with;

static const char* kSocket = "/tmp/wifi_manager.socket";
class ProcessFrame : public ::testing::Test {
  protected:
    void SetUp() override {
        wifim_test::install_recording_scripts();
        wifim_test::write_file("/www/nvram.wifista", kProfile);
        ASSERT_TRUE(wifim_test::start_simulator(&peer, kWorld));
    }
    void TearDown() override {
        if (daemon.pid > 0) {
            wifim_test::stop_daemon(&daemon);
        }
        if (orphan > 0 && wifim_test::process_alive(orphan)) {
            kill(orphan, SIGKILL);
        }
        wifim_test::stop_wpa_peer(&peer);
    }
    void start() {
        ASSERT_TRUE(wifim_test::start_daemon(&daemon, peer.config));
        ASSERT_TRUE(wifim_test::wait_until([this] { return worker_of(daemon.pid) > 0; }, 10000));
    }
    // The registered network and IP settings the user saved are still there.
    static void expect_profile_kept() {
        std::string text = wifim_test::read_file("/www/nvram.wifista");
        for (const char* line :
             {"wifi_ip = 10.1.1.2\n", "ssid_1 = home\n", "passwd_1 = secret123\n"}) {
            EXPECT_NE(text.find(line), std::string::npos) << line << " in\n" << text;
        }
    }
    wifim_test::wpa_peer peer;
    wifim_test::running_daemon daemon;
    pid_t orphan = -1;  // a worker whose supervisor the test has killed
};

// The daemon as init starts it: the three standard descriptors and no
// other, so that whatever else a script of its own holds came from it.
static pid_t spawn_daemon_with_standard_descriptors(const std::string& wpa_config) {
    std::string binary = wifim_test::daemon_binary();
    pid_t pid = fork();
    if (pid == 0) {
        int in = open("/dev/null", O_RDONLY);
        int out = open("/tmp/daemon.console", O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (in < 0 || out < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(out, 2) < 0) {
            _exit(127);
        }
        close_range(3, ~0U, 0);
        execl(binary.c_str(), binary.c_str(), "-F", "-c", wpa_config.c_str(), "-i", "wlan0",
              static_cast<char*>(nullptr));
        _exit(127);
    }
    return pid;
}

// The connected hook records the umask it runs with and, through ls
// replacing it, the descriptors it was given.
TEST_F(ProcessFrame, ConnectedHookRunsWithUmask022AndOnlyItsStandardDescriptors) {
    wifim_test::write_file("/home/qorun/wifista_connected.sh",
                           "#!/bin/sh\n"
                           "umask > /tmp/hook_umask.tmp\n"
                           "mv /tmp/hook_umask.tmp /tmp/hook_umask\n"
                           "exec ls -l /proc/self/fd > /tmp/hook_fds\n",
                           0755);
    daemon.pid = spawn_daemon_with_standard_descriptors(peer.config);
    ASSERT_GT(daemon.pid, 0);
    ASSERT_TRUE(wifim_test::wait_until(
        [] {
            return wifim_test::file_exists("/tmp/hook_umask") &&
                   wifim_test::read_file("/tmp/hook_fds").find(" 0 -> ") != std::string::npos;
        },
        90000))
        << wifim_test::read_file("/tmp/wifi_manager.log");
    EXPECT_EQ(wifim_test::read_file("/tmp/hook_umask"), "0022\n");
    // ls's own descriptor of the directory it lists is the one beyond the
    // three standard ones.
    std::set<std::string> numbers;
    std::vector<std::string> others;
    for (const std::string& line :
         wifim_test::split_lines(wifim_test::read_file("/tmp/hook_fds"))) {
        size_t arrow = line.find(" -> ");
        if (arrow == std::string::npos) {
            continue;  // "total 0"
        }
        size_t start = line.rfind(' ', arrow - 1) + 1;
        std::string number = line.substr(start, arrow - start);
        std::string target = line.substr(arrow + 4);
        numbers.insert(number);
        if (number != "0" && number != "1" && number != "2" &&
            !(target.rfind("/proc/", 0) == 0 && target.size() > 3 &&
              target.compare(target.size() - 3, 3, "/fd") == 0)) {
            others.push_back(line);
        }
    }
    EXPECT_TRUE(others.empty()) << wifim_test::read_file("/tmp/hook_fds");
    EXPECT_EQ(numbers, (std::set<std::string>{"0", "1", "2", "3"}))
        << wifim_test::read_file("/tmp/hook_fds");
}

TEST_F(ProcessFrame, WorkerWhoseSupervisorIsGoneEndsItselfInOrder) {
    start();
    pid_t worker = worker_of(daemon.pid);
    orphan = worker;
    kill(daemon.pid, SIGKILL);
    wifim_test::wait_process(daemon.pid, 10000);
    daemon.pid = -1;
    // The worker notices at its next ping, which comes within its normal
    // allowance of 30 seconds.
    EXPECT_TRUE(
        wifim_test::wait_until([worker] { return !wifim_test::process_alive(worker); }, 90000));
    auto gone = log_lines_with("], Supervisor gone, program closing..");
    ASSERT_EQ(gone.size(), 1u);
    EXPECT_NE(gone[0].find(",FOCUS,"), std::string::npos) << gone[0];
    EXPECT_EQ(log_lines_with("], Program close").size(), 1u);
    EXPECT_FALSE(wifim_test::file_exists(kSocket));
    expect_profile_kept();
}

TEST_F(ProcessFrame, WorkerThatCannotBindTheRequestSocketEndsAndIsRestarted) {
    // A directory where the socket belongs: the bind fails.
    ASSERT_EQ(mkdir(kSocket, 0755), 0);
    daemon.pid = wifim_test::spawn_process(
        {wifim_test::daemon_binary(), "-F", "-c", peer.config, "-i", "wlan0"},
        "/tmp/daemon.console");
    ASSERT_TRUE(
        wifim_test::wait_until([] { return !log_lines_with("], Program close").empty(); }, 60000))
        << wifim_test::read_file("/tmp/wifi_manager.log");
    auto lines = log_lines_with("], Can't initialize request server, socket file:");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(",FOCUS,tid:"), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find("wifi_manager.cpp-main["), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find("], Can't initialize request server, socket file:/tmp/"
                            "wifi_manager.socket"),
              std::string::npos)
        << lines[0];
    // Once the path is free again, the next worker serves.
    ASSERT_EQ(rmdir(kSocket), 0);
    ASSERT_TRUE(wifim_test::wait_until(
        [] {
            return wifim_test::run_client("function=GetWPSPin", {"-T", "5"})
                       .out.rfind("result=success\n", 0) == 0;
        },
        150000));
    EXPECT_EQ(log_lines_with("], Restart child process").size(), 1u);
}

// systemd's KillMode=mixed sends SIGTERM to the supervisor alone and, once
// it has exited, SIGKILL to whatever is left of the service: the worker
// must have ended in order by then.
TEST_F(ProcessFrame, SupervisorEndsOnlyAfterItsWorkerHasEndedInOrder) {
    start();
    pid_t worker = worker_of(daemon.pid);
    orphan = worker;
    kill(daemon.pid, SIGTERM);
    int status = wifim_test::wait_process(daemon.pid, 60000);
    bool worker_left = wifim_test::process_alive(worker);
    if (worker_left) {
        kill(worker, SIGKILL);
    }
    daemon.pid = -1;
    ASSERT_NE(status, -1);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_FALSE(worker_left);
    EXPECT_EQ(log_lines_with("], Program close").size(), 1u);
    EXPECT_FALSE(wifim_test::file_exists(kSocket));
    expect_profile_kept();
}

// A worker that cannot end (stopped here) holds its supervisor only for the
// worker's longest orderly shut-down; then it is killed.
TEST_F(ProcessFrame, SupervisorKillsAWorkerThatDoesNotEndInTime) {
    start();
    pid_t worker = worker_of(daemon.pid);
    orphan = worker;
    kill(worker, SIGSTOP);
    kill(daemon.pid, SIGTERM);
    int status = wifim_test::wait_process(daemon.pid, 90000);
    daemon.pid = -1;
    ASSERT_NE(status, -1);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_FALSE(wifim_test::process_alive(worker));
    auto lines = log_lines_with("], Child process not closed in time, kill it");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(",FOCUS,"), std::string::npos) << lines[0];
    EXPECT_TRUE(log_lines_with("], Program close").empty());
}

// A supervisor stand-in over a worker stand-in that only waits; returns the
// supervisor's pid. The stand-in worker's pid is written to *worker.
static pid_t start_supervisor_stand_in(pid_t* worker, void (*body)()) {
    int ready[2];
    if (pipe(ready) != 0) {
        return -1;
    }
    pid_t supervisor = fork();
    if (supervisor == 0) {
        close(ready[0]);
        g_child_pid = fork();
        if (g_child_pid == 0) {
            pause();
            _exit(0);
        }
        // As the daemon's main does: the handlers log, and the first log
        // line of a process loads the time zone, which must not happen
        // inside a handler.
        tzset();
        wifim_install_signal_handlers();
        pid_t child = g_child_pid;
        ssize_t ignored = write(ready[1], &child, sizeof(child));
        (void)ignored;
        body();
        _exit(0);
    }
    close(ready[1]);
    *worker = -1;
    ssize_t got = read(ready[0], worker, sizeof(*worker));
    close(ready[0]);
    return got == sizeof(*worker) ? supervisor : -1;
}

// A write to a read-only page: the kernel raises SIGSEGV (a null pointer
// would be caught first by the undefined-behaviour sanitizer).
static void fault_of_its_own() {
    void* page = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) {
        _exit(3);
    }
    *static_cast<volatile int*>(page) = 1;
    for (;;) {
        pause();
    }
}

static void wait_for_signals() {
    for (;;) {
        pause();
    }
}

TEST(SupervisorFaults, AFaultOfTheSupervisorItselfEndsIt) {
    unlink("/tmp/wifi_manager.log");
    pid_t worker = -1;
    pid_t supervisor = start_supervisor_stand_in(&worker, fault_of_its_own);
    ASSERT_GT(supervisor, 0);
    int status = wifim_test::wait_process(supervisor, 20000);
    if (status == -1) {
        kill(supervisor, SIGKILL);
        waitpid(supervisor, nullptr, 0);
    }
    kill(worker, SIGKILL);
    ASSERT_NE(status, -1) << "the supervisor went on after its own fault";
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV) << status;
    // It told its worker to end first.
    EXPECT_EQ(log_lines_with("], Received exception or illegal signal, child pid:" +
                             std::to_string(worker) + ", send termate signal to child process")
                  .size(),
              1u);
}

TEST(SupervisorFaults, AFaultSignalSentByAnotherProcessIsPassedOnToTheWorker) {
    unlink("/tmp/wifi_manager.log");
    pid_t worker = -1;
    pid_t supervisor = start_supervisor_stand_in(&worker, wait_for_signals);
    ASSERT_GT(supervisor, 0);
    kill(supervisor, SIGSEGV);
    EXPECT_TRUE(wifim_test::wait_until(
        [] { return !log_lines_with("], Received exception or illegal signal").empty(); }, 20000));
    // The worker stand-in ends by that SIGTERM; the supervisor goes on.
    EXPECT_TRUE(
        wifim_test::wait_until([worker] { return !wifim_test::process_alive(worker); }, 20000));
    EXPECT_TRUE(wifim_test::process_alive(supervisor));
    kill(supervisor, SIGKILL);
    waitpid(supervisor, nullptr, 0);
}

// A stand-in daemon's request socket: listens with the daemon's backlog of
// 0 and accepts only when told to.
static int listen_at_daemon_socket() {
    unlink(kSocket);
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, kSocket, sizeof(addr.sun_path) - 1);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        listen(fd, 0) != 0) {
        return -1;
    }
    return fd;
}

TEST(ClientLimits, ConnectToADaemonWithAllThreadsBusyIsBoundedByTheTimeout) {
    int listener = listen_at_daemon_socket();
    ASSERT_GE(listener, 0);
    // Fill the queue of connections nobody accepts.
    std::vector<int> queued;
    for (int i = 0; i < 16; i++) {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        struct sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        strncpy(addr.sun_path, kSocket, sizeof(addr.sun_path) - 1);
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
            close(fd);
            break;
        }
        queued.push_back(fd);
    }
    ASSERT_FALSE(queued.empty());
    wifim_test::process_result r = wifim_test::run_client("function=GetWPSPin", {"-T", "2"}, 60000);
    EXPECT_FALSE(r.timed_out);
    EXPECT_EQ(r.out, "result=fail\nresult_string=Can't connect to socket\n");
    for (int fd : queued) {
        close(fd);
    }
    close(listener);
}

TEST(ClientLimits, ALargeTimeoutIsNotCutShort) {
    int listener = listen_at_daemon_socket();
    ASSERT_GE(listener, 0);
    std::atomic<bool> answered{false};
    std::thread daemon([listener, &answered] {
        int fd = accept(listener, nullptr, nullptr);
        if (fd < 0) {
            return;
        }
        transfer_data_head head;
        char request[64];
        if (wifim_raw::read_exact(fd, &head, sizeof(head)) && head.data_size <= sizeof(request) &&
            wifim_raw::read_exact(fd, request, head.data_size)) {
            // A slow answer: a client that gave up at once has gone by now.
            usleep(1500 * 1000);
            std::string answer = "result_string=late";
            transfer_data_head out = {COMM_IDENTIFY_NUM, static_cast<uint32_t>(answer.size()), 0};
            answered = wifim_raw::send_frame(fd, out, answer);
        }
        close(fd);
    });
    wifim_test::process_result r =
        wifim_test::run_client("function=GetWPSPin", {"-T", "3000000"}, 60000);
    daemon.join();
    close(listener);
    EXPECT_EQ(r.out, "result=success\nresult_string=late\n");
}
