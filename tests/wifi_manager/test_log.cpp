// The log: line layout, limits, console echo and the shrink rule.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <thread>

#include "test_support.h"
#include "wifi_manager/wifi_manager.h"

using wifim_test::read_file;
using wifim_test::write_file;

static const char* kLog = "/tmp/wifi_manager.log";

class Log : public ::testing::Test {
  protected:
    void SetUp() override {
        unlink(kLog);
        g_foreground_flag = false;
    }
    void TearDown() override { g_foreground_flag = false; }
};

// Captures what the process writes to standard output while fn runs.
static std::string capture_stdout(const std::function<void()>& fn) {
    fflush(stdout);
    int saved = dup(1);
    char path[] = "/tmp/stdout.XXXXXX";
    int fd = mkstemp(path);
    dup2(fd, 1);
    fn();
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    close(fd);
    std::string text = read_file(path);
    unlink(path);
    return text;
}

TEST_F(Log, LineHasDateTimeLevelAndMessage) {
    wifim_insert_log(LOG_Info, "hello %d", 42);
    std::string text = read_file(kLog);
    EXPECT_TRUE(
        std::regex_match(text, std::regex(R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d,INFO ,hello 42\n)")))
        << text;
}

TEST_F(Log, EveryLevelHasItsFiveCharacterName) {
    wifim_insert_log(LOG_Debug, "d");
    wifim_insert_log(LOG_Info, "i");
    wifim_insert_log(LOG_Warn, "w");
    wifim_insert_log(LOG_Error, "e");
    wifim_insert_log(LOG_FocusWrite, "f");
    auto lines = wifim_test::split_lines(read_file(kLog));
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0].substr(19), ",DEBUG,d");
    EXPECT_EQ(lines[1].substr(19), ",INFO ,i");
    EXPECT_EQ(lines[2].substr(19), ",WARN ,w");
    EXPECT_EQ(lines[3].substr(19), ",ERROR,e");
    EXPECT_EQ(lines[4].substr(19), ",FOCUS,f");
}

TEST_F(Log, UnknownLevelValuesPrintFocus) {
    wifim_insert_log(static_cast<LogLevel>(999), "a");
    wifim_insert_log(static_cast<LogLevel>(4), "b");
    wifim_insert_log(static_cast<LogLevel>(12345), "c");
    auto lines = wifim_test::split_lines(read_file(kLog));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].substr(19), ",FOCUS,a");
    EXPECT_EQ(lines[1].substr(19), ",FOCUS,b");
    EXPECT_EQ(lines[2].substr(19), ",FOCUS,c");
}

TEST_F(Log, LongMessageIsCutTo1022CharactersAndGetsALineFeed) {
    std::string message(1100, 'x');
    wifim_insert_log(LOG_Info, "%s", message.c_str());
    std::string text = read_file(kLog);
    ASSERT_EQ(text.size(), 1023u);
    EXPECT_EQ(text.back(), '\n');
    EXPECT_EQ(text.find('\n'), 1022u);
    EXPECT_EQ(text.substr(19, 7), ",INFO ,");
    EXPECT_EQ(text.substr(26, 996), std::string(996, 'x'));
}

TEST_F(Log, MessageEndingInLineFeedGetsNoSecondOneInTheFile) {
    g_foreground_flag = true;
    std::string console = capture_stdout([] { wifim_insert_log(LOG_Warn, "ends here\n"); });
    std::string text = read_file(kLog);
    ASSERT_EQ(wifim_test::split_lines(text).size(), 1u);
    EXPECT_EQ(text.substr(19), ",WARN ,ends here\n");
    // puts adds its own line end on the console.
    EXPECT_EQ(console.substr(19), ",WARN ,ends here\n\n");
}

TEST_F(Log, ForegroundEchoesEveryLineToTheConsole) {
    g_foreground_flag = true;
    std::string console = capture_stdout([] { wifim_insert_log(LOG_Error, "boom"); });
    EXPECT_EQ(console.substr(19), ",ERROR,boom\n");
    EXPECT_EQ(read_file(kLog).substr(19), ",ERROR,boom\n");
}

TEST_F(Log, BackgroundModeDoesNotEchoToTheConsole) {
    std::string console = capture_stdout([] { wifim_insert_log(LOG_Error, "quiet"); });
    EXPECT_EQ(console, "");
    EXPECT_EQ(read_file(kLog).substr(19), ",ERROR,quiet\n");
}

