// A steady mix of every request, from several clients at once, with bad
// frames among them: every well-formed request is answered, the worker's
// descriptors, threads and memory stay flat, the log stays within its
// bound, and the profile file keeps what was last saved.
//
// WIFIM_SOAK_REQUESTS sets the number of requests (5,000 by default;
// scripts/soak.sh runs the long form).
#include <algorithm>
#include <dirent.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "raw_client.h"
#include "request_fixture.h"
#include "socket_communication/socket_communication.h"
#include "wifi_ap_info/wifi_ap_info.h"
#include "wifi_manager/wifi_manager.h"

namespace {

const char* kSocket = "/tmp/wifi_manager.socket";
const int kClients = 4;

// The log's size is checked before its lock is taken, so every writer that
// found the file just under the limit appends its line before the next one
// cuts it: the file may overshoot by one line per writing thread.
long log_bound(int writing_threads) {
    return WIFIM_LOG_MAX_SIZE + static_cast<long>(writing_threads) * WIFIM_LOG_LINE_SIZE;
}

// One well-formed request; the answer's text, or "" when none came.
std::string soak_request(const std::string& request) {
    std::string answer;
    wifim_raw::round_trip(kSocket, request, &answer, 120);
    return answer;
}

// A frame the server must refuse, or a client that goes away mid-frame.
void soak_bad_frame(int kind) {
    int fd = wifim_raw::client_connect(kSocket, 120);
    if (fd < 0) {
        return;
    }
    transfer_data_head head = {COMM_IDENTIFY_NUM, 16, 0};
    switch (kind % 5) {
        case 0:
            head.identify_num = 0x12345678u;
            break;
        case 1:
            head.data_size = 0;
            break;
        case 2:
            head.data_size = COMM_REQUEST_BUFFER_SIZE + 1;
            break;
        case 3:  // promises more than it sends, then leaves
            head.data_size = 200;
            break;
        default:  // leaves in the middle of the header
            send(fd, &head, 5, MSG_NOSIGNAL);
            close(fd);
            return;
    }
    wifim_raw::send_frame(fd, head, "function=GetAPList");
    if (kind % 5 != 3) {
        char c;
        recv(fd, &c, 1, 0);  // the server closes without answering
    }
    close(fd);
}

// The requests that touch the controller or the profile file; one of them
// comes every so often among the quick reports.
const std::vector<std::string> kSlowRequests = {
    "function=ConnectAP\nssid=home net\nsecurity=wpa2\npassword=secret123",
    "function=GetConnected",
    "function=Disconnect",
    "function=ReconnectAP\nssid=home net",
    "function=WPS",
    "function=SetNetSetting\ndhcp=0\ndns_dhcp=0\nip_addr=10.1.2.3\nnetmask=255.255.0.0"
    "\ngateway=10.1.0.1\ndns_server1=10.1.0.2\ndns_server2=10.1.0.3",
    "function=Remove\nssid=cafe\nsecurity=none",
    "function=ConnectAP\nssid=cafe\nsecurity=open",
    "function=Enable\nenable=1",
    "function=SetNetSetting",
};

const std::vector<std::string> kQuickRequests = {
    "function=GetAPList",      "function=GetNetSetting",        "function=GetWPSPin",
    "function=NoSuchFunction", "[section]\nfunction=GetWPSPin", "ssid=without function",
};

std::string request_for(int n) {
    if (n % 40 == 0) {
        return kSlowRequests[static_cast<size_t>(n / 40) % kSlowRequests.size()];
    }
    return kQuickRequests[static_cast<size_t>(n) % kQuickRequests.size()];
}

bool answer_fits(const std::string& request, const std::string& answer) {
    if (request.find("function=") == std::string::npos ||
        request.find("NoSuchFunction") != std::string::npos ||
        request.find("[section]") != std::string::npos) {
        return answer == kUnknownAnswer;
    }
    return answer.find("<result>") != std::string::npos && answer.compare(0, 5, "<?xml") == 0;
}

pid_t worker_of(pid_t supervisor) {
    std::string children = wifim_test::read_file("/proc/" + std::to_string(supervisor) + "/task/" +
                                                 std::to_string(supervisor) + "/children");
    return children.empty() ? -1 : static_cast<pid_t>(atoi(children.c_str()));
}

struct worker_usage {
    int descriptors = 0;
    int threads = 0;
    long rss_kib = 0;
};

worker_usage usage_of(pid_t pid) {
    worker_usage usage;
    std::string dir = "/proc/" + std::to_string(pid);
    DIR* fds = opendir((dir + "/fd").c_str());
    if (fds != nullptr) {
        while (struct dirent* e = readdir(fds)) {
            usage.descriptors += e->d_name[0] != '.';
        }
        closedir(fds);
    }
    for (const std::string& line :
         wifim_test::split_lines(wifim_test::read_file(dir + "/status"))) {
        if (line.compare(0, 8, "Threads:") == 0) {
            usage.threads = atoi(line.c_str() + 8);
        } else if (line.compare(0, 6, "VmRSS:") == 0) {
            usage.rss_kib = atol(line.c_str() + 6);
        }
    }
    return usage;
}

[[maybe_unused]] bool under_emulator(pid_t pid) {
    char target[256] = {0};
    std::string link = "/proc/" + std::to_string(pid) + "/exe";
    ssize_t n = readlink(link.c_str(), target, sizeof(target) - 1);
    return n > 0 && strstr(target, "qemu") != nullptr;
}

long file_size(const char* path) {
    struct stat st;
    return stat(path, &st) == 0 ? static_cast<long>(st.st_size) : 0;
}

class Soak : public DaemonRequests {
  protected:
    // Sends requests first..last-1 from kClients clients; counts the
    // well-formed ones that went unanswered or answered wrongly.
    void run_mix(int first, int last) {
        std::atomic<int> next{first};
        std::vector<std::thread> clients;
        for (int c = 0; c < kClients; c++) {
            clients.emplace_back([&] {
                for (int n = next++; n < last; n = next++) {
                    if (n % 25 == 7) {
                        soak_bad_frame(n / 25);
                        continue;
                    }
                    std::string request = request_for(n);
                    std::string answer = soak_request(request);
                    sent++;
                    if (!answer_fits(request, answer)) {
                        if (failed++ < 5) {
                            ADD_FAILURE() << "request " << n << ":\n"
                                          << request << "\nanswer:\n"
                                          << answer;
                        }
                    }
                }
            });
        }
        for (auto& t : clients) {
            t.join();
        }
    }

