// The request channel: frames, the pool of service threads, the client's
// retries and time-outs, and a safe shut-down with requests in flight.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "raw_client.h"
#include "socket_communication/comm_internal.h"
#include "test_support.h"

static const char* kPath = "/tmp/channel.socket";

// What the test server's callback saw and how it answers.
struct seen_requests {
    std::mutex lock;
    std::vector<std::string> payloads;
    std::vector<int> sizes;
    std::vector<bool> zero_after;
    // Kernel thread ids: a pthread handle may be reused at once by a new thread.
    std::set<long> threads;
    std::vector<long> thread_order;
    std::atomic<int> delay_ms{0};
    std::atomic<int> in_callback{0};
    std::atomic<int> calls{0};
};

static void echo_callback(int socket, char* data, int size, void* attach) {
    seen_requests* seen = static_cast<seen_requests*>(attach);
    seen->in_callback++;
    {
        std::lock_guard<std::mutex> guard(seen->lock);
        seen->payloads.emplace_back(data, static_cast<size_t>(size));
        seen->sizes.push_back(size);
        seen->zero_after.push_back(size < COMM_REQUEST_BUFFER_SIZE && data[size] == '\0');
        seen->threads.insert(syscall(SYS_gettid));
        seen->thread_order.push_back(syscall(SYS_gettid));
    }
    if (seen->delay_ms > 0) {
        usleep(static_cast<useconds_t>(seen->delay_ms) * 1000);
    }
    std::string answer = "echo:" + std::string(data, static_cast<size_t>(std::min(size, 64)));
    commsvr_send_response(socket, answer.data(), static_cast<int>(answer.size()));
    seen->calls++;
    seen->in_callback--;
}

static int raw_connect() {
    return wifim_raw::client_connect(kPath);
}

static void send_frame(int fd, uint32_t magic, uint32_t size, uint32_t check,
                       const std::string& payload) {
    ASSERT_TRUE(wifim_raw::send_frame(fd, {magic, size, check}, payload));
}

// Reads whatever the server sends until it closes (or 5 s pass).
static std::string read_until_closed(int fd, long* waited_ms = nullptr) {
    long start = wifim_test::now_ms();
    struct timeval tv = {5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    std::string got;
    char buf[8192];
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0) {
        got.append(buf, static_cast<size_t>(n));
    }
    if (waited_ms != nullptr) {
        *waited_ms = wifim_test::now_ms() - start;
    }
    close(fd);
    return got;
}

static std::string framed(const std::string& answer) {
    uint32_t head[3] = {COMM_IDENTIFY_NUM, static_cast<uint32_t>(answer.size()), 0};
    return std::string(reinterpret_cast<char*>(head), 12) + answer;
}

static int open_fd_count() {
    int count = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (readdir(dir) != nullptr) {
        count++;
    }
    closedir(dir);
    return count;
}

class Channel : public ::testing::Test {
  protected:
    void start(int threads = 5) {
        server = commsvr_init(kPath, threads, echo_callback, &seen);
        ASSERT_NE(server, nullptr);
    }
    void TearDown() override {
        commsvr_close(server);
        // Service threads leave within about a second of the stop.
        wifim_test::wait_until([this] { return seen.in_callback == 0; }, 60000);
        usleep(1200000);
    }
    // One request through the client; returns the answer or "" on failure.
    std::string request(const std::string& text, int timeout_ms = 3000) {
        int fd = commcli_send_request(kPath, text.data(), static_cast<int>(text.size()));
        if (fd < 0) {
            return "";
        }
        char answer[1024];
        int size = commcli_receive_response(fd, timeout_ms, answer, sizeof(answer));
        return size > 0 ? std::string(answer, static_cast<size_t>(size)) : "";
    }
    seen_requests seen;
    void* server = nullptr;
};

TEST_F(Channel, RoundTripThroughClientAndServer) {
    start();
    EXPECT_EQ(request("function=GetAPList"), "echo:function=GetAPList");
    ASSERT_EQ(seen.payloads.size(), 1u);
    EXPECT_EQ(seen.payloads[0], "function=GetAPList");
    EXPECT_TRUE(seen.zero_after[0]);
}

