// Inside the profile store: what the profile file's reader and writer share.
// Not part of the module's face.
#pragma once

#include <stdio.h>

// Debian's SimpleIni.h carries its template bodies only under
// SI_IMPLEMENTATION, and its default conversion wants a header Debian does
// not ship; CSimpleIniA needs neither library nor conversion.
#ifndef SI_NO_CONVERSION
#define SI_NO_CONVERSION
#endif
#ifndef SI_IMPLEMENTATION
#define SI_IMPLEMENTATION
#endif
#include <SimpleIni.h>

// Every key lives in the unnamed section: the file has no section header.
#define WAPINFO_SECTION ""

#define WAPINFO_KEY_STATION_ENABLE "wifi_station_enable"
#define WAPINFO_KEY_DHCP "wifi_dhcp"
#define WAPINFO_KEY_DNS_DHCP "wifi_dns_dhcp"
#define WAPINFO_KEY_IP "wifi_ip"
#define WAPINFO_KEY_GATEWAY "wifi_gateway"
#define WAPINFO_KEY_NETMASK "wifi_netmask"
#define WAPINFO_KEY_DNS1 "wifi_dns1"
#define WAPINFO_KEY_DNS2 "wifi_dns2"

// Profile keys carry the profile number, counting from 1.
#define WAPINFO_KEY_SSID_FORMAT "ssid_%d"
#define WAPINFO_KEY_SECURITY_FORMAT "security_%d"
#define WAPINFO_KEY_PASSWD_FORMAT "passwd_%d"
#define WAPINFO_KEY_PASSWD_ENCODE_FORMAT "passwd_encode_%d"
#define WAPINFO_KEY_PRIORITY_FORMAT "priority_%d"
#define WAPINFO_KEY_SIZE 128

#define WAPINFO_ENCODE_ASCII "ascii"
#define WAPINFO_ENCODE_HEX "hex"

// Static addresses assumed when the file names none.
#define WAPINFO_DEFAULT_IP "192.168.0.201"
#define WAPINFO_DEFAULT_GATEWAY "192.168.0.1"
#define WAPINFO_DEFAULT_NETMASK "255.255.255.0"
#define WAPINFO_DEFAULT_DNS "8.8.8.8"

// A profile without a priority key stays outside the ordering.
#define WAPINFO_DEFAULT_PRIORITY (-1)

// A failed save is retried a few times, so that a passing failure does not
// lose the user's settings; the random pause keeps two writers of the file
// from retrying in step.
#define WAPINFO_SAVE_ATTEMPTS 5
#define WAPINFO_SAVE_RETRY_MIN_MS 50
#define WAPINFO_SAVE_RETRY_SPREAD_MS 151

// The file holds the user's keys: only its owner (root) may read it.
#define WAPINFO_FILE_MODE 0600
// The new contents are written beside the file under this suffix, then
// renamed over it.
#define WAPINFO_TEMP_SUFFIX ".tmp"
// Symbolic links followed to find the file itself, as the kernel would.
#define WAPINFO_MAX_LINK_HOPS 40

// The keys of profile number n.
struct wapinfo_profile_keys {
    char ssid[WAPINFO_KEY_SIZE];
    char security[WAPINFO_KEY_SIZE];
    char passwd[WAPINFO_KEY_SIZE];
    char passwd_encode[WAPINFO_KEY_SIZE];
    char priority[WAPINFO_KEY_SIZE];
};

inline void wapinfo_format_profile_keys(int n, wapinfo_profile_keys* keys) {
    snprintf(keys->ssid, sizeof(keys->ssid), WAPINFO_KEY_SSID_FORMAT, n);
    snprintf(keys->security, sizeof(keys->security), WAPINFO_KEY_SECURITY_FORMAT, n);
    snprintf(keys->passwd, sizeof(keys->passwd), WAPINFO_KEY_PASSWD_FORMAT, n);
    snprintf(keys->passwd_encode, sizeof(keys->passwd_encode), WAPINFO_KEY_PASSWD_ENCODE_FORMAT, n);
    snprintf(keys->priority, sizeof(keys->priority), WAPINFO_KEY_PRIORITY_FORMAT, n);
}
