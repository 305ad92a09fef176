// STATUS replies.
#include <stddef.h>
#include <stdint.h>

#include <string>

#include "wpacli_monitor/wpacm_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string reply(reinterpret_cast<const char*>(data), size);
    wpa_supplicant_status status;
    clear_wpa_supplicant_status(&status);
    wpacm_parse_status(reply.c_str(), &status);
    return 0;
}
