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
    wpacm_age_scan_list(&list, 70000);
    return 0;
}
