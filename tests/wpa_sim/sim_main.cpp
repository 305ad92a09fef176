// Transport of the simulator: the control socket wpa_supplicant would serve,
// the test control socket, timers, and the command log.
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "wpa_sim.h"

sim_state g_sim;

long sim_now_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

// The simulated radio's own time: inside a timer, the time that timer was
// due; otherwise the clock. A step scheduled by another step is timed from
// when that step was due, not from when a busy machine got round to it, so
// the world keeps the timing it describes.
long sim_world_ms() {
    return g_sim.running_timer_due_ms >= 0 ? g_sim.running_timer_due_ms : sim_now_ms();
}

void sim_after(int delay_ms, std::function<void()> run) {
    g_sim.timers.push_back({sim_world_ms() + delay_ms, std::move(run)});
}

static void sim_append(const std::string& file, const std::string& line) {
    if (file.empty()) {
        return;
    }
    FILE* fp = fopen(file.c_str(), "a");
    if (fp == nullptr) {
        return;
    }
    fprintf(fp, "%s\n", line.c_str());
    fclose(fp);
}

void sim_log(const std::string& command, const std::string& reply) {
    std::string first = reply.substr(0, reply.find('\n'));
    sim_append(g_sim.log_file, command + "\t" + first);
    if (command == "EVENT") {
        sim_log_arrival("EVENT\t" + first);
    }
}

void sim_log_arrival(const std::string& what) {
    sim_append(g_sim.timeline_file, std::to_string(sim_world_ms()) + "\t" + what);
}

void sim_event(const std::string& text) {
    std::string message = "<3>" + text;
    sim_log("EVENT", text);
    for (const sim_client& c : g_sim.attached) {
        sendto(g_sim.fd, message.data(), message.size(), MSG_DONTWAIT,
               reinterpret_cast<const struct sockaddr*>(&c.addr), c.len);
    }
}

static int sim_bind(const std::string& path) {
    unlink(path.c_str());
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    if (fd < 0 || bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0) {
        perror(path.c_str());
        return -1;
    }
    chmod(path.c_str(), 0770);
    return fd;
}

static void sim_serve(int fd, bool control) {
    char buf[4096];
    sim_client from;
    from.len = sizeof(from.addr);
    ssize_t n = recvfrom(fd, buf, sizeof(buf) - 1, 0,
                         reinterpret_cast<struct sockaddr*>(&from.addr), &from.len);
    if (n <= 0) {
        return;
    }
    std::string text(buf, static_cast<size_t>(n));
    bool answer = true;
    std::string reply =
        control ? sim_handle_control(text) : sim_handle_command(text, from, &answer);
    if (answer) {
        sendto(fd, reply.data(), reply.size(), 0, reinterpret_cast<struct sockaddr*>(&from.addr),
               from.len);
    }
}

static int sim_next_timeout() {
    if (g_sim.timers.empty()) {
        return 1000;
    }
    long next = g_sim.timers.front().due_ms;
    for (const sim_timer& t : g_sim.timers) {
        next = std::min(next, t.due_ms);
    }
    long wait = next - sim_now_ms();
    return wait < 0 ? 0 : static_cast<int>(wait);
}

static void sim_run_due_timers() {
    long now = sim_now_ms();
    std::vector<sim_timer> due;
    std::vector<sim_timer> later;
    for (sim_timer& t : g_sim.timers) {
        (t.due_ms <= now ? due : later).push_back(std::move(t));
    }
    g_sim.timers = std::move(later);
    std::stable_sort(due.begin(), due.end(),
                     [](const sim_timer& a, const sim_timer& b) { return a.due_ms < b.due_ms; });
    for (sim_timer& t : due) {
        g_sim.running_timer_due_ms = t.due_ms;
        t.run();
        g_sim.running_timer_due_ms = -1;
    }
}

static void sim_usage() {
    fprintf(stderr,
            "usage: wpa_sim -p <ctrl_dir> -i <interface> [-w <world file>] [-c <wpa config>] "
            "[-l <command log>] [-t <timed log>]\n");
}

static void sim_stop(int) {
    g_sim.running = false;
}

int main(int argc, char* argv[]) {
    int opt;
    g_sim.interface = "wlan0";
    while ((opt = getopt(argc, argv, "p:i:w:c:l:t:")) != -1) {
        switch (opt) {
            case 'p':
                g_sim.ctrl_dir = optarg;
                break;
            case 'i':
                g_sim.interface = optarg;
                break;
            case 'w':
                g_sim.world_file = optarg;
                break;
            case 'c':
                g_sim.config_file = optarg;
                break;
            case 'l':
                g_sim.log_file = optarg;
                break;
            case 't':
                g_sim.timeline_file = optarg;
                break;
            default:
                sim_usage();
                return 2;
        }
    }
    if (g_sim.ctrl_dir.empty()) {
        sim_usage();
        return 2;
    }
    if (!g_sim.world_file.empty() && !sim_load_world(g_sim.world_file)) {
        fprintf(stderr, "wpa_sim: cannot read %s\n", g_sim.world_file.c_str());
        return 1;
    }
    signal(SIGTERM, sim_stop);
    signal(SIGINT, sim_stop);
    mkdir(g_sim.ctrl_dir.c_str(), 0770);
    std::string path = g_sim.ctrl_dir + "/" + g_sim.interface;
    g_sim.fd = sim_bind(path);
    g_sim.control_fd = sim_bind(path + ".sim");
    if (g_sim.fd < 0 || g_sim.control_fd < 0) {
        return 1;
    }
    while (g_sim.running) {
        struct pollfd fds[2] = {{g_sim.fd, POLLIN, 0}, {g_sim.control_fd, POLLIN, 0}};
        int ready = poll(fds, 2, sim_next_timeout());
        if (ready < 0 && errno != EINTR) {
            break;
        }
        if (ready > 0 && (fds[0].revents & POLLIN)) {
            sim_serve(g_sim.fd, false);
        }
        if (ready > 0 && (fds[1].revents & POLLIN)) {
            sim_serve(g_sim.control_fd, true);
        }
        sim_run_due_timers();
    }
    // A crash is simulated by leaving: the sockets go with the process.
    unlink(path.c_str());
    unlink((path + ".sim").c_str());
    return 0;
}
