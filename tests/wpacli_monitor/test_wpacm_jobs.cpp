// The job queue: insertion order by priority, blocking when full, results
// handed back to the waiting caller, and the supervisor ping.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "test_support.h"
#include "wpacli_monitor/wpacm_internal.h"

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
    int64_t before = wpacm_clock_ms();
    auto* job = wpacm_new_job(data, JobID_WPS_PIN, &ap, "12345670", 40000, true);
    ASSERT_NE(job, nullptr);
    EXPECT_EQ(job->job_id, JobID_WPS_PIN);
    EXPECT_EQ(job->ap_info.ssid, "office");
    EXPECT_EQ(job->wps_pin, "12345670");
    EXPECT_TRUE(job->in_used_flag);
    EXPECT_TRUE(job->high_priority);
    EXPECT_EQ(job->result_value, WIFI_CONNECT_STATUS_UNKNOW);
    EXPECT_GE(job->request_timeout_ms, before + 40000);
    EXPECT_LE(job->request_timeout_ms, wpacm_clock_ms() + 40000);
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
    int64_t wall_before = get_now_time_ms();
    auto* job = wpacm_new_job(data, JobID_ConnectAP, &ap, "", 40000, true);
    int64_t wall_after = get_now_time_ms();
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
    std::string head = "], updated result, index:1, priority:hight, Job ID:3, result:5, time out:";
    size_t at = log.find(head);
    ASSERT_NE(at, std::string::npos) << log;
    // The deadline is printed as wall-clock milliseconds (the monotonic
    // clock's would be far off). The conversion reads both clocks one after
    // the other, so a thread put off between the two reads (under emulation
    // on a loaded machine, for milliseconds) moves the printed time by as
    // much: a second's margin still tells the two clocks apart.
    long long printed = std::stoll(log.substr(at + head.size()));
    EXPECT_GE(printed, wall_before + 40000 - 1000);
    EXPECT_LE(printed, wall_after + 40000 + 1000);
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
    EXPECT_TRUE(wifim_test::wait_until([&] { return queued.load(); }, 60000));
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
    time_t before = wpacm_clock_s();
    wpacm_touch_watchdog(data, 120);
    int value = 0;
    ASSERT_EQ(read(g_ping_pipe_fd[0], &value, sizeof(value)), 4);
    EXPECT_EQ(value, 120);
    EXPECT_GE(data->next_touch_watch_dog, before + 2);
    EXPECT_LE(data->next_touch_watch_dog, wpacm_clock_s() + 2);
    close(g_ping_pipe_fd[0]);
    close(g_ping_pipe_fd[1]);
    g_ping_pipe_fd[0] = g_ping_pipe_fd[1] = -1;
}

// The service loop's side of a job, as the loop takes it from the queue.
static wpacm_job_data_struct* take_as_loop(wpacli_monitor_data* data) {
    pthread_mutex_lock(&data->request.job_mutex);
    wpacm_job_data_struct* job = wpacm_take_job(&data->request);
    pthread_mutex_unlock(&data->request.job_mutex);
    return job;
}

static void reset_queue(wpacli_monitor_data* data) {
    pthread_mutex_lock(&data->request.job_mutex);
    wpacm_reset_job_queue(&data->request);
    pthread_mutex_unlock(&data->request.job_mutex);
}

TEST_F(JobQueue, ResetDropsPendingJobsButLeavesTheRunningOneAlone) {
    wifi_ap_info ap;
    clear_wifi_ap_info(&ap);
    ap.ssid = "running";
    uint32_t running_generation = 0;
    auto* running = wpacm_new_job(data, JobID_ConnectAP, &ap, "", 40000, true, &running_generation);
    uint32_t pending_generation = 0;
    auto* pending = wpacm_new_job(data, JobID_Scan, nullptr, "", 10000, false, &pending_generation);
    ASSERT_EQ(take_as_loop(data), running);
    reset_queue(data);

    // The running job keeps its data and stays off the free list.
    EXPECT_EQ(running->ap_info.ssid, "running");
    EXPECT_TRUE(running->in_used_flag);
    EXPECT_EQ(running->job_id, JobID_ConnectAP);
    EXPECT_TRUE(in_use().empty());
    std::vector<uint32_t> free = free_indexes();
    EXPECT_EQ(free.size(), 14u);
    EXPECT_EQ(std::count(free.begin(), free.end(), running->job_index), 0);
    EXPECT_EQ(free.front(), 2u);  // 1 is the running job's
    // The dropped job's caller is released with no result.
    EXPECT_EQ(wpacm_wait_job(data, pending, nullptr, pending_generation),
              WIFI_CONNECT_STATUS_UNKNOW);

    // The running job's result still reaches its own caller, and only then
    // does its slot go back to the free list.
    std::thread loop([&] {
        usleep(100000);
        wpacm_update_job_result(data, running, WIFI_CONNECT_STATUS_SUCCESS);
    });
    EXPECT_EQ(wpacm_wait_job(data, running, nullptr, running_generation),
              WIFI_CONNECT_STATUS_SUCCESS);
    loop.join();
    EXPECT_EQ(free_indexes().size(), 15u);
    EXPECT_EQ(free_indexes().back(), running->job_index);
}