TEST_F(Channel, SocketFileIsWorldWritable) {
    start();
    struct stat st;
    ASSERT_EQ(stat(kPath, &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0666u);
}

TEST_F(Channel, RequestOfExactly4096BytesIsAcceptedWithoutTerminatingZero) {
    start();
    std::string big(4096, 'r');
    EXPECT_EQ(request(big), "echo:" + big.substr(0, 64));
    ASSERT_EQ(seen.sizes.size(), 1u);
    EXPECT_EQ(seen.sizes[0], 4096);
    EXPECT_FALSE(seen.zero_after[0]);
}

TEST_F(Channel, RequestOf4097BytesIsRefusedAndClosed) {
    start();
    int fd = raw_connect();
    ASSERT_GE(fd, 0);
    send_frame(fd, COMM_IDENTIFY_NUM, 4097, 0, std::string(4097, 'r'));
    EXPECT_EQ(read_until_closed(fd), "");
    EXPECT_EQ(seen.calls, 0);
    EXPECT_EQ(request("still"), "echo:still");
}

TEST_F(Channel, HeaderWithDataSizeZeroIsRefused) {
    start();
    int fd = raw_connect();
    send_frame(fd, COMM_IDENTIFY_NUM, 0, 0, "");
    EXPECT_EQ(read_until_closed(fd), "");
    EXPECT_EQ(seen.calls, 0);
}

TEST_F(Channel, WrongMagicIsRefused) {
    start();
    int fd = raw_connect();
    send_frame(fd, 0x12345678u, 5, 0, "hello");
    EXPECT_EQ(read_until_closed(fd), "");
    EXPECT_EQ(seen.calls, 0);
}

TEST_F(Channel, AnyCheckSumIsAccepted) {
    start();
    int fd = raw_connect();
    send_frame(fd, COMM_IDENTIFY_NUM, 5, 0xDEADBEEFu, "hello");
    EXPECT_EQ(read_until_closed(fd), framed("echo:hello"));
}

TEST_F(Channel, SilentClientIsDroppedAfterAboutOneSecond) {
    start();
    int fd = raw_connect();
    long waited = 0;
    EXPECT_EQ(read_until_closed(fd, &waited), "");
    EXPECT_GE(waited, 900);
    EXPECT_LT(waited, 4000);
    EXPECT_EQ(request("after"), "echo:after");
}

TEST_F(Channel, ShortHeaderAndShortPayloadCostOnlyTheirConnection) {
    start();
    int fd = raw_connect();
    uint32_t magic = COMM_IDENTIFY_NUM;
    send(fd, &magic, 4, MSG_NOSIGNAL);
    close(fd);
    fd = raw_connect();
    send_frame(fd, COMM_IDENTIFY_NUM, 100, 0, "only part");
    shutdown(fd, SHUT_WR);
    EXPECT_EQ(read_until_closed(fd), "");
    EXPECT_EQ(request("next"), "echo:next");
    std::lock_guard<std::mutex> guard(seen.lock);
    EXPECT_EQ(seen.payloads, (std::vector<std::string>{"next"}));
}

TEST_F(Channel, FiveSlowRequestsHoldOffASixth) {
    start();
    seen.delay_ms = 1500;
    std::vector<std::thread> slow;
    for (int i = 0; i < 5; i++) {
        slow.emplace_back([this, i] { request("slow" + std::to_string(i)); });
    }
    ASSERT_TRUE(wifim_test::wait_until([this] { return seen.in_callback == 5; }, 60000));
    seen.delay_ms = 0;
    long start_ms = wifim_test::now_ms();
    EXPECT_EQ(request("sixth"), "echo:sixth");
    // Not accepted before one of the five is done.
    EXPECT_GE(wifim_test::now_ms() - start_ms, 1000);
    for (auto& t : slow) {
        t.join();
    }
}

TEST_F(Channel, ServiceThreadRetiresAfterItsHundredAndFirstConnection) {
    start(1);
    for (int i = 0; i < 101; i++) {
        ASSERT_EQ(request("n"), "echo:n") << i;
    }
    EXPECT_EQ(seen.threads.size(), 1u);
    EXPECT_EQ(request("n"), "echo:n");
    EXPECT_EQ(seen.threads.size(), 2u);
    EXPECT_NE(seen.thread_order[100], seen.thread_order[101]);
}

TEST_F(Channel, MalformedFramesLeakNoDescriptor) {
    start();
    ASSERT_EQ(request("warm"), "echo:warm");
    // The server closes its side of "warm" just after answering.
    usleep(300000);
    int before = open_fd_count();
    for (int i = 0; i < 50; i++) {
        int fd = raw_connect();
        send_frame(fd, i % 2 ? 0u : COMM_IDENTIFY_NUM, i % 2 ? 3u : 0u, 0, i % 2 ? "abc" : "");
        read_until_closed(fd);
    }
    ASSERT_EQ(request("after"), "echo:after");
    // The server closes its side just after answering.
    EXPECT_TRUE(wifim_test::wait_until([before] { return open_fd_count() <= before; }, 60000))
        << open_fd_count() << " descriptors open, " << before << " before";
}

TEST_F(Channel, ThousandSilentClientsCostNothingOnceGone) {
    start();
    ASSERT_EQ(request("warm"), "echo:warm");
    usleep(300000);
    int before = open_fd_count();
    // A thousand clients knock at once and say nothing. The kernel turns
    // away those beyond the listen queue; the rest hold a service thread
    // each until they give up.
    std::vector<int> clients;
    int connected = 0;
    for (int i = 0; i < 1000; i++) {
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        ASSERT_GE(fd, 0);
        struct sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        strcpy(addr.sun_path, kPath);
        connected += connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
        clients.push_back(fd);
        if (clients.size() == 200) {  // stay well inside the descriptor limit
            usleep(20000);
            for (int c : clients) {
                close(c);
            }
            clients.clear();
        }
    }
    for (int c : clients) {
        close(c);
    }
    EXPECT_GT(connected, 0);
    EXPECT_EQ(seen.calls, 1);
    EXPECT_TRUE(
        wifim_test::wait_until([this] { return request("after", 1500) == "echo:after"; }, 60000));
    EXPECT_TRUE(wifim_test::wait_until([before] { return open_fd_count() <= before; }, 60000))
        << open_fd_count() << " descriptors open, " << before << " before";
}

TEST_F(Channel, ClosingWithRequestsInFlightIsSafe) {
    start();
    seen.delay_ms = 400;
    std::vector<std::thread> clients;
    for (int i = 0; i < 5; i++) {
        clients.emplace_back([this] { request("inflight", 3000); });
    }
    ASSERT_TRUE(wifim_test::wait_until([this] { return seen.in_callback > 0; }, 60000));
    commsvr_close(server);
    server = nullptr;
    EXPECT_FALSE(wifim_test::file_exists(kPath));
    for (auto& t : clients) {
        t.join();
    }
    // Every thread has finished with the server's memory; the sanitizer
    // builds would report any touch of it after this point.
    EXPECT_TRUE(wifim_test::wait_until([this] { return seen.in_callback == 0; }, 60000));
}

TEST_F(Channel, ClosingLeavesASocketBoundSinceInItsPlace) {
    // A daemon stopped and started at once: the new worker binds its socket
    // while the old one is still shutting down.
    start();
    seen_requests fresh_seen;
    void* fresh = commsvr_init(kPath, 5, echo_callback, &fresh_seen);
    ASSERT_NE(fresh, nullptr);
    commsvr_close(server);
    server = fresh;
    struct stat st;
    ASSERT_EQ(lstat(kPath, &st), 0) << "the old server removed the new server's socket";
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(request("still here"), "echo:still here");
    EXPECT_TRUE(wifim_test::wait_until([&] { return fresh_seen.calls == 1; }, 60000));
    // Its own socket the closing server does remove.
    commsvr_close(server);
    server = nullptr;
    EXPECT_FALSE(wifim_test::file_exists(kPath));
}

TEST_F(Channel, ServiceThreadsAreAllGoneSoonAfterTheClose) {
    start();
    seen.delay_ms = 300;
    std::vector<std::thread> clients;
    for (int i = 0; i < 5; i++) {
        clients.emplace_back([this] { request("busy", 3000); });
    }
    ASSERT_TRUE(wifim_test::wait_until([this] { return seen.in_callback > 0; }, 60000));
    EXPECT_GT(commsvr_live_service_threads(), 0);
    commsvr_close(server);
    server = nullptr;
    EXPECT_TRUE(commsvr_wait_service_threads(20000));
    EXPECT_EQ(commsvr_live_service_threads(), 0);
    for (auto& t : clients) {
        t.join();
    }
}

TEST_F(Channel, InitRefusesMissingArguments) {
    EXPECT_EQ(commsvr_init(nullptr, 5, echo_callback, nullptr), nullptr);
    EXPECT_EQ(commsvr_init(kPath, 0, echo_callback, nullptr), nullptr);
    EXPECT_EQ(commsvr_init(kPath, -1, echo_callback, nullptr), nullptr);
    EXPECT_EQ(commsvr_init(kPath, 5, nullptr, nullptr), nullptr);
    commsvr_close(nullptr);
}

TEST(ChannelSend, RefusesEmptyAnswers) {
    EXPECT_EQ(commsvr_send_response(1, nullptr, 5), -1);
    EXPECT_EQ(commsvr_send_response(1, "x", 0), -1);
    EXPECT_EQ(commsvr_send_response(1, "x", -3), -1);
}

TEST(ChannelClient, NoSocketFileFailsAtOnce) {
    unlink(kPath);
    long start = wifim_test::now_ms();
    EXPECT_EQ(commcli_send_request(kPath, "x", 1), -1);
    EXPECT_LT(wifim_test::now_ms() - start, 100);
}

TEST(ChannelClient, DirectoryInsteadOfSocketFailsAtOnce) {
    mkdir("/tmp/adir.socket", 0755);
    EXPECT_EQ(commcli_send_request("/tmp/adir.socket", "x", 1), -1);
}

TEST(ChannelClient, SocketFileWithoutListenerFailsAfterRetries) {
    unlink(kPath);
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, kPath);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    close(fd);
    long start = wifim_test::now_ms();
    EXPECT_EQ(commcli_send_request(kPath, "x", 1), -1);
    EXPECT_GE(wifim_test::now_ms() - start, 200);  // 5 + 10 + ... + 45 ms
}

