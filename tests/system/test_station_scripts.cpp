// The example station scripts in examples/, on a veth link in a private
// network namespace: the connected script applies the static settings the
// daemon stored, and the daemon reports them back; the station script stops
// and starts the real wpa_supplicant.
#include <sys/stat.h>

#include "request_fixture.h"

namespace {

std::string example(const std::string& name) {
    return wifim_test::read_file(std::string(WIFIM_SOURCE_DIR) + "/examples/" + name);
}

std::string ip_output(const std::string& args) {
    return wifim_test::run_process({"/bin/sh", "-c", "ip " + args}).out;
}

}  // namespace

class StationScripts : public DaemonRequests {};

TEST_F(StationScripts, StaticSettingsAreAppliedAndReportedByGetConnected) {
    wifim_test::install_recording_scripts();
    ASSERT_TRUE(wifim_test::write_file("/home/qorun/wifista_connected.sh",
                                       example("wifista_connected.sh"), 0755));
    ASSERT_TRUE(wifim_test::start_wired_wpa_supplicant(&peer));
    wifim_test::write_file("/etc/resolv.conf", "nameserver 9.9.9.9\n");
    ASSERT_TRUE(wifim_test::start_daemon(&daemon, peer.config));
    EXPECT_NE(ask("function=SetNetSetting\ndhcp=0\ndns_dhcp=0\nip_addr=10.1.2.3\n"
                  "netmask=255.255.0.0\ngateway=10.1.0.1\ndns_server1=10.1.0.2\n"
                  "dns_server2=10.1.0.3")
                  .find("<result>0</result>"),
              std::string::npos);
    EXPECT_EQ(ask("function=ConnectAP\nssid=wired\nsecurity=none"),
              command_answer("wifista_connecte", 0, 1));
    // The daemon runs the script after connecting.
    ASSERT_TRUE(wifim_test::wait_until(
        [] { return ip_output("-4 addr show dev wlan0").find("10.1.2.3/16") != std::string::npos; },
        60000))
        << ip_output("-4 addr show dev wlan0");
    // The route comes a moment after the address.
    EXPECT_TRUE(wifim_test::wait_until(
        [] {
            return ip_output("route").find("default via 10.1.0.1 dev wlan0") != std::string::npos;
        },
        60000))
        << ip_output("route");
    EXPECT_EQ(wifim_test::read_file("/etc/resolv.conf"),
              "nameserver 10.1.0.2\nnameserver 10.1.0.3\n#wifi_manager\nnameserver 9.9.9.9\n");
    std::string report = ask("function=GetConnected");
    EXPECT_NE(report.find("<ip_addr>10.1.2.3</ip_addr>\n<netmask>255.255.0.0</netmask>\n"
                          "<gateway>10.1.0.1</gateway>\n<dns_server>10.1.0.2</dns_server>\n"
                          "<dns_server>10.1.0.3</dns_server>\n"),
              std::string::npos)
        << report;
}

TEST_F(StationScripts, ConnectedScriptFailsWithoutAnAddressAndKeepsOldNameServersOnce) {
    ASSERT_TRUE(wifim_test::run_process({"/bin/sh", "-c",
                                         "ip link add wlan0 type veth peer name wlan0-peer && "
                                         "ip link set wlan0 up"})
                    .exit_status == 0);
    wifim_test::write_file("/home/qorun/connected.sh", example("wifista_connected.sh"), 0755);
    wifim_test::write_file("/etc/resolv.conf", "nameserver 9.9.9.9\n");
    // Static without an address: nothing to apply, so no address and a
    // failing exit, but the name servers are still written.
    wifim_test::write_file("/www/nvram.wifista",
                           "wifi_station_enable = 1\nwifi_dhcp = 0\nwifi_dns_dhcp = 0\nwifi_ip = \n"
                           "wifi_netmask = \nwifi_dns1 = 1.1.1.1\nwifi_dns2 = \n");
    EXPECT_NE(wifim_test::run_process({"/home/qorun/connected.sh"}).exit_status, 0);
    // A second run replaces its own lines and keeps the older ones once.
    wifim_test::write_file("/www/nvram.wifista",
                           "wifi_station_enable = 1\nWIFI_DHCP = 0\nwifi_dns_dhcp = 0\n"
                           "wifi_ip = 10.5.0.9\nwifi_netmask = 255.255.255.0\n"
                           "wifi_gateway = \nwifi_dns1 = 2.2.2.2\nwifi_dns2 = \n");
    EXPECT_EQ(wifim_test::run_process({"/home/qorun/connected.sh"}).exit_status, 0);
    EXPECT_EQ(wifim_test::read_file("/etc/resolv.conf"),
              "nameserver 2.2.2.2\n#wifi_manager\nnameserver 9.9.9.9\n");
    EXPECT_NE(ip_output("-4 addr show dev wlan0").find("10.5.0.9/24"), std::string::npos);
}

TEST_F(StationScripts, StationScriptStartsAndStopsWpaSupplicant) {
    ASSERT_TRUE(wifim_test::run_process({"/bin/sh", "-c",
                                         "ip link add wlan0 type veth peer name wlan0-peer && "
                                         "ip link set wlan0-peer up"})
                    .exit_status == 0);
    mkdir("/tmp/wpa_ctrl", 0700);
    wifim_test::write_file("/tmp/wpa_supplicant.conf",
                           "ctrl_interface=/tmp/wpa_ctrl\nupdate_config=1\nap_scan=0\n");
    wifim_test::write_file("/home/qorun/wifi_station.sh", example("wifi_station.sh"), 0755);
    const std::string env = "WPA_DRIVER=wired WPA_CONF=/tmp/wpa_supplicant.conf ";
    peer.interface = "wlan0";
    peer.ctrl_dir = "/tmp/wpa_ctrl";

    auto started =
        wifim_test::run_process({"/bin/sh", "-c", env + "/home/qorun/wifi_station.sh start"});
    EXPECT_EQ(started.exit_status, 0) << started.err;
    EXPECT_TRUE(wifim_test::wait_until(
        [this] { return wifim_test::wpa_cli(peer, {"PING"}) == "PONG\n"; }, 60000));
    EXPECT_NE(ip_output("link show wlan0").find(",UP"), std::string::npos);

    auto stopped =
        wifim_test::run_process({"/bin/sh", "-c", env + "/home/qorun/wifi_station.sh stop"});
    EXPECT_EQ(stopped.exit_status, 0) << stopped.err;
    EXPECT_FALSE(wifim_test::file_exists("/tmp/wpa_ctrl/wlan0"));
    EXPECT_EQ(ip_output("link show wlan0").find(",UP"), std::string::npos);

    // Started again, as the supervisor does after its pause.
    EXPECT_EQ(wifim_test::run_process({"/bin/sh", "-c", env + "/home/qorun/wifi_station.sh start"})
                  .exit_status,
              0);
    EXPECT_TRUE(wifim_test::wait_until(
        [this] { return wifim_test::wpa_cli(peer, {"PING"}) == "PONG\n"; }, 60000));
    EXPECT_EQ(
        wifim_test::run_process({"/bin/sh", "-c", "/home/qorun/wifi_station.sh bogus"}).exit_status,
        2);
}