TEST_F(JobQueue, ADroppedJobsCallerNeverGetsTheNextJobsResult) {
    uint32_t dropped_generation = 0;
    auto* dropped =
        wpacm_new_job(data, JobID_ConnectAP, nullptr, "", 40000, true, &dropped_generation);
    reset_queue(data);
    // The slot is handed to the next job and that job is done before the
    // dropped job's caller looks.
    auto* next = wpacm_new_job(data, JobID_Disconnect, nullptr, "", 5000, true);
    ASSERT_EQ(next, dropped);
    ASSERT_EQ(take_as_loop(data), next);
    wpacm_update_job_result(data, next, WIFI_CONNECT_STATUS_SUCCESS);
    long start = wifim_test::now_ms();
    EXPECT_EQ(wpacm_wait_job(data, dropped, nullptr, dropped_generation),
              WIFI_CONNECT_STATUS_UNKNOW);
    EXPECT_LT(wifim_test::now_ms() - start, 500);
}

TEST_F(JobQueue, ADroppedJobsCallerIsNotHeldByTheNextJobInItsSlot) {
    uint32_t dropped_generation = 0;
    auto* dropped =
        wpacm_new_job(data, JobID_ConnectAP, nullptr, "", 40000, true, &dropped_generation);
    reset_queue(data);
    auto* next = wpacm_new_job(data, JobID_Disconnect, nullptr, "", 5000, true);
    ASSERT_EQ(next, dropped);
    // The next job is still pending: its caller waits, the dropped one not.
    long start = wifim_test::now_ms();
    EXPECT_EQ(wpacm_wait_job(data, dropped, nullptr, dropped_generation),
              WIFI_CONNECT_STATUS_UNKNOW);
    EXPECT_LT(wifim_test::now_ms() - start, 500);
    EXPECT_TRUE(next->in_used_flag);
}

TEST_F(JobQueue, AResetCutsTheRunningJobShort) {
    auto* running = wpacm_new_job(data, JobID_WPS_PBC, nullptr, "", 120000, true);
    ASSERT_EQ(take_as_loop(data), running);
    EXPECT_FALSE(wpacm_job_preempted(data, running));
    reset_queue(data);
    EXPECT_TRUE(wpacm_job_preempted(data, running));
    wpacm_update_job_result(data, running, WIFI_CONNECT_STATUS_EXPIRE);
    // The next job taken runs undisturbed.
    auto* next = wpacm_new_job(data, JobID_Disconnect, nullptr, "", 5000, true);
    ASSERT_EQ(take_as_loop(data), next);
    EXPECT_FALSE(wpacm_job_preempted(data, next));
}

TEST_F(JobQueue, AWallClockStepNeitherExpiresNorStretchesADeadline) {
    auto* job = wpacm_new_job(data, JobID_Scan, nullptr, "", 10000, false);
    int64_t deadline = job->request_timeout_ms;
    int64_t wall_deadline = wpacm_wall_ms(deadline);
    const int64_t year_ms = 365LL * 24 * 3600 * 1000;
    wifim_step_wall_clock(year_ms);
    EXPECT_EQ(job->request_timeout_ms, deadline);
    EXPECT_LT(wpacm_clock_ms(), deadline);  // not expired by the step
    // What the log prints moves with the wall clock.
    EXPECT_NEAR(static_cast<double>(wpacm_wall_ms(deadline) - wall_deadline),
                static_cast<double>(year_ms), 1000.0);
    wifim_step_wall_clock(-year_ms - 3600 * 1000);
    EXPECT_LT(wpacm_clock_ms(), deadline);
    EXPECT_LE(deadline - wpacm_clock_ms(), 10000);
    EXPECT_NEAR(static_cast<double>(wpacm_wall_ms(deadline) - wall_deadline), -3600.0 * 1000,
                1000.0);
    wifim_step_wall_clock(3600 * 1000);
    EXPECT_EQ(wpacm_wall_ms(0), 0);  // not scheduled stays not scheduled
}

TEST_F(JobQueue, PingsGoOnAfterTheWallClockIsSteppedBack) {
    ASSERT_EQ(pipe(g_ping_pipe_fd), 0);
    wpacm_touch_watchdog(data, 30);
    int value = 0;
    ASSERT_EQ(read(g_ping_pipe_fd[0], &value, sizeof(value)), 4);
    wifim_step_wall_clock(-3600 * 1000);
    // Two seconds later by the monotonic clock the next ping is due,
    // whatever the wall clock says.
    ASSERT_TRUE(wifim_test::wait_until(
        [&] { return wpacm_clock_s() >= data->next_touch_watch_dog; }, 60000));
    wpacm_ping_if_due(data);
    ASSERT_EQ(read(g_ping_pipe_fd[0], &value, sizeof(value)), 4);
    EXPECT_EQ(value, 30);
    wifim_step_wall_clock(3600 * 1000);
    close(g_ping_pipe_fd[0]);
    close(g_ping_pipe_fd[1]);
    g_ping_pipe_fd[0] = g_ping_pipe_fd[1] = -1;
}
