// The kernel's route table, as "/proc/net/route" shows it.
#include <stddef.h>
#include <stdint.h>

#include <string>

#include "service_funs/service_funs.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    std::string gateway;
    service_parse_gateway(text, "wlan0", gateway);
    return 0;
}
