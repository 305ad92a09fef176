// A station controller in the test's own process, against the simulator: for
// the tests of the controller and of the request handlers that call it. Its
// pings go into a pipe that nobody reads, whose write end does not block, so
// a full pipe never holds the service loop.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "test_support.h"
#include "wifi_manager/wifi_manager.h"
#include "wpa_peer.h"
#include "wpacli_monitor/wpacm_internal.h"

namespace wifim_test {

// Starts the simulator with `world` and a controller on it (up to ten
// profiles); the service loop is the caller's to start. False when either
// could not start.
inline bool start_controller(wpa_peer* sim, wpacli_monitor_data** data, const std::string& world) {
    if (!start_simulator(sim, world)) {
        return false;
    }
    *data = static_cast<wpacli_monitor_data*>(wpacm_init(sim->config, "wlan0", 10));
    if (*data == nullptr || pipe(g_ping_pipe_fd) != 0) {
        return false;
    }
    fcntl(g_ping_pipe_fd[1], F_SETFL, O_NONBLOCK);
    return true;
}

// Stops the service loop (when it runs), the controller and the simulator.
inline void stop_controller(wpa_peer* sim, wpacli_monitor_data** data, std::thread* loop) {
    if (*data != nullptr) {
        (*data)->stop_service = true;
    }
    if (loop->joinable()) {
        loop->join();
    }
    wpacm_close(*data);
    *data = nullptr;
    stop_wpa_peer(sim);
    close(g_ping_pipe_fd[0]);
    close(g_ping_pipe_fd[1]);
    g_ping_pipe_fd[0] = g_ping_pipe_fd[1] = -1;
}

}  // namespace wifim_test
