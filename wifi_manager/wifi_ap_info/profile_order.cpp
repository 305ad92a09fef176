// Ordering of the registered profiles by priority.
#include <utility>

#include "wifi_ap_info.h"

// A plain exchange sort, kept on purpose: it is not stable (priorities 2, 2, 1
// in the order P, Q, R end as R, Q, P), and the automatic connection settles
// ties between profiles by exactly this order.
static void wapinfo_exchange_sort_by_priority(std::vector<wifi_ap_info>* list) {
    for (size_t i = 0; i < list->size(); i++) {
        for (size_t j = i + 1; j < list->size(); j++) {
            if ((*list)[j].priority < (*list)[i].priority) {
                std::swap((*list)[i], (*list)[j]);
            }
        }
    }
}

static void wapinfo_renumber_in_place(std::vector<wifi_ap_info>* sorted) {
    int next_priority = 1;
    for (wifi_ap_info& entry : *sorted) {
        if (entry.priority > 0) {
            entry.priority = next_priority++;
        }
    }
}

static wifi_ap_info* wapinfo_find_partner(std::vector<wifi_ap_info>* list,
                                          const wifi_ap_info& profile) {
    for (wifi_ap_info& entry : *list) {
        if (entry.bssid == profile.bssid && entry.ssid == profile.ssid &&
            entry.security == profile.security) {
            return &entry;
        }
    }
    return nullptr;
}

// Only the first of identical profiles is ever found, so it receives every
// number meant for the group and the others keep their old priorities.
static void wapinfo_renumber_partners(const std::vector<wifi_ap_info>& sorted,
                                      std::vector<wifi_ap_info>* list) {
    int next_priority = 1;
    for (const wifi_ap_info& profile : sorted) {
        if (profile.priority <= 0) {
            continue;
        }
        wifi_ap_info* partner = wapinfo_find_partner(list, profile);
        if (partner != nullptr) {
            partner->priority = next_priority++;
        }
    }
}

void wapinfo_reindex_ap_list(std::vector<wifi_ap_info>* ap_info_vector, bool resort_lsit) {
    if (ap_info_vector == nullptr) {
        return;
    }
    std::vector<wifi_ap_info> sorted = *ap_info_vector;
    wapinfo_exchange_sort_by_priority(&sorted);
    if (resort_lsit) {
        wapinfo_renumber_in_place(&sorted);
        *ap_info_vector = std::move(sorted);
        return;
    }
    wapinfo_renumber_partners(sorted, ap_info_vector);
}