// A hand-made peer answering the client after delay_ms with answer.
static std::thread delayed_peer(int delay_ms, const std::string& answer) {
    unlink(kPath);
    int lfd = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, kPath);
    bind(lfd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    listen(lfd, 1);
    return std::thread([lfd, delay_ms, answer] {
        int c = accept(lfd, nullptr, nullptr);
        char buf[4096];
        ssize_t ignored = read(c, buf, sizeof(buf));
        (void)ignored;
        usleep(static_cast<useconds_t>(delay_ms) * 1000);
        std::string frame = framed(answer);
        send(c, frame.data(), frame.size(), MSG_NOSIGNAL);
        usleep(200000);
        close(c);
        close(lfd);
    });
}

TEST(ChannelClient, AnswerLargerThanTheBufferIsRefused) {
    std::thread peer = delayed_peer(0, std::string(100, 'a'));
    int fd = commcli_send_request(kPath, "x", 1);
    ASSERT_GE(fd, 0);
    char buf[50];
    EXPECT_EQ(commcli_receive_response(fd, 2000, buf, sizeof(buf)), -1);
    peer.join();
}

TEST(ChannelClient, TimeoutOfZeroWaitsWithoutLimit) {
    std::thread peer = delayed_peer(4000, "late");
    int fd = commcli_send_request(kPath, "x", 1);
    ASSERT_GE(fd, 0);
    char buf[50];
    // Longer than the socket's own 3-second receive time-out, too.
    EXPECT_EQ(commcli_receive_response(fd, 0, buf, sizeof(buf)), 4);
    EXPECT_EQ(std::string(buf, 4), "late");
    peer.join();
}

