// Helpers shared by the tests: files, processes of the built binary, waits.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace wifim_test {

std::string read_file(const std::string& path);
bool write_file(const std::string& path, const std::string& text, int mode = 0644);
bool file_exists(const std::string& path);
std::vector<std::string> split_lines(const std::string& text);

// Result of a finished process.
struct process_result {
    int exit_status = -1;  // exit code, or -1 when killed by a signal or timed out
    int term_signal = 0;
    bool timed_out = false;
    std::string out;
    std::string err;
    long elapsed_ms = 0;
};

// Runs argv to completion (killed after timeout_ms), capturing its output.
process_result run_process(const std::vector<std::string>& argv, int timeout_ms = 20000,
                           const std::string& stdin_text = "");

// Starts argv in the background; its stdout and stderr go to the given file
// (or /dev/null when empty). Returns the pid, or -1.
pid_t spawn_process(const std::vector<std::string>& argv, const std::string& output_file = "");
// SIGTERM, then SIGKILL after grace_ms; reaps it. Returns the wait status or -1.
int stop_process(pid_t pid, int grace_ms = 3000);
// Reaps pid if it has exited within timeout_ms; returns its wait status or -1.
int wait_process(pid_t pid, int timeout_ms);
bool process_alive(pid_t pid);

// Polls pred every 10 ms until it holds or timeout_ms passes.
bool wait_until(const std::function<bool()>& pred, int timeout_ms);

long now_ms();

// The daemon binary under test and the client mode of it.
std::string daemon_binary();
process_result run_client(const std::string& request, const std::vector<std::string>& extra = {},
                          int timeout_ms = 20000);

}  // namespace wifim_test
