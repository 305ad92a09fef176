// The job queue: insertion order by priority, blocking when full, results
// handed back to the waiting caller, and the supervisor ping.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "test_support.h"
#include "wpacli_monitor/wpacli_monitor.h"

class JobQueue : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(wifim_test::write_file("/tmp/wpa.conf", "ctrl_interface=/tmp/wpa\n"));
        data = static_cast<wpacli_monitor_data*>(wpacm_init("/tmp/wpa.conf", "wlan0", 10));
        ASSERT_NE(data, nullptr);
    }
    void TearDown() override {
        g_program_exist = false;
        wpacm_close(data);
    }
    wpacm_job_data_struct* queue(bool high) {
        return wpacm_new_job(data, JobID_Scan, nullptr, "", 10000, high);
    }
    std::vector<wpacm_job_data_struct*> in_use() {
        std::vector<wpacm_job_data_struct*> out;
        for (auto* s = data->request.in_used_job_list; s != nullptr; s = s->next) {
            out.push_back(s);
        }
        return out;
    }
    std::vector<uint32_t> free_indexes() {
        std::vector<uint32_t> out;
        for (auto* s = data->request.unused_job_list; s != nullptr; s = s->next) {
            out.push_back(s->job_index);
        }
        return out;
    }
    wpacli_monitor_data* data = nullptr;
};

TEST_F(JobQueue, StartsWithFifteenFreeSlotsInIndexOrder) {
    std::vector<uint32_t> expected;
    for (uint32_t i = 1; i <= 15; i++) {
        expected.push_back(i);
    }
    EXPECT_EQ(free_indexes(), expected);
    EXPECT_TRUE(in_use().empty());
    EXPECT_FALSE(data->request.heigh_priority_request);
}

TEST_F(JobQueue, HighJobGoesBeforeTheFirstNormalOne) {
    auto* a = queue(true);
    auto* b = queue(false);
    auto* c = queue(false);
    auto* added = queue(true);
    EXPECT_EQ(in_use(), (std::vector<wpacm_job_data_struct*>{a, added, b, c}));
}

TEST_F(JobQueue, LastSlotOfALongerQueueIsNeverExamined) {
    auto* a = queue(true);
    auto* b = queue(false);
    auto* added = queue(true);
    EXPECT_EQ(in_use(), (std::vector<wpacm_job_data_struct*>{a, b, added}));
}

TEST_F(JobQueue, HighJobAndASingleQueuedJob) {
    auto* normal = queue(false);
    auto* high = queue(true);
    EXPECT_EQ(in_use(), (std::vector<wpacm_job_data_struct*>{high, normal}));
    wpacm_update_job_result(data, high, WIFI_CONNECT_STATUS_SUCCESS);
    wpacm_update_job_result(data, normal, WIFI_CONNECT_STATUS_SUCCESS);
    auto* first = queue(true);
    auto* second = queue(true);
    EXPECT_EQ(in_use(), (std::vector<wpacm_job_data_struct*>{first, second}));
}

TEST_F(JobQueue, HighJobBeforeANormalHead) {
    auto* a = queue(false);
    auto* b = queue(true);
    auto* c = queue(true);
    // b went to the head; c finds no normal job before the last slot.
    EXPECT_EQ(in_use(), (std::vector<wpacm_job_data_struct*>{b, a, c}));
}

TEST_F(JobQueue, NormalJobIsAlwaysAppended) {
    auto* a = queue(true);
    auto* b = queue(false);
    auto* c = queue(true);
    auto* d = queue(false);
    EXPECT_EQ(in_use().back(), d);
    EXPECT_EQ(in_use().size(), 4u);
    (void)a;
    (void)b;
    (void)c;
}

TEST_F(JobQueue, NewJobCarriesItsFields) {
    wifi_ap_info ap;
    clear_wifi_ap_info(&ap);
    ap.ssid = "office";
    int64_t before = get_now_time_ms();
    auto* job = wpacm_new_job(data, JobID_WPS_PIN, &ap, "12345670", 40000, true);
    ASSERT_NE(job, nullptr);
    EXPECT_EQ(job->job_id, JobID_WPS_PIN);
    EXPECT_EQ(job->ap_info.ssid, "office");
    EXPECT_EQ(job->wps_pin, "12345670");
    EXPECT_TRUE(job->in_used_flag);
    EXPECT_TRUE(job->high_priority);
    EXPECT_EQ(job->result_value, WIFI_CONNECT_STATUS_UNKNOW);
    EXPECT_GE(job->request_timeout_ms, before + 40000);
    EXPECT_LE(job->request_timeout_ms, get_now_time_ms() + 40000);
    EXPECT_EQ(job->job_index, 1u);
}

