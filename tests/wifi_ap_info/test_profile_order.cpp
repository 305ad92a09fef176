// Ordering of the registered profiles by priority.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "wifi_ap_info/wifi_ap_info.h"

namespace {

wifi_ap_info profile(const std::string& ssid, int priority) {
    wifi_ap_info info;
    info.network_id = -1;
    info.ssid = ssid;
    info.security = WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES;
    info.signal = -1;
    info.priority = priority;
    info.saved = true;
    return info;
}

std::vector<std::string> ssids_of(const std::vector<wifi_ap_info>& list) {
    std::vector<std::string> ssids;
    for (const auto& entry : list) {
        ssids.push_back(entry.ssid);
    }
    return ssids;
}

std::vector<int> priorities_of(const std::vector<wifi_ap_info>& list) {
    std::vector<int> priorities;
    for (const auto& entry : list) {
        priorities.push_back(entry.priority);
    }
    return priorities;
}

}  // namespace

TEST(ProfileOrder, EmptyListStaysEmpty) {
    std::vector<wifi_ap_info> list;
    wapinfo_reindex_ap_list(&list, true);
    EXPECT_TRUE(list.empty());
    wapinfo_reindex_ap_list(&list, false);
    EXPECT_TRUE(list.empty());
}

TEST(ProfileOrder, NullListIsIgnored) {
    wapinfo_reindex_ap_list(nullptr, true);
    wapinfo_reindex_ap_list(nullptr, false);
}

TEST(ProfileOrder, RenumberingInPlaceKeepsTheListOrder) {
    std::vector<wifi_ap_info> list = {profile("A", 5), profile("B", 2), profile("C", 9)};
    wapinfo_reindex_ap_list(&list, false);
    EXPECT_EQ(ssids_of(list), std::vector<std::string>({"A", "B", "C"}));
    EXPECT_EQ(priorities_of(list), std::vector<int>({2, 1, 3}));
}

TEST(ProfileOrder, ResortingPutsTheListInPriorityOrderAndRenumbers) {
    std::vector<wifi_ap_info> list = {profile("A", 5), profile("B", 2), profile("C", 9)};
    wapinfo_reindex_ap_list(&list, true);
    EXPECT_EQ(ssids_of(list), std::vector<std::string>({"B", "A", "C"}));
    EXPECT_EQ(priorities_of(list), std::vector<int>({1, 2, 3}));
}

TEST(ProfileOrder, ResortingMovesEqualPrioritiesLikeTheExchangeSort) {
    std::vector<wifi_ap_info> list = {profile("P", 2), profile("Q", 2), profile("R", 1)};
    wapinfo_reindex_ap_list(&list, true);
    EXPECT_EQ(ssids_of(list), std::vector<std::string>({"R", "Q", "P"}));
    EXPECT_EQ(priorities_of(list), std::vector<int>({1, 2, 3}));
}

TEST(ProfileOrder, InPlaceNumbersFollowTheExchangeSortOrderToo) {
    std::vector<wifi_ap_info> list = {profile("P", 2), profile("Q", 2), profile("R", 1)};
    wapinfo_reindex_ap_list(&list, false);
    EXPECT_EQ(ssids_of(list), std::vector<std::string>({"P", "Q", "R"}));
    EXPECT_EQ(priorities_of(list), std::vector<int>({3, 2, 1}));
}

TEST(ProfileOrder, ProfilesOutsideTheOrderingKeepTheirPriorityAndGoFirst) {
    std::vector<wifi_ap_info> list = {profile("A", -1), profile("B", 3), profile("C", 3)};
    wapinfo_reindex_ap_list(&list, true);
    EXPECT_EQ(ssids_of(list), std::vector<std::string>({"A", "B", "C"}));
    EXPECT_EQ(priorities_of(list), std::vector<int>({-1, 1, 2}));
}

TEST(ProfileOrder, MostNegativeGoesFirst) {
    std::vector<wifi_ap_info> list = {profile("A", 4), profile("B", 0), profile("C", -1),
                                      profile("D", -7), profile("E", 1)};
    wapinfo_reindex_ap_list(&list, true);
    EXPECT_EQ(ssids_of(list), std::vector<std::string>({"D", "C", "B", "E", "A"}));
    EXPECT_EQ(priorities_of(list), std::vector<int>({-7, -1, 0, 1, 2}));
}

TEST(ProfileOrder, OnlyProfileWithPriorityZeroIsLeftUnchanged) {
    std::vector<wifi_ap_info> list = {profile("A", 0)};
    list[0].bssid = "00:11:22:33:44:55";
    list[0].password = "key";
    wapinfo_reindex_ap_list(&list, true);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].ssid, "A");
    EXPECT_EQ(list[0].bssid, "00:11:22:33:44:55");
    EXPECT_EQ(list[0].password, "key");
    EXPECT_EQ(list[0].priority, 0);
    wapinfo_reindex_ap_list(&list, false);
    EXPECT_EQ(list[0].priority, 0);
}

TEST(ProfileOrder, ResortingKeepsEveryOtherField) {
    std::vector<wifi_ap_info> list = {profile("A", 7), profile("B", 3)};
    list[0].password = "akey";
    list[0].ascii_key = true;
    list[1].network_id = 4;
    list[1].in_range = true;
    wapinfo_reindex_ap_list(&list, true);
    ASSERT_EQ(ssids_of(list), std::vector<std::string>({"B", "A"}));
    EXPECT_EQ(list[0].network_id, 4);
    EXPECT_TRUE(list[0].in_range);
    EXPECT_EQ(list[1].password, "akey");
    EXPECT_TRUE(list[1].ascii_key);
}

TEST(ProfileOrder, IdenticalProfilesInPlaceGiveEveryNumberToTheFirst) {
    std::vector<wifi_ap_info> list = {profile("Twin", 7), profile("Twin", 4)};
    wapinfo_reindex_ap_list(&list, false);
    EXPECT_EQ(priorities_of(list), std::vector<int>({2, 4}));
}

TEST(ProfileOrder, InPlacePartnersMustMatchBssidSsidAndSecurity) {
    std::vector<wifi_ap_info> list = {profile("Net", 8), profile("Net", 6), profile("Net", 5)};
    list[1].bssid = "00:00:00:00:00:01";
    list[2].security = WIFI_SECURITY_WEP;
    wapinfo_reindex_ap_list(&list, false);
    EXPECT_EQ(priorities_of(list), std::vector<int>({3, 2, 1}));
}

TEST(ProfileOrder, InPlaceLeavesProfilesOutsideTheOrderingAlone) {
    std::vector<wifi_ap_info> list = {profile("A", 0), profile("B", 6), profile("C", -1),
                                      profile("D", 2)};
    wapinfo_reindex_ap_list(&list, false);
    EXPECT_EQ(ssids_of(list), std::vector<std::string>({"A", "B", "C", "D"}));
    EXPECT_EQ(priorities_of(list), std::vector<int>({0, 2, -1, 1}));
}
