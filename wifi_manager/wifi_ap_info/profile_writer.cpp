// Writing the whole profile file anew.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <SimpleIni.h>

#include "../fixed_paths.h"
#include "wifi_ap_info.h"

#define WAPINFO_KEY_SIZE 128
#define WAPINFO_SAVE_ATTEMPTS 5

static void wapinfo_set(CSimpleIniA* ini, const char* format, int n, const char* value) {
    char key[WAPINFO_KEY_SIZE];
    snprintf(key, sizeof(key), format, n);
    ini->SetValue("", key, value);
}

// A line break inside a value would end its line and could smuggle keys
// into the file, so such a profile cannot be stored in it.
static bool wapinfo_storable(const wifi_ap_info& profile) {
    return profile.ssid.find_first_of("\r\n") == std::string::npos &&
           profile.password.find_first_of("\r\n") == std::string::npos;
}

static void wapinfo_set_network_setting(CSimpleIniA* ini, const wifi_network_setting& setting) {
    ini->SetLongValue("", "wifi_dhcp", setting.dhcp ? 1 : 0);
    ini->SetLongValue("", "wifi_dns_dhcp", setting.dns_dhcp ? 1 : 0);
    ini->SetValue("", "wifi_ip", setting.ip_addr.c_str());
    ini->SetValue("", "wifi_gateway", setting.gateway.c_str());
    ini->SetValue("", "wifi_netmask", setting.netmask.c_str());
    ini->SetValue("", "wifi_dns1", setting.dns_server1.c_str());
    ini->SetValue("", "wifi_dns2", setting.dns_server2.c_str());
}

// Profiles are numbered from 1 without gaps; one that has no security name
// is left out and takes no number.
static void wapinfo_set_profiles(CSimpleIniA* ini, const std::vector<wifi_ap_info>& list) {
    int n = 1;
    for (const wifi_ap_info& profile : list) {
        const char* name = wapinfo_security_name(profile.security);
        if (name == nullptr || !wapinfo_storable(profile)) {
            continue;
        }
        wapinfo_set(ini, "ssid_%d", n, profile.ssid.c_str());
        wapinfo_set(ini, "security_%d", n, name);
        wapinfo_set(ini, "passwd_%d", n, profile.password.c_str());
        wapinfo_set(ini, "passwd_encode_%d", n, profile.ascii_key ? "ascii" : "hex");
        char key[WAPINFO_KEY_SIZE];
        snprintf(key, sizeof(key), "priority_%d", n);
        ini->SetLongValue("", key, profile.priority);
        n++;
    }
}

std::string wapinfo_profile_text(bool enable_feature,
                                 const std::vector<wifi_ap_info>& ap_info_vector,
                                 const wifi_network_setting& wifi_net_setting) {
    CSimpleIniA ini;
    ini.SetValue("", "wifi_station_enable", enable_feature ? "true" : "false");
    wapinfo_set_network_setting(&ini, wifi_net_setting);
    wapinfo_set_profiles(&ini, ap_info_vector);
    std::string text;
    ini.Save(text);
    return text;
}

static bool wapinfo_save_once(const std::string& text) {
    FILE* fp = fopen(WIFIM_PROFILE_FILE, "wb");
    if (fp == nullptr) {
        return false;
    }
    bool written = fwrite(text.data(), 1, text.size(), fp) == text.size();
    return (fclose(fp) == 0) && written;
}

void wapinfo_update_profile_to_user_setting(bool enable_feature,
                                            std::vector<wifi_ap_info>* ap_info_vector,
                                            wifi_network_setting* wifi_net_setting) {
    wifi_network_setting setting;
    if (wifi_net_setting == nullptr) {
        // Keep the IP settings the file holds now.
        bool ignored_enable = true;
        std::vector<wifi_ap_info> ignored_list;
        wapinfo_read_profile(&ignored_enable, &ignored_list, &setting);
    } else {
        setting = *wifi_net_setting;
    }
    std::string text = wapinfo_profile_text(enable_feature, *ap_info_vector, setting);
    for (int attempt = 0; attempt < WAPINFO_SAVE_ATTEMPTS; attempt++) {
        if (wapinfo_save_once(text)) {
            return;
        }
        usleep(static_cast<useconds_t>(rand() % 151 + 50) * 1000);
    }
}
