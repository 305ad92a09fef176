// The request channel under pressure: a peer that trickles its request, a
// process out of descriptors, and what the channel's descriptors leave to
// programs started from the worker.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include "raw_client.h"
#include "socket_communication/comm_internal.h"
#include "test_support.h"

static const char* kPath = "/tmp/channel_limits.socket";

static void answer_ok(int socket, char*, int, void*) {
    commsvr_send_response(socket, "ok", 2);
}

// Whether an answer frame arrives on fd (false when the server closed it
// without one).
static bool answered(int fd) {
    transfer_data_head head;
    return wifim_raw::read_exact(fd, &head, sizeof(head)) && head.identify_num == COMM_IDENTIFY_NUM;
}

static void pause_ms(int ms) {
    usleep(static_cast<useconds_t>(ms) * 1000);
}

class ChannelLimits : public ::testing::Test {
  protected:
    void SetUp() override {
        server = commsvr_init(kPath, 5, answer_ok, nullptr);
        ASSERT_NE(server, nullptr);
    }
    void TearDown() override {
        commsvr_close(server);
        commsvr_wait_service_threads(5000);
    }
    void* server = nullptr;
};

TEST_F(ChannelLimits, RequestArrivingWithinTheTimeIsAnswered) {
    int fd = wifim_raw::client_connect(kPath, 10);
    ASSERT_GE(fd, 0);
    transfer_data_head head = {COMM_IDENTIFY_NUM, 4, 0};
    ASSERT_TRUE(wifim_raw::send_frame(fd, head, "ping"));
    EXPECT_TRUE(answered(fd));
    close(fd);
}

// The header comes whole only after 700 ms and the payload 700 ms later:
// each part within a second, the whole request not. The time is for the
// whole request, counted from its acceptance.
TEST_F(ChannelLimits, RequestThatTricklesPastItsTimeIsDroppedUnanswered) {
    int fd = wifim_raw::client_connect(kPath, 10);
    ASSERT_GE(fd, 0);
    transfer_data_head head = {COMM_IDENTIFY_NUM, 4, 0};
    const char* bytes = reinterpret_cast<const char*>(&head);
    ASSERT_EQ(send(fd, bytes, sizeof(head) - 1, MSG_NOSIGNAL),
              static_cast<ssize_t>(sizeof(head) - 1));
    pause_ms(700);
    ASSERT_EQ(send(fd, bytes + sizeof(head) - 1, 1, MSG_NOSIGNAL), 1);
    pause_ms(700);
    send(fd, "ping", 4, MSG_NOSIGNAL);
    EXPECT_FALSE(answered(fd));
    close(fd);
}

// What the channel reported, as the worker's log would have it.
static std::mutex g_reports_lock;
static std::vector<std::string> g_reports;

static void record_report(const char* function, const char* message) {
    std::lock_guard<std::mutex> guard(g_reports_lock);
    g_reports.push_back(std::string(function) + ": " + message);
}

static std::vector<std::string> reports() {
    std::lock_guard<std::mutex> guard(g_reports_lock);
    return g_reports;
}

static double cpu_seconds() {
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// With every descriptor taken, a waiting client cannot be accepted: the
// listener pauses between attempts instead of spinning, and serves the
// client once descriptors are free again. The failure is reported once.
TEST_F(ChannelLimits, AcceptWithoutDescriptorsPausesReportsAndRecovers) {
    commsvr_set_report_function(record_report);
    int client = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(client, 0);
    struct rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    struct rlimit tight = saved;
    tight.rlim_cur = 256;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    std::vector<int> taken;
    for (;;) {
        int fd = dup(client);
        if (fd < 0) {
            break;
        }
        taken.push_back(fd);
    }
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, kPath, sizeof(addr.sun_path) - 1);
    bool connected = connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    transfer_data_head head = {COMM_IDENTIFY_NUM, 4, 0};
    bool sent = connected && wifim_raw::send_frame(client, head, "ping");
    // Three seconds of a listener that cannot accept: a spinning one burns
    // them all on a core of its own.
    double cpu_before = cpu_seconds();
    pause_ms(3000);
    double cpu_used = cpu_seconds() - cpu_before;
    for (int fd : taken) {
        close(fd);
    }
    setrlimit(RLIMIT_NOFILE, &saved);
    ASSERT_TRUE(sent);
    EXPECT_LT(cpu_used, 1.0);
    struct timeval wait = {20, 0};
    setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof(wait));
    EXPECT_TRUE(answered(client));
    close(client);
    commsvr_set_report_function(nullptr);
    EXPECT_EQ(reports(), (std::vector<std::string>{"commsvr_listen_thread: Can't accept request "
                                                   "connection, errno:24, pausing"}));
}