TEST(ChannelClient, LateAnswerFailsWithinTheTimeout) {
    std::thread peer = delayed_peer(2500, "late");
    int fd = commcli_send_request(kPath, "x", 1);
    ASSERT_GE(fd, 0);
    char buf[50];
    long start = wifim_test::now_ms();
    EXPECT_EQ(commcli_receive_response(fd, 1000, buf, sizeof(buf)), -1);
    EXPECT_LT(wifim_test::now_ms() - start, 2400);
    peer.join();
}

// The order in which free slots are reused.
class SlotList : public ::testing::Test {
  protected:
    void SetUp() override {
        pthread_mutex_init(&server.thread_data_mutex, nullptr);
        pthread_cond_init(&server.thread_data_condition, nullptr);
        memset(slots, 0, sizeof(slots));
        for (int i = 0; i < 5; i++) {
            slots[i].index = i;
            slots[i].comsvr_data = &server;
        }
    }
    void TearDown() override {
        pthread_mutex_destroy(&server.thread_data_mutex);
        pthread_cond_destroy(&server.thread_data_condition);
    }
    void set_free(std::vector<int> order) {
        server.unuse_list = nullptr;
        service_thread_data** link = &server.unuse_list;
        for (int i : order) {
            *link = &slots[i];
            link = &slots[i].next_data;
        }
        *link = nullptr;
    }
    std::vector<int> free_order() {
        std::vector<int> out;
        for (auto* s = server.unuse_list; s != nullptr; s = s->next_data) {
            out.push_back(s->index);
        }
        return out;
    }
    communication_server_data server{};
    service_thread_data slots[5];
};

