// Ordering of the registered profiles by priority.
#include <utility>

#include "wifi_ap_info.h"

// A plain exchange sort: each position takes any later profile of strictly
// smaller priority. It is not stable (P, Q, R of priorities 2, 2, 1 end as
// R, Q, P), and the automatic connection's choice among equals depends on
// exactly this order.
static void wapinfo_exchange_sort(std::vector<wifi_ap_info>& list) {
    for (size_t i = 0; i < list.size(); i++) {
        for (size_t j = i + 1; j < list.size(); j++) {
            if (list[j].priority < list[i].priority) {
                std::swap(list[i], list[j]);
            }
        }
    }
}

static bool wapinfo_same_profile(const wifi_ap_info& a, const wifi_ap_info& b) {
    return a.bssid == b.bssid && a.ssid == b.ssid && a.security == b.security;
}

void wapinfo_reindex_ap_list(std::vector<wifi_ap_info>& ap_info_vector, bool resort_lsit) {
    std::vector<wifi_ap_info> sorted = ap_info_vector;
    wapinfo_exchange_sort(sorted);
    int next = 1;
    if (resort_lsit) {
        for (wifi_ap_info& profile : sorted) {
            if (profile.priority > 0) {
                profile.priority = next++;
            }
        }
        ap_info_vector = sorted;
        return;
    }
    for (const wifi_ap_info& profile : sorted) {
        if (profile.priority <= 0) {
            continue;
        }
        for (wifi_ap_info& partner : ap_info_vector) {
            if (wapinfo_same_profile(partner, profile)) {
                partner.priority = next++;
                break;
            }
        }
    }
}
