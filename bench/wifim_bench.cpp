// Measurements of a running daemon, printed as JSON objects on one line each
// for scripts/bench.sh to gather:
//
//   wifim_bench requests SOCKET COUNT      round trip of four kinds of request
//   wifim_bench throughput SOCKET COUNT [REQUEST]
//                                          GetAPList (or REQUEST) from 1, 5 and
//                                          20 clients, with the log lines lost
//   wifim_bench loglines SOCKET COUNT      GetAPList from 20 clients, for the
//                                          log lines lost over a long run
//   wifim_bench connect SOCKET COUNT       ConnectAP answered at once
//   wifim_bench run COUNT PROGRAM [ARG]... a whole process, start to end
//   wifim_bench pair COUNT A... -- B...    two programs run by turns, and the
//                                          ratio of their medians
//   wifim_bench mixed SOCKET COUNT         GetAPList and GetNetSetting by turns
//
// Requests are framed by hand, one per connection, as the device's own
// clients do; times are in microseconds.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "fixed_paths.h"
#include "raw_client.h"

namespace {

double now_us() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) * 1e6 + static_cast<double>(ts.tv_nsec) / 1e3;
}

struct summary {
    double median = 0, p99 = 0, max = 0;
    size_t failed = 0;
};

summary summarize(std::vector<double> samples, size_t failed) {
    summary s;
    s.failed = failed;
    if (samples.empty()) {
        return s;
    }
    std::sort(samples.begin(), samples.end());
    s.median = samples[samples.size() / 2];
    s.p99 = samples[std::min(samples.size() - 1, samples.size() * 99 / 100)];
    s.max = samples.back();
    return s;
}

void print_summary(const char* name, const summary& s, bool comma) {
    printf("\"%s\":{\"median_us\":%.1f,\"p99_us\":%.1f,\"max_us\":%.1f,\"failed\":%zu}%s", name,
           s.median, s.p99, s.max, s.failed, comma ? "," : "");
}

summary time_requests(const char* socket_path, const std::string& request, int count) {
    std::vector<double> samples;
    samples.reserve(static_cast<size_t>(count));
    size_t failed = 0;
    std::string answer;
    for (int i = 0; i < count; i++) {
        double start = now_us();
        if (wifim_raw::round_trip(socket_path, request, &answer)) {
            samples.push_back(now_us() - start);
        } else {
            failed++;
        }
    }
    return summarize(samples, failed);
}

int bench_requests(const char* socket_path, int count) {
    const char* names[] = {"GetAPList", "GetNetSetting", "GetWPSPin", "unknown"};
    const char* requests[] = {"function=GetAPList", "function=GetNetSetting", "function=GetWPSPin",
                              "function=NoSuchFunction"};
    printf("{");
    for (int k = 0; k < 4; k++) {
        time_requests(socket_path, requests[k], count / 20);  // warm-up
        print_summary(names[k], time_requests(socket_path, requests[k], count), k < 3);
    }
    printf("}\n");
    return 0;
}

// The log's own counts of the lines it was asked to write and of those that
// reached the file (a benchmark build keeps them); false without them.
bool read_log_counters(uint64_t* attempted, uint64_t* written) {
    uint64_t counters[2] = {0, 0};
    int fd = open(WIFIM_LOG_COUNTERS_FILE, O_RDONLY);
    if (fd < 0) {
        return false;
    }
    bool ok = pread(fd, counters, sizeof(counters), 0) == static_cast<ssize_t>(sizeof(counters));
    close(fd);
    *attempted = counters[0];
    *written = counters[1];
    return ok;
}

struct load_result {
    double requests_per_s = 0;
    summary latency;
    long long log_lines = -1;  // -1: the daemon keeps no counts
    long long log_lost = -1;
};

