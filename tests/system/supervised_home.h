// The world of the tests of the supervisor and the process frame: one WPA2
// network, registered with static IP settings, and the worker of a running
// supervisor.
#pragma once

#include <sys/types.h>

#include <string>

#include "test_support.h"

[[maybe_unused]] static const char* kWorld =
    "scan_delay_ms 50\n"
    "connect_delay_ms 30\n"
    "ap 00:11:22:33:44:55 2437 -50 [WPA2-PSK-CCMP][ESS] key=secret123 wps=- ssid=home\n";
[[maybe_unused]] static const char* kProfile =
    "wifi_station_enable = true\nwifi_dhcp = 0\nwifi_dns_dhcp = 0\nwifi_ip = 10.1.1.2\n"
    "wifi_gateway = 10.1.1.1\nwifi_netmask = 255.255.255.0\nwifi_dns1 = 1.1.1.1\n"
    "wifi_dns2 = 8.8.8.8\nssid_1 = home\nsecurity_1 = wpa2\npasswd_1 = secret123\n"
    "passwd_encode_1 = ascii\npriority_1 = 1\n";

// The worker of a supervisor, from the kernel's list of its children; -1
// while it has none.
[[maybe_unused]] static pid_t worker_of(pid_t supervisor) {
    std::string children = wifim_test::read_file("/proc/" + std::to_string(supervisor) + "/task/" +
                                                 std::to_string(supervisor) + "/children");
    return children.empty() ? -1 : static_cast<pid_t>(std::stoi(children));
}
