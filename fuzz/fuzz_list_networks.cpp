// LIST_NETWORKS replies.
#include <stddef.h>
#include <stdint.h>

#include <string>

#include "wpacli_monitor/wpacm_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string reply(reinterpret_cast<const char*>(data), size);
    std::vector<int> ids = wpacm_parse_network_ids(reply.c_str());
    (void)ids;
    return 0;
}
