// Ordering of the registered profiles by priority.
#include <gtest/gtest.h>

#include "wifi_ap_info/wifi_ap_info.h"

static wifi_ap_info profile(const std::string& ssid, int priority, const std::string& bssid = "") {
    wifi_ap_info ap;
    clear_wifi_ap_info(&ap);
    ap.ssid = ssid;
    ap.bssid = bssid;
    ap.priority = priority;
    ap.security = WIFI_SECURITY_ANY_WPA;
    return ap;
}

static std::vector<std::string> ssids(const std::vector<wifi_ap_info>& list) {
    std::vector<std::string> out;
    for (const auto& ap : list) {
        out.push_back(ap.ssid);
    }
    return out;
}

static std::vector<int> priorities(const std::vector<wifi_ap_info>& list) {
    std::vector<int> out;
    for (const auto& ap : list) {
        out.push_back(ap.priority);
    }
    return out;
}

TEST(ProfileOrder, EmptyListStaysEmpty) {
    std::vector<wifi_ap_info> list;
    wapinfo_reindex_ap_list(list, true);
    EXPECT_TRUE(list.empty());
    wapinfo_reindex_ap_list(list, false);
    EXPECT_TRUE(list.empty());
}

TEST(ProfileOrder, RenumberInPlace) {
    std::vector<wifi_ap_info> list = {profile("a", 5), profile("b", 2), profile("c", 9)};
    wapinfo_reindex_ap_list(list, false);
    EXPECT_EQ(ssids(list), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(priorities(list), (std::vector<int>{2, 1, 3}));
}

TEST(ProfileOrder, ResortAndRenumber) {
    std::vector<wifi_ap_info> list = {profile("a", 5), profile("b", 2), profile("c", 9)};
    wapinfo_reindex_ap_list(list, true);
    EXPECT_EQ(ssids(list), (std::vector<std::string>{"b", "a", "c"}));
    EXPECT_EQ(priorities(list), (std::vector<int>{1, 2, 3}));
}

TEST(ProfileOrder, ExchangeSortIsNotStable) {
    std::vector<wifi_ap_info> list = {profile("P", 2), profile("Q", 2), profile("R", 1)};
    wapinfo_reindex_ap_list(list, true);
    EXPECT_EQ(ssids(list), (std::vector<std::string>{"R", "Q", "P"}));
    EXPECT_EQ(priorities(list), (std::vector<int>{1, 2, 3}));
}

TEST(ProfileOrder, ProfilesOutsideTheOrderingKeepTheirPriorityAtTheFront) {
    std::vector<wifi_ap_info> list = {profile("a", -1), profile("b", 3), profile("c", 3)};
    wapinfo_reindex_ap_list(list, true);
    EXPECT_EQ(ssids(list), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(priorities(list), (std::vector<int>{-1, 1, 2}));

    list = {profile("x", 4), profile("y", 0), profile("z", -2)};
    wapinfo_reindex_ap_list(list, true);
    EXPECT_EQ(ssids(list), (std::vector<std::string>{"z", "y", "x"}));
    EXPECT_EQ(priorities(list), (std::vector<int>{-2, 0, 1}));
}

TEST(ProfileOrder, OnlyProfileOfPriorityZeroIsLeftUnchanged) {
    std::vector<wifi_ap_info> list = {profile("a", 0)};
    wapinfo_reindex_ap_list(list, true);
    EXPECT_EQ(priorities(list), (std::vector<int>{0}));
    wapinfo_reindex_ap_list(list, false);
    EXPECT_EQ(priorities(list), (std::vector<int>{0}));
}

TEST(ProfileOrder, IdenticalProfilesInPlaceNumberOnlyTheFirst) {
    std::vector<wifi_ap_info> list = {profile("same", 7, "b1"), profile("same", 9, "b1"),
                                      profile("other", 8, "b2")};
    wapinfo_reindex_ap_list(list, false);
    // Sorted copy: same(7)->1, other(8)->2, same(9)->3; both "same" numbers
    // land on the first.
    EXPECT_EQ(priorities(list), (std::vector<int>{3, 9, 2}));
}