    // Usage once the server has finished with every connection.
    worker_usage settled_usage(pid_t worker) {
        usleep(1500000);
        return usage_of(worker);
    }

    std::atomic<int> sent{0};
    std::atomic<int> failed{0};
};

TEST_F(Soak, SteadyMixOfRequestsLeavesTheWorkerFlat) {
    const char* env = getenv("WIFIM_SOAK_REQUESTS");
    int total = env != nullptr ? atoi(env) : 5000;
    ASSERT_GE(total, 1000);
    start();
    wait_for_scan();
    pid_t worker = worker_of(daemon.pid);
    ASSERT_GT(worker, 0);

    std::atomic<bool> running{true};
    std::atomic<long> largest_log{0};
    std::thread log_watch([&] {
        while (running) {
            long size = file_size("/tmp/wifi_manager.log");
            if (size > largest_log) {
                largest_log = size;
            }
            usleep(2000);
        }
    });

    int warm_up = total / 10;
    run_mix(0, warm_up);
    worker_usage warm = settled_usage(worker);
    run_mix(warm_up, total);
    worker_usage end = settled_usage(worker);
    running = false;
    log_watch.join();

    EXPECT_EQ(failed.load(), 0) << "of " << sent.load() << " well-formed requests";
    EXPECT_EQ(worker_of(daemon.pid), worker) << "the worker was replaced during the run";
    // The pool of service threads may hold a few more or fewer idle threads
    // from one moment to the next; anything beyond that is a leak.
    EXPECT_LE(end.descriptors, warm.descriptors + 2)
        << "descriptors: " << warm.descriptors << " after warm-up, " << end.descriptors
        << " at end";
    EXPECT_LE(end.threads, warm.threads + 2)
        << "threads: " << warm.threads << " after warm-up, " << end.threads << " at end";
#ifndef WIFIM_SANITIZED
    // A sanitizer holds freed memory back to catch late uses of it, so
    // resident memory grows there by design; leaks are its own report. An
    // emulator (an ARM build under qemu) counts its own code cache as the
    // process's memory.
    if (!under_emulator(worker)) {
        EXPECT_LE(end.rss_kib, warm.rss_kib + 512)
            << "RSS KiB: " << warm.rss_kib << " after warm-up, " << end.rss_kib << " at end";
    }
#endif
    // The worker's threads and the supervisor write to the log.
    EXPECT_LE(largest_log.load(), log_bound(std::max(warm.threads, end.threads) + 1));
    RecordProperty("requests", sent.load());
    RecordProperty("rss_kib_warm", static_cast<int>(warm.rss_kib));
    RecordProperty("rss_kib_end", static_cast<int>(end.rss_kib));
    printf(
        "soak: %d well-formed requests; worker fds %d->%d, threads %d->%d, RSS %ld->%ld KiB; "
        "largest log %ld bytes\n",
        sent.load(), warm.descriptors, end.descriptors, warm.threads, end.threads, warm.rss_kib,
        end.rss_kib, largest_log.load());

    // What was saved last is what the file holds.
    ASSERT_EQ(soak_request("function=SetNetSetting\ndhcp=0\ndns_dhcp=0\nip_addr=192.168.7.9"
                           "\nnetmask=255.255.255.0\ngateway=192.168.7.1\ndns_server1=192.168.7.2"
                           "\ndns_server2=192.168.7.3")
                      .find("<result>0</result>") != std::string::npos,
              true);
    ASSERT_NE(soak_request("function=ConnectAP\nssid=home net\nsecurity=wpa2\npassword=secret123")
                  .find("<result>0</result>"),
              std::string::npos);
    bool enable = false;
    std::vector<wifi_ap_info> profiles;
    wifi_network_setting setting;
    wapinfo_read_profile(&enable, &profiles, &setting);
    EXPECT_TRUE(enable);
    EXPECT_FALSE(setting.dhcp);
    EXPECT_FALSE(setting.dns_dhcp);
    EXPECT_EQ(setting.ip_addr, "192.168.7.9");
    EXPECT_EQ(setting.netmask, "255.255.255.0");
    EXPECT_EQ(setting.gateway, "192.168.7.1");
    EXPECT_EQ(setting.dns_server1, "192.168.7.2");
    EXPECT_EQ(setting.dns_server2, "192.168.7.3");
    bool home_saved = false;
    for (const wifi_ap_info& p : profiles) {
        home_saved = home_saved || (p.ssid == "home net" && p.password == "secret123");
    }
    EXPECT_TRUE(home_saved);
}

}  // namespace
