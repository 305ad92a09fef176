// SCAN_RESULTS replies merged into the scan list, then aged.
#include <stddef.h>
#include <stdint.h>

#include <map>
#include <string>

#include "wpacli_monitor/wpacm_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string reply(reinterpret_cast<const char*>(data), size);
    std::map<std::string, wifi_scan_ap_info> list;
    wpacm_merge_scan_results(&list, reply.c_str(), 1000);
    wpacm_merge_scan_results(&list, reply.c_str(), 20000);
    // Every name listed is text the answers can carry, and a client that
    // sends it back joins the very network it names.
    for (const auto& item : list) {
        const std::string& name = item.second.ap_info.ssid;
        if (!wpacm_is_readable_name(name) ||
            wpacm_ssid_from_bytes(wpacm_ssid_to_bytes(name)) != name) {
            __builtin_trap();
        }
    }
    wpacm_age_scan_list(&list, 70000);
    return 0;
}
