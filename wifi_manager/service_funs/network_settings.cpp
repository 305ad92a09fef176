// The station's IP settings: stored in the profile file, applied by the
// connected script, and read back live from the interface.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "../fixed_paths.h"
#include "service_funs.h"
#include "wpacli_monitor/wpacli_monitor.h"

#define SERVICE_APPLY_SETTINGS_COMMAND "sleep 5;" WIFIM_CONNECTED_HOOK "&"
#define SERVICE_DEFAULT_DNS "8.8.8.8"
#define SERVICE_DNS_MARKER "#wifi_manager"
#define SERVICE_ADDRESS_TEXT_SIZE 46

static std::vector<std::string> service_lines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

bool service_parse_gateway(const std::string& route_text, const std::string& net_interface,
                           std::string& gateway) {
    std::vector<std::string> lines = service_lines(route_text);
    for (size_t i = 1; i < lines.size(); i++) {  // the first line is the header
        std::string line = wpacm_replace_string(lines[i], "\t", " ");
        if (line.empty()) {
            continue;
        }
        char name[64] = {0};
        unsigned long destination = 1;
        unsigned long gateway_value = 0;
        unsigned int flags = 0;
        int refcnt = 0, use = 0, metric = 0, mtu = 0, window = 0, irtt = 0;
        unsigned long mask = 0;
        // The kernel's route table has a fixed layout; the count of fields
        // read is what decides whether a line is usable.
        int fields = sscanf(  // NOLINT(cert-err34-c)
            line.c_str(), "%63s%lx%lx%X%d%d%d%lx%d%d%d", name, &destination, &gateway_value, &flags,
            &refcnt, &use, &metric, &mask, &mtu, &window, &irtt);
        if (fields < 3 || destination != 0 || net_interface != name) {
            continue;
        }
        // The kernel prints the address in network byte order already.
        struct in_addr address;
        address.s_addr = static_cast<in_addr_t>(gateway_value);
        char text[INET_ADDRSTRLEN] = {0};
        inet_ntop(AF_INET, &address, text, sizeof(text));
        gateway = text;
        return true;
    }
    return false;
}

int service_get_gateway(const std::string& net_interface, std::string& gateway) {
    std::string text;
    return wifim_read_text_file(WIFIM_ROUTE_FILE, &text) &&
           service_parse_gateway(text, net_interface, gateway);
}

static bool service_is_dns_marker(const std::string& line) {
    std::string compact = line;
    while (compact.find(' ') != std::string::npos) {
        compact = wpacm_replace_string(compact, " ", "");
    }
    return strncasecmp(compact.c_str(), SERVICE_DNS_MARKER, strlen(SERVICE_DNS_MARKER)) == 0;
}

// Name servers above the "#wifi_manager" marker; what follows the marker
// was written for the station and is not reported back as the system's.
void service_parse_dnsservers(const std::string& resolv_text,
                              std::vector<std::string>& dns_server_vector) {
    for (const std::string& line : service_lines(resolv_text)) {
        if (service_is_dns_marker(line)) {
            return;
        }
        char keyword[64] = {0};
        char value[128] = {0};
        if (sscanf(line.c_str(), "%63s%127s", keyword, value) == 2 &&
            strcasecmp(keyword, "nameserver") == 0 && value[0] != '\0') {
            dns_server_vector.push_back(value);
        }
    }
}

bool service_get_dnsserver(std::vector<std::string>& dns_server_vector) {
    std::string text;
    // A missing file lists no servers.
    wifim_read_text_file(WIFIM_RESOLV_CONF_FILE, &text);
    service_parse_dnsservers(text, dns_server_vector);
    return true;
}

static std::string service_address_text(const struct sockaddr* address) {
    char text[SERVICE_ADDRESS_TEXT_SIZE] = {0};
    if (address != nullptr) {
        inet_ntop(AF_INET, &reinterpret_cast<const struct sockaddr_in*>(address)->sin_addr, text,
                  sizeof(text));
    }
    return text;
}

