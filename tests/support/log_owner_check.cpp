// Linked into every test program whose code under test logs: when a test
// ends, each line the daemon wrote to the log of the test's private root
// must carry a source and function that write that message, at its level.
// Field tools and people grep the log by function name, so a line under
// another name is a line they never find. The whole suite is the proof: any
// test that makes the daemon or the controller log checks what they wrote.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <string>

#include "../../wifi_manager/fixed_paths.h"
#include "log_owners.h"

namespace {

// The log as its writers leave it: a shared lock keeps a writer from
// cutting the file down while it is read (writers retry for a while).
std::string read_log() {
    std::string text;
    int fd = open(WIFIM_LOG_FILE, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return text;
    }
    flock(fd, LOCK_SH);
    char buf[8192];
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0) {
        text.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return text;
}

class log_owner_check : public ::testing::EmptyTestEventListener {
    void OnTestEnd(const ::testing::TestInfo&) override {
        const size_t kShown = 10;
        std::vector<std::string> unknown = wifim_test::unknown_log_entries(read_log());
        for (size_t i = 0; i < unknown.size() && i < kShown; i++) {
            ADD_FAILURE() << WIFIM_LOG_FILE << ": " << unknown[i];
        }
        if (unknown.size() > kShown) {
            ADD_FAILURE() << WIFIM_LOG_FILE << ": " << unknown.size() - kShown
                          << " more lines the daemon does not write";
        }
    }
};

bool install_log_owner_check() {
    ::testing::UnitTest::GetInstance()->listeners().Append(new log_owner_check);
    return true;
}

[[maybe_unused]] const bool g_log_owner_check_installed = install_log_owner_check();

}  // namespace