TEST_F(Log, LogNoneNeverReachesTheFile) {
    std::string console = capture_stdout([] { wifim_insert_log(LOG_None, "bg %s", "none"); });
    EXPECT_EQ(console, "");
    EXPECT_FALSE(wifim_test::file_exists(kLog));

    g_foreground_flag = true;
    console = capture_stdout([] { wifim_insert_log(LOG_None, "fg %s", "none"); });
    EXPECT_EQ(console.substr(19), ",FOCUS,fg none\n");
    EXPECT_FALSE(wifim_test::file_exists(kLog));
}

TEST_F(Log, NullFormatWritesAnEmptyLine) {
    wifim_insert_log(LOG_Info, nullptr);
    EXPECT_EQ(read_file(kLog), "\n");
}

TEST_F(Log, MessageConventionNamesThreadSourceFunctionAndLine) {
    WIFIM_LOG(LOG_FocusWrite, "Program close");
    std::string line = read_file(kLog);
    std::string expected_tid = std::to_string(static_cast<unsigned long>(pthread_self()));
    EXPECT_TRUE(
        std::regex_match(line, std::regex(R"(.{19},FOCUS,tid:)" + expected_tid +
                                          R"(,wifi_manager.cpp-TestBody\[\d+\], Program close\n)")))
        << line;
}

TEST_F(Log, FileOfExactly102400BytesIsShrunkBeforeTheNextLine) {
    ASSERT_TRUE(write_file(kLog, std::string(102400, 'a')));
    wifim_append_str_to_file(kLog, "next", 102400);
    // The tail starts with an ordinary byte, so only that byte survives.
    EXPECT_EQ(read_file(kLog), "anext\n");
}

TEST_F(Log, FileOf102399BytesIsNotShrunk) {
    ASSERT_TRUE(write_file(kLog, std::string(102399, 'a')));
    wifim_append_str_to_file(kLog, "next", 102400);
    std::string text = read_file(kLog);
    EXPECT_EQ(text.size(), 102399u + 5u);
    EXPECT_EQ(text.substr(102399), "next\n");
}

TEST_F(Log, ShrinkKeepsTheTailAfterALeadingCarriageReturnAndLineFeed) {
    std::string content(102400 - 92160, 'a');
    std::string tail = "\r\n" + std::string(92158 - 5, 'b') + "tail\n";
    ASSERT_EQ(tail.size(), 92160u);
    ASSERT_TRUE(write_file(kLog, content + tail));
    wifim_append_str_to_file(kLog, "next", 102400);
    EXPECT_EQ(read_file(kLog), tail.substr(2) + "next\n");
}

TEST_F(Log, ShrinkSkipsALoneCarriageReturn) {
    std::string tail = "\r" + std::string(92159, 'c');
    ASSERT_TRUE(write_file(kLog, std::string(102400 - 92160, 'a') + tail));
    wifim_append_str_to_file(kLog, "next", 102400);
    EXPECT_EQ(read_file(kLog), tail.substr(1) + "next\n");
}

TEST_F(Log, LineIsDroppedWhenTheLockCannotBeHad) {
    ASSERT_TRUE(write_file(kLog, "held\n"));
    int fd = open(kLog, O_RDONLY);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    long start = wifim_test::now_ms();
    wifim_insert_log(LOG_Info, "lost");
    long waited = wifim_test::now_ms() - start;
    close(fd);
    EXPECT_EQ(read_file(kLog), "held\n");
    EXPECT_GE(waited, 90);  // ten attempts, 10 ms apart
}

