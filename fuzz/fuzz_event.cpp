// Unsolicited event messages, level prefix included.
#include <stddef.h>
#include <stdint.h>

#include <string>

#include "wpacli_monitor/wpacm_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string message(reinterpret_cast<const char*>(data), size);
    const char* text = wpacm_event_text(message.c_str());
    wpacm_classify_event(text);
    return 0;
}
