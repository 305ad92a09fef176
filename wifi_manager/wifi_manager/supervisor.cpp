#include "wifi_manager.h"
