// The check that every log line names a function that writes its message:
// what it accepts and what it reports.
#include <gtest/gtest.h>

#include <string.h>

#include <string>

#include "log_owners.h"

using wifim_test::log_format_matches;
using wifim_test::unknown_log_entries;

static const char* kStamp = "2024/01/31 12:00:00,";

static std::string line(const std::string& level, const std::string& owner,
                        const std::string& message) {
    return std::string(kStamp) + level + ",tid:1024," + owner + "[580], " + message + "\n";
}

// A sample of what a format prints, for the table's own formats.
static std::string sample(const char* format) {
    std::string out;
    for (const char* p = format; *p != '\0'; p++) {
        if (*p != '%') {
            out += *p;
        } else if (strncmp(p, "%lld", 4) == 0) {
            out += "-1700000000000";
            p += 3;
        } else if (strncmp(p, "%lu", 3) == 0) {
            out += "140737";
            p += 2;
        } else if (p[1] == 'd') {
            out += "-3";
            p++;
        } else if (p[1] == 'u') {
            out += "7";
            p++;
        } else if (p[1] == 's') {
            out += "any text";
            p++;
        }
    }
    return out;
}

TEST(LogOwners, EveryMessageOfTheTableIsAcceptedUnderItsOwnerAndLevel) {
    for (const auto& known : wifim_test::known_log_messages()) {
        std::string text = line(known.level, std::string(known.source) + "-" + known.function,
                                sample(known.format));
        EXPECT_TRUE(unknown_log_entries(text).empty()) << text;
    }
}

TEST(LogOwners, AKeyLineOfTheNetworkBlockUnderAHelpersNameIsReported) {
    std::string message = "update network id:0, ssid:home, set psk fail";
    EXPECT_TRUE(unknown_log_entries(
                    line("ERROR", "wpacli_monitor.cpp-wpacm_update_wpa_network_setting", message))
                    .empty());
    auto unknown =
        unknown_log_entries(line("ERROR", "wpacli_monitor.cpp-wpacm_write_keys", message));
    ASSERT_EQ(unknown.size(), 1u);
    EXPECT_NE(unknown[0].find("written under wpacli_monitor.cpp-wpacm_write_keys, which writes no "
                              "message"),
              std::string::npos)
        << unknown[0];
}

TEST(LogOwners, AMessageOfAnotherFunctionIsReported) {
    // The loop's line belongs to the loop, not to the connect procedure.
    auto unknown = unknown_log_entries(line("INFO ", "wpacli_monitor.cpp-wpacm_connect_ap_private",
                                            "priority:hight, Connect to AP, ssid:home"));
    ASSERT_EQ(unknown.size(), 1u);
    EXPECT_NE(unknown[0].find("a message wpacli_monitor.cpp-wpacm_connect_ap_private does not "
                              "write"),
              std::string::npos)
        << unknown[0];
}

TEST(LogOwners, TheSameOwnersAndMessagesUnderAnotherSourceAreReported) {
    EXPECT_EQ(unknown_log_entries(line("FOCUS", "wpacli_monitor.cpp-main", "Program close")).size(),
              1u);
}

TEST(LogOwners, AMessageAtAnotherLevelIsReported) {
    // The automatic choice finds the list busy (a warning); a request thread
    // that cannot lock it at all has an error.
    std::string message = "Can't lock registed_ap_mutex...";
    EXPECT_TRUE(
        unknown_log_entries(line("WARN ", "wpacli_monitor.cpp-wpacm_service", message)).empty());
    EXPECT_TRUE(
        unknown_log_entries(line("ERROR", "wpacli_monitor.cpp-wpacm_disconnect", message)).empty());
    auto unknown = unknown_log_entries(line("ERROR", "wpacli_monitor.cpp-wpacm_service", message));
    ASSERT_EQ(unknown.size(), 1u);
    EXPECT_NE(unknown[0].find("written at level \"ERROR\""), std::string::npos) << unknown[0];
}

TEST(LogOwners, ALoggedAnswerSpanningLinesIsOneEntry) {
    std::string text = line("INFO ", "service_funs.cpp-service_call_back_function",
                            "service: function name Enable , use time: 3 ms, require comment: "
                            "function=Enable\nenable=1, response: <?xml version=\"1.0\" "
                            "encoding=\"UTF-8\" ?>\n<wifista_enable>\n<result>0</result>\n"
                            "<enable>1</enable>\n</wifista_enable>");
    EXPECT_TRUE(unknown_log_entries(text).empty());
    EXPECT_TRUE(unknown_log_entries(text + line("FOCUS", "wifi_manager.cpp-main", "Program close"))
                    .empty());
}

TEST(LogOwners, ALineCutAtTheLogsLimitMayStopAnywhere) {
    std::string data(2000, 'x');
    std::string whole = line("DEBUG", "wpacli_monitor.cpp-wpacm_update_scan_result",
                             "get SCAN_RESULT, size:2000,data:" + data);
    std::string cut = whole.substr(0, 1022) + "\n";
    EXPECT_TRUE(unknown_log_entries(cut).empty());
    // Cut in the middle of the fixed text, too.
    std::string early = line("INFO ", "service_funs.cpp-service_call_back_function",
                             "service: function name GetAPList , use time: 1 ms, require "
                             "comment: " +
                                 std::string(864, 'r') + ", response: <?xml");
    ASSERT_GE(early.size(), 1022u);
    EXPECT_TRUE(unknown_log_entries(early.substr(0, 1022) + "\n").empty());
    // A shorter line has to be whole.
    EXPECT_EQ(unknown_log_entries(line("DEBUG", "wpacli_monitor.cpp-wpacm_update_scan_result",
                                       "get SCAN_RESULT, size:"))
                  .size(),
              1u);
}

TEST(LogOwners, WhatACutDownLogKeptOfItsFirstLineIsPassedOver) {
    std::string text = "2" + line("FOCUS", "wifi_manager.cpp-main", "Program close");
    EXPECT_TRUE(unknown_log_entries(text).empty());
    EXPECT_EQ(unknown_log_entries(text + "not a log line\n" +
                                  line("FOCUS", "wifi_manager.cpp-main", "Program end"))
                  .size(),
              1u);
}

TEST(LogOwners, NumbersMatchDigitsOnly) {
    EXPECT_TRUE(log_format_matches("ret:%d", "ret:-12", false));
    EXPECT_FALSE(log_format_matches("ret:%d", "ret:", false));
    EXPECT_FALSE(log_format_matches("ret:%d", "ret:x", false));
    EXPECT_FALSE(log_format_matches("count:%u", "count:-1", false));
    EXPECT_TRUE(log_format_matches("clock:%lld/%lld", "clock:0/1700000000000", false));
    EXPECT_FALSE(log_format_matches("Connected", "Connected to home", false));
    EXPECT_TRUE(log_format_matches("WPS %s, pin:%s", "WPS PIN, pin:", false));
}