TEST_F(Log, ConcurrentWritersNeverSplitALine) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([t] {
            for (int i = 0; i < 50; i++) {
                wifim_insert_log(LOG_Info, "writer %d line %d %s", t, i,
                                 std::string(100, 'z').c_str());
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    auto lines = wifim_test::split_lines(read_file(kLog));
    // Lines may be lost under contention, never split or merged.
    EXPECT_GT(lines.size(), 0u);
    std::regex shape(R"(.{19},INFO ,writer \d line \d+ z{100})");
    for (const auto& line : lines) {
        EXPECT_TRUE(std::regex_match(line, shape)) << line;
    }
}

// The request services log from up to five threads at once, the service
// loop and the listener beside them: within one process every line gets its
// turn, so none is lost however many write at once, and each stays whole.
TEST_F(Log, ManyThreadsLoggingAtOnceLoseNoLineAndSplitNone) {
    const int kThreads = 16;
    const int kLines = 60;  // 960 lines of about 90 bytes: no cut of the log
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; i++) {
                wifim_insert_log(LOG_Info, "writer %02d line %02d %s", t, i,
                                 std::string(50, 'z').c_str());
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    auto lines = wifim_test::split_lines(read_file(kLog));
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    std::regex shape(R"(.{19},INFO ,writer (\d\d) line (\d\d) z{50})");
    std::vector<int> next(kThreads, 0);
    for (const auto& line : lines) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, shape)) << line;
        int writer = std::stoi(m[1]);
        // Each writer's lines stand in the order it wrote them.
        EXPECT_EQ(std::stoi(m[2]), next[static_cast<size_t>(writer)]++) << line;
    }
}

