// The profile file: read, written back, and read again. Runs in the test
// sandbox, whose /www is private.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "fixed_paths.h"
#include "wifi_ap_info/wifi_ap_info.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FILE* fp = fopen(WIFIM_PROFILE_FILE, "wb");
    if (fp == nullptr) {
        return 0;
    }
    fwrite(data, 1, size, fp);
    fclose(fp);
    bool enable = true;
    std::vector<wifi_ap_info> profiles;
    wifi_network_setting setting;
    wapinfo_read_profile(&enable, &profiles, &setting);
    wapinfo_reindex_ap_list(&profiles, true);
    wapinfo_update_profile_to_user_setting(enable, &profiles, &setting);
    // What was written must read back the same.
    bool enable_again = !enable;
    std::vector<wifi_ap_info> again;
    wifi_network_setting setting_again;
    wapinfo_read_profile(&enable_again, &again, &setting_again);
    if (enable_again != enable || again.size() != profiles.size() ||
        setting_again.ip_addr != setting.ip_addr) {
        __builtin_trap();
    }
    return 0;
}
