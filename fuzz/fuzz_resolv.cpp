// "/etc/resolv.conf", with or without the daemon's marker.
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "service_funs/service_funs.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> servers;
    service_parse_dnsservers(text, servers);
    return 0;
}