TEST_F(Log, APlantedLinkIsReplacedNotWrittenThrough) {
    ASSERT_TRUE(write_file("/tmp/victim", "precious\n"));
    ASSERT_EQ(symlink("/tmp/victim", kLog), 0);
    wifim_insert_log(LOG_Info, "through the link");
    EXPECT_EQ(read_file("/tmp/victim"), "precious\n");
    // The line went to a log of the daemon's own in the link's place.
    struct stat st;
    ASSERT_EQ(lstat(kLog, &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(read_file(kLog).substr(19), ",INFO ,through the link\n");
    // A link to nothing must not create its target either.
    unlink(kLog);
    unlink("/tmp/victim");
    ASSERT_EQ(symlink("/tmp/victim", kLog), 0);
    wifim_insert_log(LOG_Info, "through the dangling link");
    EXPECT_FALSE(wifim_test::file_exists("/tmp/victim"));
    EXPECT_EQ(read_file(kLog).substr(19), ",INFO ,through the dangling link\n");
    unlink(kLog);
}

// A FIFO at the log's path would block every writer, the supervisor's and
// every thread of the worker, for as long as nobody reads it.
TEST_F(Log, APlantedFifoNeitherHangsAWriterNorKeepsItsPlace) {
    ASSERT_EQ(mkfifo(kLog, 0666), 0);
    pid_t writer = fork();
    if (writer == 0) {
        wifim_insert_log(LOG_Info, "not into the pipe");
        _exit(0);
    }
    int status = wifim_test::wait_process(writer, 10000);
    if (status == -1) {
        kill(writer, SIGKILL);
        waitpid(writer, nullptr, 0);
    }
    ASSERT_NE(status, -1) << "the writer hung on the FIFO";
    struct stat st;
    ASSERT_EQ(lstat(kLog, &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(read_file(kLog).substr(19), ",INFO ,not into the pipe\n");
}

// Another user's file at the log's path would hand that user every line,
// keys included, however its mode is set afterwards.
TEST_F(Log, AFileOfAnotherUserIsReplacedAndLearnsNothing) {
    ASSERT_TRUE(write_file(kLog, "planted\n", 0644));
    ASSERT_EQ(chown(kLog, 65534, 65534), 0);
    int planted = open(kLog, O_RDONLY);  // what its owner keeps reading
    ASSERT_GE(planted, 0);
    wifim_insert_log(LOG_Info, "key=secret123");
    struct stat st;
    ASSERT_EQ(lstat(kLog, &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_uid, geteuid());
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(read_file(kLog).substr(19), ",INFO ,key=secret123\n");
    char seen[64] = {};
    EXPECT_EQ(pread(planted, seen, sizeof(seen) - 1, 0), 8);
    EXPECT_STREQ(seen, "planted\n");
    close(planted);
}

// A second name for the log (a hard link made while it was the daemon's)
// would keep every later line readable, or append them to another file.
TEST_F(Log, AHardLinkedFileIsReplaced) {
    ASSERT_TRUE(write_file("/tmp/victim", "precious\n", 0600));
    ASSERT_EQ(link("/tmp/victim", kLog), 0);
    wifim_insert_log(LOG_Info, "not appended");
    EXPECT_EQ(read_file("/tmp/victim"), "precious\n");
    EXPECT_EQ(read_file(kLog).substr(19), ",INFO ,not appended\n");
    unlink("/tmp/victim");
}

// Whoever holds the log's lock sees it unchanged until it lets go: a writer
// that cuts a full log down does so under the lock, from reading its tail
// to rewriting it, so a line appended meanwhile by another writer is never
// cut away with the old content.
TEST_F(Log, NoWriterChangesTheLogWhileAnotherHoldsItsLock) {
    ASSERT_TRUE(write_file(kLog, std::string(300, 'a') + "\n", 0600));
    const long small_limit = 200;  // nearly every line cuts the log
    pid_t writer = fork();
    if (writer == 0) {
        for (int i = 0; i < 20000; i++) {
            wifim_append_str_to_file(kLog, "a line of the other writer, long enough to fill",
                                     small_limit);
        }
        _exit(0);
    }
    int changed = 0;
    int held = 0;
    for (; held < 400 && wifim_test::process_alive(writer); held++) {
        int fd = open(kLog, O_RDONLY);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(flock(fd, LOCK_EX), 0);
        std::string before = read_file(kLog);
        usleep(2000);
        if (read_file(kLog) != before) {
            changed++;
        }
        close(fd);
        usleep(500);
    }
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
    EXPECT_GT(held, 50) << "the other writer ended too soon to be watched";
    EXPECT_EQ(changed, 0) << "the log changed under the lock in " << changed << " of " << held
                          << " holds";
}

TEST_F(Log, APlantedLinkToALargeFileIsNotShrunk) {
    std::string big(WIFIM_LOG_MAX_SIZE + 10, 'x');
    ASSERT_TRUE(write_file("/tmp/victim", big));
    ASSERT_EQ(symlink("/tmp/victim", kLog), 0);
    wifim_insert_log(LOG_Info, "shrink through the link");
    EXPECT_EQ(read_file("/tmp/victim"), big);
    unlink(kLog);
    unlink("/tmp/victim");
}

TEST_F(Log, TheLogIsTheOwnersAloneWhateverTheUmask) {
    mode_t old = umask(0);
    wifim_insert_log(LOG_Info, "key=secret");
    struct stat st;
    ASSERT_EQ(stat(kLog, &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    // A log left more open by an older daemon is closed up on the next line.
    chmod(kLog, 0644);
    wifim_insert_log(LOG_Info, "another line");
    ASSERT_EQ(stat(kLog, &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    // So is the file the shrink rewrites.
    ASSERT_TRUE(write_file(kLog, std::string(WIFIM_LOG_MAX_SIZE, 'y'), 0644));
    wifim_insert_log(LOG_Info, "after the shrink");
    ASSERT_EQ(stat(kLog, &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    umask(old);
}

TEST_F(Log, DatesFollowTheWallClock) {
    // One year ahead of the host's clock, as after a step to a time server.
    wifim_step_wall_clock(366LL * 24 * 3600 * 1000);
    wifim_insert_log(LOG_Info, "stepped");
    wifim_step_wall_clock(-366LL * 24 * 3600 * 1000);
    time_t now = time(nullptr) + 366 * 24 * 3600;
    struct tm local;
    localtime_r(&now, &local);
    char year[8];
    strftime(year, sizeof(year), "%Y/", &local);
    EXPECT_EQ(read_file(kLog).compare(0, 5, year), 0) << read_file(kLog);
}

// A camera's clock goes past January 2038, when a 32-bit time_t wraps: the
// ARM build (run under emulation by the ARM test run) must date its lines
// as such.
TEST_F(Log, DatesPast2038AreWrittenAsSuch) {
    EXPECT_EQ(sizeof(time_t), 8u);
    const int64_t june_2040_ms = 2222294400LL * 1000;  // 2040-06-03 00:00:00 UTC
    int64_t delta_ms = june_2040_ms - wifim_wall_clock_ms();
    wifim_step_wall_clock(delta_ms);
    EXPECT_GT(wifim_wall_clock_ms(), 2147483647LL * 1000);
    wifim_insert_log(LOG_Info, "after 2038");
    wifim_step_wall_clock(-delta_ms);
    EXPECT_EQ(read_file(kLog).substr(0, 8), "2040/06/") << read_file(kLog);
}
