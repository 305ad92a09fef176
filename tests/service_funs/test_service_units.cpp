// The dispatcher's arithmetic and answers, result tables, and the readers of
// the system's route and name-server files.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "service_funs/service_funs.h"
#include "test_support.h"

TEST(Dispatcher, UnknownFunctionAnswerIs124BytesWithoutLineEnd) {
    std::string answer = SERVICE_UNKNOWN_FUNCTION_ANSWER;
    EXPECT_EQ(answer.size(), 124u);
    EXPECT_NE(answer.back(), '\n');
}

TEST(Dispatcher, ZeroByteRequestGetsNoAnswerAndNoLogLine) {
    unlink("/tmp/wifi_manager.log");
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    char data[4] = {0};
    service_call_back_function(pair[0], data, 0, nullptr);
    service_call_back_function(pair[0], nullptr, 5, nullptr);
    char buf[16];
    EXPECT_EQ(recv(pair[1], buf, sizeof(buf), MSG_DONTWAIT), -1);
    EXPECT_FALSE(wifim_test::file_exists("/tmp/wifi_manager.log"));
    close(pair[0]);
    close(pair[1]);
}

TEST(Dispatcher, ElapsedTimeUsesWrappingThirtyTwoBitMilliseconds) {
    EXPECT_EQ(service_elapsed_ms(100, 500000, 101, 0), 500);
    // 1,700,000,000 s is 1.7e12 ms: each reading wraps in 32 bits.
    long long wrapped = service_elapsed_ms(1700000000, 0, 1700000001, 250000);
    EXPECT_EQ(wrapped, 1250);
    // Across a wrap of the 32-bit value the difference turns negative.
    long start_sec = 2147483;  // 2147483000 ms, just below 2^31
    EXPECT_EQ(service_elapsed_ms(start_sec, 647000, start_sec, 648000), -4294967295LL);
}

TEST(ResultTables, ConnectAndWpsColumns) {
    const int connect[] = {1, 1, 1, 1, 1, 0, 4, 5, 1, 1, 1, 1, 1, 1, 3, 1, 0, 1, 1};
    const int wps[] = {1, 1, 1, 1, 1, 0, 4, 5, 1, 1, 9, 0, 1, 8, 3, 1, 0, 1, 1};
    for (int status = 0; status <= 18; status++) {
        EXPECT_EQ(service_connect_result(status), connect[status]) << status;
        EXPECT_EQ(service_wps_result(status), wps[status]) << status;
    }
    EXPECT_EQ(service_connect_result(-1), API_FAIL);
}

static const char* kRouteHeader =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";

TEST(Gateway, FirstDefaultRouteOfTheInterfaceWins) {
    std::string text = std::string(kRouteHeader) +
                       "wlan0\t0000A8C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n"
                       "eth0\t00000000\t0101A8C0\t0003\t0\t0\t0\t00000000\t0\t0\t0\n"
                       "wlan0\t00000000\t0100A8C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n"
                       "wlan0\t00000000\t0200A8C0\t0003\t0\t0\t700\t00000000\t0\t0\t0\n";
    std::string gateway = "unchanged";
    EXPECT_TRUE(service_parse_gateway(text, "wlan0", gateway));
    EXPECT_EQ(gateway, "192.168.0.1");
    EXPECT_TRUE(service_parse_gateway(text, "eth0", gateway));
    EXPECT_EQ(gateway, "192.168.1.1");
}

TEST(Gateway, RouteWithANonZeroDestinationIsNeverTheGateway) {
    std::string text =
        std::string(kRouteHeader) + "wlan0\t0000A8C0\t0100A8C0\t0003\t0\t0\t0\t00FFFFFF\t0\t0\t0\n";
    std::string gateway = "unchanged";
    EXPECT_FALSE(service_parse_gateway(text, "wlan0", gateway));
    EXPECT_EQ(gateway, "unchanged");
    EXPECT_FALSE(service_parse_gateway("", "wlan0", gateway));
    EXPECT_FALSE(
        service_parse_gateway(std::string(kRouteHeader) + "\n\ngarbage\n", "wlan0", gateway));
}

TEST(NameServers, EntriesAfterTheMarkerAreNotReported) {
    std::vector<std::string> dns;
    service_parse_dnsservers(
        "# system\nnameserver 1.1.1.1\nNAMESERVER 2.2.2.2\nsearch lan\nnameserver\n"
        "#wifi_manager\nnameserver 3.3.3.3\n",
        dns);
    EXPECT_EQ(dns, (std::vector<std::string>{"1.1.1.1", "2.2.2.2"}));
}

TEST(NameServers, MarkerWithBlanksInsideStillCounts) {
    std::vector<std::string> dns;
    service_parse_dnsservers("nameserver 1.1.1.1\n  # WiFi_ Manager settings\nnameserver 3.3.3.3\n",
                             dns);
    EXPECT_EQ(dns, (std::vector<std::string>{"1.1.1.1"}));
}

// Values outside CDATA carry the three characters that would break the XML
// as entities; every other value is written as it stands.
TEST(AnswerWriter, ElementValuesEscapeAmpersandAndAngleBrackets) {
    service_stream out;
    service_write_element(out, "dns_server1", "1.2.3.4");
    service_write_element(out, "pin", "a&b<c>d\"e'f");
    EXPECT_EQ(out.str(), "<dns_server1>1.2.3.4</dns_server1>\n<pin>a&amp;b&lt;c&gt;d\"e'f</pin>\n");
}

// A "]]>" inside a name would end its CDATA section early: it is split
// across two sections, which an XML reader joins again.
TEST(AnswerWriter, NameInCdataSplitsEveryCdataEnd) {
    service_stream out;
    service_write_ssid(out, "  ", "home net");
    service_write_ssid(out, "", "]]></ssid><connected>1");
    service_write_ssid(out, "", "a]]>b]]]>c");
    EXPECT_EQ(out.str(),
              "  <ssid><![CDATA[home net]]></ssid>\n"
              "<ssid><![CDATA[]]]]><![CDATA[></ssid><connected>1]]></ssid>\n"
              "<ssid><![CDATA[a]]]]><![CDATA[>b]]]]]><![CDATA[>c]]></ssid>\n");
}