bool service_get_network_setting(const std::string& net_interface, std::string& ip,
                                 std::string& netmask, std::string& gateway,
                                 std::vector<std::string>& dns) {
    ip.clear();
    netmask.clear();
    gateway.clear();
    struct ifaddrs* addresses = nullptr;
    if (getifaddrs(&addresses) != 0) {
        SERVICE_LOG(LOG_Warn, "service: Can't get network setting, interface:%s",
                    net_interface.c_str());
        return false;
    }
    const struct ifaddrs* found = nullptr;
    for (const struct ifaddrs* a = addresses; a != nullptr; a = a->ifa_next) {
        if (a->ifa_addr != nullptr && a->ifa_addr->sa_family == AF_INET &&
            net_interface == a->ifa_name) {
            found = a;
            break;
        }
    }
    if (found == nullptr) {
        freeifaddrs(addresses);
        return false;
    }
    ip = service_address_text(found->ifa_addr);
    netmask = service_address_text(found->ifa_netmask);
    service_get_gateway(net_interface, gateway);
    service_get_dnsserver(dns);
    freeifaddrs(addresses);
    return true;
}

void service_get_network_setting(CSimpleIniA& receive_data, service_stream& response_stream,
                                 void* monitor_data) {
    (void)receive_data;
    (void)monitor_data;
    bool enable = true;
    std::vector<wifi_ap_info> profiles;
    wifi_network_setting setting;
    wapinfo_read_profile(&enable, &profiles, &setting);
    if (setting.dns_server1.empty() && !setting.dns_server2.empty()) {
        setting.dns_server1 = setting.dns_server2;
    }
    // Static DNS is implied by static addressing.
    bool dns_by_dhcp = setting.dhcp && setting.dns_dhcp;
    const std::string none;
    service_begin_answer(response_stream, "wifista_getnetwork", API_SUCCESS);
    service_write_element(response_stream, "dhcp", setting.dhcp ? "1" : "0");
    service_write_element(response_stream, "ip_addr", setting.dhcp ? none : setting.ip_addr);
    service_write_element(response_stream, "netmask", setting.dhcp ? none : setting.netmask);
    service_write_element(response_stream, "gateway", setting.dhcp ? none : setting.gateway);
    service_write_element(response_stream, "dns_dhcp", dns_by_dhcp ? "1" : "0");
    service_write_element(response_stream, "dns_server1", dns_by_dhcp ? none : setting.dns_server1);
    service_write_element(response_stream, "dns_server2", dns_by_dhcp ? none : setting.dns_server2);
    service_end_answer(response_stream, "wifista_getnetwork");
}

static int service_store_network_setting(CSimpleIniA& receive_data) {
    wifi_network_setting setting;
    setting.dhcp = receive_data.GetBoolValue("", "dhcp", true);
    setting.dns_dhcp = receive_data.GetBoolValue("", "dns_dhcp", true);
    const char* default_dns = setting.dns_dhcp ? "" : SERVICE_DEFAULT_DNS;
    setting.dns_server1 = receive_data.GetValue("", "dns_server1", default_dns);
    setting.dns_server2 = receive_data.GetValue("", "dns_server2", default_dns);
    setting.ip_addr = receive_data.GetValue("", "ip_addr", "");
    setting.netmask = receive_data.GetValue("", "netmask", "");
    setting.gateway = receive_data.GetValue("", "gateway", "");
    if (!setting.dhcp &&
        (setting.ip_addr.empty() || setting.netmask.empty() || setting.gateway.empty())) {
        return API_INPUTERR;
    }
    bool enable = true;
    std::vector<wifi_ap_info> profiles;
    // The switch and the profiles read here go back into the file unchanged:
    // no other writer may come between the read and the write.
    wapinfo_lock_profile_file();
    wapinfo_read_profile(&enable, &profiles, nullptr);
    wapinfo_update_profile_to_user_setting(enable, &profiles, &setting);
    wapinfo_unlock_profile_file();
    int ignored = system(SERVICE_APPLY_SETTINGS_COMMAND);
    (void)ignored;
    return API_SUCCESS;
}

void service_set_network_setting(CSimpleIniA& receive_data, service_stream& response_stream,
                                 void* monitor_data) {
    (void)monitor_data;
    int result = service_store_network_setting(receive_data);
    service_begin_answer(response_stream, "wifista_setnetwork", result);
    service_end_answer(response_stream, "wifista_setnetwork");
}
