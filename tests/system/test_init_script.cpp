// The BusyBox-style init script in examples/init: start, status, restart and
// stop of the built daemon against the simulator, the worker's write-back
// waited for.
#include <gtest/gtest.h>

#include "test_support.h"
#include "wpa_peer.h"

namespace {

const std::string kScript = std::string(WIFIM_SOURCE_DIR) + "/examples/init/wifi_manager.init";

wifim_test::process_result init_script(const std::string& action) {
    return wifim_test::run_process(
        {"/bin/sh", "-c",
         "DAEMON=" + wifim_test::daemon_binary() + " WPA_CONF=/tmp/wpa_supplicant.conf sh " +
             kScript + " " + action},
        30000);
}

int daemon_processes() {
    auto r = wifim_test::run_process({"/bin/sh", "-c",
                                      "for d in /proc/[0-9]*; do grep -q '^State:.*Z' $d/status "
                                      "2>/dev/null && continue; cat $d/comm 2>/dev/null; done | "
                                      "grep -c '^wifi_manager$'"});
    return atoi(r.out.c_str());
}

}  // namespace

TEST(InitScript, StartStatusRestartStop) {
    wifim_test::wpa_peer peer;
    wifim_test::install_recording_scripts();
    ASSERT_TRUE(wifim_test::start_simulator(
        &peer, "scan_delay_ms 50\nap 00:11:22:33:44:55 2437 -65 [ESS] key=- wps=- ssid=cafe\n"));

    auto stopped = init_script("status");
    EXPECT_EQ(stopped.exit_status, 3);
    EXPECT_EQ(stopped.out, "wifi_manager not running\n");

    EXPECT_EQ(init_script("start").exit_status, 0);
    ASSERT_TRUE(wifim_test::wait_until(
        [] { return wifim_test::file_exists("/tmp/wifi_manager.socket"); }, 60000));
    auto running = init_script("status");
    EXPECT_EQ(running.exit_status, 0);
    EXPECT_EQ(running.out.compare(0, 26, "wifi_manager running (pid "), 0) << running.out;
    EXPECT_EQ(daemon_processes(), 2);
    EXPECT_EQ(init_script("start").out.find("already running"), 13u);

    EXPECT_EQ(init_script("restart").exit_status, 0);
    ASSERT_TRUE(wifim_test::wait_until(
        [] { return wifim_test::file_exists("/tmp/wifi_manager.socket"); }, 60000));
    EXPECT_EQ(wifim_test::log_lines_with("Program close").size(), 1u);
    EXPECT_EQ(daemon_processes(), 2);

    EXPECT_EQ(init_script("stop").exit_status, 0);
    // The worker has written the profile back and ended with the supervisor.
    EXPECT_EQ(daemon_processes(), 0);
    EXPECT_EQ(wifim_test::log_lines_with("Program close").size(), 2u);
    EXPECT_FALSE(wifim_test::file_exists("/tmp/wifi_manager.socket"));
    EXPECT_TRUE(wifim_test::file_exists("/www/nvram.wifista"));
    EXPECT_EQ(init_script("status").exit_status, 3);
    EXPECT_EQ(init_script("bogus").exit_status, 2);
    wifim_test::stop_wpa_peer(&peer);
}
