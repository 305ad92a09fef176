// A daemon in the foreground against the simulator (or the real
// wpa_supplicant), asked through its own client.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "test_support.h"
#include "wpa_peer.h"

// WPS worlds rejoin at once after the exchange: on a device the connected
// hook takes its address by DHCP, long after the station has rejoined with
// the credential, while the tests' recording hook returns at once.
[[maybe_unused]] static const char* kDefaultWorld =
    "scan_delay_ms 50\n"
    "connect_delay_ms 30\n"
    "wps_delay_ms 50\n"
    "wps_reassoc_ms 0\n"
    "ap 00:11:22:33:44:55 2437 -65 [WPA2-PSK-CCMP][WPS][ESS] key=secret123 wps=pbc ssid=home net\n"
    "ap 00:11:22:33:44:66 2412 -40 [ESS] key=- wps=- ssid=cafe\n"
    "ap 00:11:22:33:44:77 2462 -80 [WEP][ESS] key=abcdefghijklm wps=- ssid=old\n";

class DaemonRequests : public ::testing::Test {
  protected:
    void start(const std::string& world = kDefaultWorld, const std::string& profile = "") {
        wifim_test::install_recording_scripts();
        if (!profile.empty()) {
            wifim_test::write_file("/www/nvram.wifista", profile);
        }
        ASSERT_TRUE(wifim_test::start_simulator(&peer, world));
        ASSERT_TRUE(wifim_test::start_daemon(&daemon, peer.config));
    }
    void TearDown() override {
        if (daemon.pid > 0) {
            wifim_test::stop_daemon(&daemon);
        }
        if (peer.pid > 0) {
            wifim_test::stop_wpa_peer(&peer);
        }
    }
    // The XML answer of one request, or the client's failure lines.
    std::string ask(const std::string& request, int timeout_ms = 60000) {
        auto r = wifim_test::run_client(request, {"-T", "0"}, timeout_ms);
        const std::string ok = "result=success\n";
        if (r.out.compare(0, ok.size(), ok) != 0) {
            return r.out;
        }
        std::string answer = r.out.substr(ok.size());
        return answer.substr(0, answer.size() - 1);  // the client's own line end
    }
    // Waits until the scan list holds the world's networks.
    void wait_for_scan() {
        ASSERT_TRUE(wifim_test::wait_until(
            [this] {
                return ask("function=GetAPList").find("<scanned>1</scanned>") != std::string::npos;
            },
            60000));
    }
    wifim_test::wpa_peer peer;
    wifim_test::running_daemon daemon;
};

static inline std::string command_answer(const char* root, int result, int enable) {
    return std::string("<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<") + root + ">\n<result>" +
           std::to_string(result) + "</result>\n<enable>" + std::to_string(enable) +
           "</enable>\n</" + root + ">\n";
}

[[maybe_unused]] static const char* kUnknownAnswer =
    "<?xml version=\"1.0\" encoding=\"UTF-8\" ?><wifi_api>\n<result>-999</result>\n"
    "<result_str>unknow function</result_str>\n</wifi_api>";