TEST_F(SlotList, SlotWithALiveThreadGoesBeforeTheFirstSlotWithout) {
    slots[0].thread_id = 1;
    slots[4].thread_id = 7;  // returned slot has a thread
    set_free({0, 1, 2, 3});  // 1..3 have no thread
    commsvr_return_thread_data_to_unused_list(&server, &slots[4], true);
    EXPECT_EQ(free_order(), (std::vector<int>{0, 4, 1, 2, 3}));
}

TEST_F(SlotList, ThreadlessSlotIsAppended) {
    set_free({0, 1});
    commsvr_return_thread_data_to_unused_list(&server, &slots[4], true);
    EXPECT_EQ(free_order(), (std::vector<int>{0, 1, 4}));
}

TEST_F(SlotList, LastSlotIsNotExamined) {
    slots[0].thread_id = 1;
    slots[4].thread_id = 7;
    set_free({0, 1});  // only slot 1 lacks a thread, and it is the last
    commsvr_return_thread_data_to_unused_list(&server, &slots[4], true);
    EXPECT_EQ(free_order(), (std::vector<int>{0, 1, 4}));
}

TEST_F(SlotList, HeadWithoutThreadGetsTheSlotInFront) {
    slots[4].thread_id = 7;
    set_free({1, 2});
    commsvr_return_thread_data_to_unused_list(&server, &slots[4], true);
    EXPECT_EQ(free_order(), (std::vector<int>{4, 1, 2}));
}

TEST_F(SlotList, EmptyListAndAlreadyListedSlot) {
    set_free({});
    slots[2].socket = 9;
    slots[2].request_start_clock = 5;
    commsvr_return_thread_data_to_unused_list(&server, &slots[2], true);
    EXPECT_EQ(free_order(), (std::vector<int>{2}));
    EXPECT_EQ(slots[2].socket, 0);
    EXPECT_EQ(slots[2].request_start_clock, 0);
    commsvr_return_thread_data_to_unused_list(&server, &slots[2], true);
    EXPECT_EQ(free_order(), (std::vector<int>{2}));
}

TEST_F(SlotList, ReturnedSlotLeavesTheInUseList) {
    set_free({0});
    server.in_used_list = &slots[3];
    slots[3].next_data = &slots[1];
    slots[1].next_data = nullptr;
    commsvr_return_thread_data_to_unused_list(&server, &slots[3], true);
    EXPECT_EQ(server.in_used_list, &slots[1]);
    EXPECT_EQ(free_order(), (std::vector<int>{0, 3}));
}