// count requests from `clients` clients at once, each one after the other.
load_result run_load(const char* socket_path, const char* request, int clients, int count) {
    std::vector<std::vector<double>> samples(static_cast<size_t>(clients));
    std::atomic<size_t> failed{0};
    std::vector<std::thread> threads;
    uint64_t tried0 = 0, written0 = 0, tried1 = 0, written1 = 0;
    bool counted = read_log_counters(&tried0, &written0);
    double start = now_us();
    for (int c = 0; c < clients; c++) {
        threads.emplace_back([&, c] {
            std::string answer;
            for (int i = c; i < count; i += clients) {
                double t = now_us();
                if (wifim_raw::round_trip(socket_path, request, &answer)) {
                    samples[static_cast<size_t>(c)].push_back(now_us() - t);
                } else {
                    failed++;
                }
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    double seconds = (now_us() - start) / 1e6;
    std::vector<double> all;
    for (auto& s : samples) {
        all.insert(all.end(), s.begin(), s.end());
    }
    load_result r;
    r.requests_per_s = static_cast<double>(all.size()) / seconds;
    r.latency = summarize(all, failed);
    if (counted && read_log_counters(&tried1, &written1)) {
        r.log_lines = static_cast<long long>(tried1 - tried0);
        r.log_lost = static_cast<long long>((tried1 - tried0) - (written1 - written0));
    }
    return r;
}

void print_load(const char* name, const load_result& r, bool comma) {
    printf(
        "\"%s\":{\"requests_per_s\":%.0f,\"median_us\":%.1f,\"p99_us\":%.1f,\"failed\":%zu,"
        "\"log_lines\":%lld,\"log_lost\":%lld}%s",
        name, r.requests_per_s, r.latency.median, r.latency.p99, r.latency.failed, r.log_lines,
        r.log_lost, comma ? "," : "");
}

// One request from 1, 5 and 20 clients at once.
int bench_throughput(const char* socket_path, const char* request, int count) {
    const int levels[] = {1, 5, 20};
    printf("{");
    for (int l = 0; l < 3; l++) {
        std::string name = std::to_string(levels[l]);
        print_load(name.c_str(), run_load(socket_path, request, levels[l], count), l < 2);
    }
    printf("}\n");
    return 0;
}

// A long run of 20 clients, for the log lines it loses.
int bench_log_lines(const char* socket_path, int count) {
    printf("{");
    print_load("20", run_load(socket_path, "function=GetAPList", 20, count), false);
    printf("}\n");
    return 0;
}

// ConnectAP to a network the simulator joins at once; the answer includes the
// daemon's fixed 500 ms pause before it adds the network.
int bench_connect(const char* socket_path, int count) {
    std::vector<double> samples;
    size_t failed = 0;
    std::string answer;
    for (int i = 0; i < count; i++) {
        double start = now_us();
        bool ok = wifim_raw::round_trip(socket_path, "function=ConnectAP\nssid=cafe\nsecurity=open",
                                        &answer);
        double elapsed = now_us() - start;
        if (ok && answer.find("<result>0</result>") != std::string::npos) {
            samples.push_back(elapsed);
        } else {
            failed++;
        }
    }
    summary s = summarize(samples, failed);
    printf(
        "{\"median_us\":%.0f,\"p99_us\":%.0f,\"fixed_pause_us\":500000,"
        "\"own_median_us\":%.0f,\"failed\":%zu}\n",
        s.median, s.p99, s.median - 500000.0, s.failed);
    return 0;
}

// One run of a whole process, its standard output dropped; the time in µs,
// or a negative number when it failed.
double time_process(char** argv) {
    double start = now_us();
    pid_t pid = fork();
    if (pid == 0) {
        int null_fd = open("/dev/null", O_WRONLY);
        dup2(null_fd, 1);
        execvp(argv[0], argv);
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    double elapsed = now_us() - start;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? elapsed : -1;
}

void print_process_summary(const summary& s) {
    printf("{\"median_us\":%.0f,\"p99_us\":%.0f,\"failed\":%zu}", s.median, s.p99, s.failed);
}

int bench_run(int count, char** argv) {
    std::vector<double> samples;
    size_t failed = 0;
    for (int i = 0; i < count; i++) {
        double elapsed = time_process(argv);
        elapsed >= 0 ? samples.push_back(elapsed) : (void)failed++;
    }
    print_process_summary(summarize(samples, failed));
    printf("\n");
    return 0;
}

// Two programs run by turns, so that whatever else the machine does falls
// on both alike.
int bench_pair(int count, char** a, char** b) {
    std::vector<double> samples[2];
    size_t failed[2] = {0, 0};
    char** argv[2] = {a, b};
    for (int i = 0; i < count; i++) {
        for (int k = 0; k < 2; k++) {
            double elapsed = time_process(argv[k]);
            elapsed >= 0 ? samples[k].push_back(elapsed) : (void)failed[k]++;
        }
    }
    summary sa = summarize(samples[0], failed[0]);
    summary sb = summarize(samples[1], failed[1]);
    printf("{\"a\":");
    print_process_summary(sa);
    printf(",\"b\":");
    print_process_summary(sb);
    printf(",\"ratio\":%.3f}\n", sb.median > 0 ? sa.median / sb.median : 0.0);
    return 0;
}

int bench_mixed(const char* socket_path, int count) {
    const char* requests[] = {"function=GetAPList", "function=GetNetSetting"};
    size_t failed = 0;
    std::string answer;
    for (int i = 0; i < count; i++) {
        if (!wifim_raw::round_trip(socket_path, requests[i % 2], &answer)) {
            failed++;
        }
    }
    printf("{\"requests\":%d,\"failed\":%zu}\n", count, failed);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 4 && strcmp(argv[1], "requests") == 0) {
        return bench_requests(argv[2], atoi(argv[3]));
    }
    if (argc >= 4 && strcmp(argv[1], "throughput") == 0) {
        return bench_throughput(argv[2], argc >= 5 ? argv[4] : "function=GetAPList", atoi(argv[3]));
    }
    if (argc >= 4 && strcmp(argv[1], "loglines") == 0) {
        return bench_log_lines(argv[2], atoi(argv[3]));
    }
    if (argc >= 4 && strcmp(argv[1], "connect") == 0) {
        return bench_connect(argv[2], atoi(argv[3]));
    }
    if (argc >= 4 && strcmp(argv[1], "run") == 0) {
        return bench_run(atoi(argv[2]), argv + 3);
    }
    if (argc >= 4 && strcmp(argv[1], "mixed") == 0) {
        return bench_mixed(argv[2], atoi(argv[3]));
    }
    if (argc >= 6 && strcmp(argv[1], "pair") == 0) {
        char** b = argv + 3;
        while (*b != nullptr && strcmp(*b, "--") != 0) {
            b++;
        }
        if (*b != nullptr) {
            *b = nullptr;  // ends A's arguments
            return bench_pair(atoi(argv[2]), argv + 3, b + 1);
        }
    }
    fprintf(stderr,
            "usage: %s requests|connect|mixed|loglines SOCKET COUNT | throughput SOCKET COUNT "
            "[REQUEST] "
            "| run COUNT PROGRAM [ARG]... | "
            "pair COUNT A [ARG]... -- B [ARG]...\n",
            argv[0]);
    return 2;
}
