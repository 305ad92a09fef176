// A service thread that the system refuses to start costs no request: the
// listener gives the slot back, accepts nothing meanwhile, and tries again a
// second later. The test binary is linked with --wrap=pthread_create so that
// starts of service threads (the detached ones) can be refused.
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "raw_client.h"
#include "socket_communication/comm_internal.h"
#include "test_support.h"

namespace {

const char* kPath = "/tmp/refused.socket";

std::atomic<int> g_refusals_left{0};
std::mutex g_attempts_lock;
std::vector<long> g_refused_at_ms;

bool detached(const pthread_attr_t* attr) {
    int state = PTHREAD_CREATE_JOINABLE;
    return attr != nullptr && pthread_attr_getdetachstate(attr, &state) == 0 &&
           state == PTHREAD_CREATE_DETACHED;
}

}  // namespace

extern "C" int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attr,
                                     void* (*start)(void*), void* arg);

extern "C" int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attr,
                                     void* (*start)(void*), void* arg) {
    if (detached(attr) && g_refusals_left > 0) {
        g_refusals_left--;
        std::lock_guard<std::mutex> guard(g_attempts_lock);
        g_refused_at_ms.push_back(wifim_test::now_ms());
        return EAGAIN;
    }
    return __real_pthread_create(thread, attr, start, arg);
}

namespace {

void answer_callback(int socket, char* data, int size, void*) {
    std::string answer = "answer:" + std::string(data, static_cast<size_t>(size));
    commsvr_send_response(socket, answer.data(), static_cast<int>(answer.size()));
}

std::string ask(const std::string& text) {
    std::string answer;
    wifim_raw::round_trip(kPath, text, &answer, 60);
    return answer;
}

}  // namespace

TEST(ThreadRefused, RefusedServiceThreadsAreRetriedAndEveryClientIsAnswered) {
    // More refusals than the pool has slots: without the retry the pool
    // would be used up and no request answered again.
    g_refusals_left = 7;
    void* server = commsvr_init(kPath, 5, answer_callback, nullptr);
    ASSERT_NE(server, nullptr);
    long start = wifim_test::now_ms();
    EXPECT_EQ(ask("first"), "answer:first");
    EXPECT_EQ(g_refusals_left.load(), 0);
    {
        std::lock_guard<std::mutex> guard(g_attempts_lock);
        ASSERT_EQ(g_refused_at_ms.size(), 7u);
        // One try a second, not a busy loop.
        for (size_t i = 1; i < g_refused_at_ms.size(); i++) {
            EXPECT_GE(g_refused_at_ms[i] - g_refused_at_ms[i - 1], 900) << "before try " << i + 1;
        }
    }
    EXPECT_GE(wifim_test::now_ms() - start, 6 * 900);
    // Later requests, several at once, are all answered.
    std::vector<std::thread> clients;
    std::atomic<int> answered{0};
    for (int i = 0; i < 20; i++) {
        clients.emplace_back([&answered, i] {
            std::string text = "req" + std::to_string(i);
            if (ask(text) == "answer:" + text) {
                answered++;
            }
        });
    }
    for (auto& t : clients) {
        t.join();
    }
    EXPECT_EQ(answered.load(), 20);
    commsvr_close(server);
    EXPECT_TRUE(commsvr_wait_service_threads(10000));
}

TEST(ThreadRefused, AClientWaitingMeanwhileIsNotClosedButAnswered) {
    g_refusals_left = 3;
    void* server = commsvr_init(kPath, 5, answer_callback, nullptr);
    ASSERT_NE(server, nullptr);
    // The client connects while no thread can serve it: its connection
    // waits in the kernel's queue instead of being accepted and left.
    int fd = wifim_raw::client_connect(kPath, 60);
    ASSERT_GE(fd, 0);
    transfer_data_head head = {COMM_IDENTIFY_NUM, 4, 0};
    ASSERT_TRUE(wifim_raw::send_frame(fd, head, "wait"));
    ASSERT_TRUE(wifim_raw::read_exact(fd, &head, sizeof(head)));
    std::string answer(head.data_size, '\0');
    ASSERT_TRUE(wifim_raw::read_exact(fd, &answer[0], head.data_size));
    close(fd);
    EXPECT_EQ(answer, "answer:wait");
    EXPECT_EQ(g_refusals_left.load(), 0);
    commsvr_close(server);
    EXPECT_TRUE(commsvr_wait_service_threads(10000));
}
