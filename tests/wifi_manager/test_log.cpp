#include <gtest/gtest.h>

#include "test_support.h"
#include "wifi_manager/wifi_manager.h"

TEST(Log, PlaceholderWritesLine) {
    wifim_insert_log(LOG_Info, "hello");
    EXPECT_NE(wifim_test::read_file("/tmp/wifi_manager.log").find(",INFO ,hello\n"),
              std::string::npos);
}
