#include "test_support.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

namespace wifim_test {

long now_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

std::string read_file(const std::string& path) {
    std::string text;
    FILE* fp = fopen(path.c_str(), "rb");
    if (fp == nullptr) {
        return text;
    }
    char buf[8192];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), fp)) > 0) {
        text.append(buf, n);
    }
    fclose(fp);
    return text;
}

bool write_file(const std::string& path, const std::string& text, int mode) {
    FILE* fp = fopen(path.c_str(), "wb");
    if (fp == nullptr) {
        return false;
    }
    bool ok = fwrite(text.data(), 1, text.size(), fp) == text.size();
    ok = (fclose(fp) == 0) && ok;
    chmod(path.c_str(), static_cast<mode_t>(mode));
    return ok;
}

bool file_exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> split_lines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            lines.push_back(text.substr(start));
            break;
        }
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

static std::vector<char*> to_argv(const std::vector<std::string>& argv) {
    std::vector<char*> out;
    for (const auto& a : argv) {
        out.push_back(const_cast<char*>(a.c_str()));
    }
    out.push_back(nullptr);
    return out;
}

process_result run_process(const std::vector<std::string>& argv, int timeout_ms,
                           const std::string& stdin_text) {
    process_result result;
    int out_pipe[2], err_pipe[2], in_pipe[2];
    if (pipe(out_pipe) != 0 || pipe(err_pipe) != 0 || pipe(in_pipe) != 0) {
        return result;
    }
    long start = now_ms();
    std::vector<char*> args = to_argv(argv);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(in_pipe[0], 0);
        dup2(out_pipe[1], 1);
        dup2(err_pipe[1], 2);
        for (int fd :
             {out_pipe[0], out_pipe[1], err_pipe[0], err_pipe[1], in_pipe[0], in_pipe[1]}) {
            close(fd);
        }
        execv(args[0], args.data());
        _exit(127);
    }
    close(out_pipe[1]);
    close(err_pipe[1]);
    close(in_pipe[0]);
    if (!stdin_text.empty()) {
        ssize_t ignored = write(in_pipe[1], stdin_text.data(), stdin_text.size());
        (void)ignored;
    }
    close(in_pipe[1]);
    struct pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
    int open_fds = 2;
    while (open_fds > 0) {
        long left = timeout_ms - (now_ms() - start);
        if (left <= 0) {
            result.timed_out = true;
            kill(pid, SIGKILL);
            break;
        }
        if (poll(fds, 2, static_cast<int>(left)) <= 0) {
            continue;
        }
        for (int i = 0; i < 2; i++) {
            if (fds[i].fd < 0 || fds[i].revents == 0) {
                continue;
            }
            char buf[4096];
            ssize_t n = read(fds[i].fd, buf, sizeof(buf));
            if (n <= 0) {
                close(fds[i].fd);
                fds[i].fd = -1;
                open_fds--;
            } else {
                (i == 0 ? result.out : result.err).append(buf, static_cast<size_t>(n));
            }
        }
    }
    for (auto& f : fds) {
        if (f.fd >= 0) {
            close(f.fd);
        }
    }
    int status = 0;
    waitpid(pid, &status, 0);
    result.elapsed_ms = now_ms() - start;
    if (WIFEXITED(status) && !result.timed_out) {
        result.exit_status = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.term_signal = WTERMSIG(status);
    }
    return result;
}

pid_t spawn_process(const std::vector<std::string>& argv, const std::string& output_file) {
    std::vector<char*> args = to_argv(argv);
    std::string out = output_file.empty() ? "/dev/null" : output_file;
    pid_t pid = fork();
    if (pid == 0) {
        int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        int null_fd = open("/dev/null", O_RDONLY);
        if (fd >= 0) {
            dup2(fd, 1);
            dup2(fd, 2);
        }
        if (null_fd >= 0) {
            dup2(null_fd, 0);
        }
        execv(args[0], args.data());
        _exit(127);
    }
    return pid;
}

int wait_process(pid_t pid, int timeout_ms) {
    long start = now_ms();
    while (true) {
        int status = 0;
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) {
            return status;
        }
        if (r < 0 || now_ms() - start >= timeout_ms) {
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

int stop_process(pid_t pid, int grace_ms) {
    if (pid <= 0) {
        return -1;
    }
    kill(pid, SIGTERM);
    int status = wait_process(pid, grace_ms);
    if (status == -1) {
        kill(pid, SIGKILL);
        status = wait_process(pid, 5000);
    }
    return status;
}

bool process_alive(pid_t pid) {
    if (pid <= 0 || kill(pid, 0) != 0) {
        return false;
    }
    // A zombie still answers kill(0); look at its state.
    std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t close_paren = stat.rfind(')');
    return close_paren == std::string::npos || close_paren + 2 >= stat.size() ||
           stat[close_paren + 2] != 'Z';
}

bool wait_until(const std::function<bool()>& pred, int timeout_ms) {
    long start = now_ms();
    while (true) {
        if (pred()) {
            return true;
        }
        if (now_ms() - start >= timeout_ms) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

std::string daemon_binary() {
    return WIFIM_BINARY;
}

process_result run_client(const std::string& request, const std::vector<std::string>& extra,
                          int timeout_ms) {
    std::vector<std::string> argv = {daemon_binary()};
    argv.insert(argv.end(), extra.begin(), extra.end());
    argv.push_back("-C");
    argv.push_back(request);
    return run_process(argv, timeout_ms);
}

}  // namespace wifim_test