TEST_F(JobQueue, HighPriorityFlagFollowsTheHeadWhenAJobIsQueued) {
    auto* high = queue(true);
    EXPECT_TRUE(data->request.heigh_priority_request);
    // Posting a result does not recompute it.
    wpacm_update_job_result(data, high, WIFI_CONNECT_STATUS_SUCCESS);
    EXPECT_TRUE(data->request.heigh_priority_request);
    queue(false);
    EXPECT_FALSE(data->request.heigh_priority_request);
}

TEST_F(JobQueue, PostedResultFreesTheSlotToTheTailAndWakesTheWaiter) {
    wifi_ap_info ap;
    clear_wifi_ap_info(&ap);
    ap.ssid = "learnt";
    auto* job = wpacm_new_job(data, JobID_ConnectAP, &ap, "", 40000, true);
    std::thread loop([&] {
        usleep(100000);
        job->ap_info.bssid = "00:11:22:33:44:55";
        wpacm_update_job_result(data, job, WIFI_CONNECT_STATUS_CONNECTED);
    });
    wifi_ap_info out;
    EXPECT_EQ(wpacm_wait_job(data, job, &out), WIFI_CONNECT_STATUS_CONNECTED);
    loop.join();
    EXPECT_EQ(out.ssid, "learnt");
    EXPECT_EQ(out.bssid, "00:11:22:33:44:55");
    EXPECT_FALSE(job->in_used_flag);
    EXPECT_TRUE(in_use().empty());
    EXPECT_EQ(free_indexes().back(), job->job_index);
    EXPECT_EQ(free_indexes().size(), 15u);
    std::string log = wifim_test::read_file("/tmp/wifi_manager.log");
    EXPECT_NE(log.find("INFO ,tid:"), std::string::npos);
    EXPECT_NE(log.find("wpacli_monitor.cpp-wpacm_update_job_result["), std::string::npos);
    EXPECT_NE(log.find("], updated result, index:1, priority:hight, Job ID:3, result:5, time out:" +
                       std::to_string(job->request_timeout_ms) + "/"),
              std::string::npos)
        << log;
}

TEST_F(JobQueue, SixteenthJobBlocksUntilAResultIsPosted) {
    std::vector<wpacm_job_data_struct*> jobs;
    for (int i = 0; i < 15; i++) {
        jobs.push_back(queue(false));
    }
    std::atomic<bool> queued{false};
    std::thread caller([&] {
        queue(true);
        queued = true;
    });
    usleep(1500000);
    EXPECT_FALSE(queued.load());
    wpacm_update_job_result(data, jobs[3], WIFI_CONNECT_STATUS_SUCCESS);
    EXPECT_TRUE(wifim_test::wait_until([&] { return queued.load(); }, 3000));
    caller.join();
}

TEST_F(JobQueue, WaitEndsWhenTheProcessIsStopping) {
    auto* job = queue(true);
    std::thread stopper([] {
        usleep(200000);
        g_program_exist = true;
    });
    long start = wifim_test::now_ms();
    EXPECT_EQ(wpacm_wait_job(data, job, nullptr), WIFI_CONNECT_STATUS_UNKNOW);
    EXPECT_LT(wifim_test::now_ms() - start, 3000);
    stopper.join();
}

TEST_F(JobQueue, MissingHandleOrSlotIsRefused) {
    EXPECT_EQ(wpacm_wait_job(nullptr, nullptr, nullptr), WIFI_CONNECT_STATUS_UNKNOW);
    EXPECT_EQ(wpacm_wait_job(data, nullptr, nullptr), WIFI_CONNECT_STATUS_UNKNOW);
    EXPECT_EQ(wpacm_new_job(nullptr, JobID_Scan, nullptr, "", 1, true), nullptr);
}

TEST_F(JobQueue, WatchdogWritesTheAllowanceIntoThePingPipe) {
    ASSERT_EQ(pipe(g_ping_pipe_fd), 0);
    time_t before = time(nullptr);
    wpacm_touch_watchdog(data, 120);
    int value = 0;
    ASSERT_EQ(read(g_ping_pipe_fd[0], &value, sizeof(value)), 4);
    EXPECT_EQ(value, 120);
    EXPECT_GE(data->next_touch_watch_dog, before + 2);
    EXPECT_LE(data->next_touch_watch_dog, time(nullptr) + 2);
    close(g_ping_pipe_fd[0]);
    close(g_ping_pipe_fd[1]);
    g_ping_pipe_fd[0] = g_ping_pipe_fd[1] = -1;
}
