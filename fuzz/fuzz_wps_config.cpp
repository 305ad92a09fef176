// wpa_supplicant's configuration file as read back after WPS.
#include <stddef.h>
#include <stdint.h>

#include <string>

#include "wpacli_monitor/wpacm_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<wifi_ap_info> profiles = wpacm_read_wpa_config_profiles(text);
    (void)profiles;
    return 0;
}
