#include <stdio.h>

#include "wifi_manager.h"

void wifim_display_help(const char* program_name) {
    printf("\n");
    printf("WiFi manager, Version: " WIFIM_VERSION "\n");
    printf("Usage :%s [option]\n", program_name);
    printf("  -h, --help              Display this message and exit\n");
    printf("  -v, --version           Display this message and exit\n");
    printf("  -F, --foreground        Daemon run in foreground.\n");
    printf("  -c, --config            The config file of wpa_supplicant .\n");
    printf("                          default value: /etc/wpa_supplicant.conf\n");
    printf("  -i, --interface         The network interface of wpa_supplicant.\n");
    printf("                          default value: wlan0\n");
    printf("  -m, --max_record        Maximum station information\n");
    printf("                          default value: 10\n");
    printf("  -T, --timeout           Timeout of send request to wifi_manager\n");
    printf("  -C, --command           Send request to wifi_manager.\n");
    printf("\n");
    printf("\n");
}
