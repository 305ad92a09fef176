// Profile store: the AP/profile record, the security kinds and their short
// names, the profile file that holds the station's settings, and the ordering
// of the registered profiles by priority. Nothing here logs or locks; the
// callers serialise access to a shared list and to the file.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

// Every security kind the station knows. Values 9 and 16 stand for all key
// managements and ciphers of WPA and WPA2, 17 for WPA or WPA2 of any kind.
enum WiFi_Security : int32_t {
    WIFI_SECURITY_UNKNOWN = 0,
    WIFI_SECURITY_NONE = 1,
    WIFI_SECURITY_WEP = 2,
    WIFI_SECURITY_WPA_PSK_TKIP = 3,
    WIFI_SECURITY_WPA_PSK_AES = 4,
    WIFI_SECURITY_WPA_PSK_TKIP_AES = 5,
    WIFI_SECURITY_WPA_EAP_TKIP = 6,
    WIFI_SECURITY_WPA_EAP_AES = 7,
    WIFI_SECURITY_WPA_EAP_TKIP_AES = 8,
    WIFI_SECURITY_WPA_PSK_EAP_TKIP_AES = 9,
    WIFI_SECURITY_WPA2_PSK_TKIP = 10,
    WIFI_SECURITY_WPA2_PSK_AES = 11,
    WIFI_SECURITY_WPA2_PSK_TKIP_AES = 12,
    WIFI_SECURITY_WPA2_EAP_TKIP = 13,
    WIFI_SECURITY_WPA2_EAP_AES = 14,
    WIFI_SECURITY_WPA2_EAP_TKIP_AES = 15,
    WIFI_SECURITY_WPA2_PSK_EAP_TKIP_AES = 16,
    WIFI_SECURITY_ANY_WPA = 17,
};

// One access point from a scan or one registered profile; passed by value.
struct wifi_ap_info {
    int network_id = 0;  // wpa_supplicant's id; -1 for a profile fresh from the file
    std::string bssid;   // empty for a profile
    std::string ssid;    // a profile's identity, matched exactly
    std::string password;
    WiFi_Security security = WIFI_SECURITY_UNKNOWN;
    int signal = 0;          // -1 for a profile not seen in a scan
    int priority = 0;        // 1, 2, ... take part in the ordering; 0 and below do not
    bool ascii_key = false;  // key is text rather than hexadecimal digits
    bool wps = false;
    bool saved = false;  // a registered profile
    bool in_range = false;
};

// One row of the security name table.
struct wifi_security {
    const char* security_str;
    WiFi_Security value;
};

// The names under which security kinds are stored in the profile file. The
// table has synonyms ("none"/"open", "mixed"/"anywpa"), so the first row
// holding a kind is the name it is written under.
#define WIFI_SECURITY_NAME_COUNT 8
extern const wifi_security g_wifi_security_array[WIFI_SECURITY_NAME_COUNT];

// Network id and signal become 0 here, not -1.
void clear_wifi_ap_info(wifi_ap_info* info);
void copy_wifi_ap_info(wifi_ap_info* dst, const wifi_ap_info* src);

// What each kind is called, in the profile file and in the answers to
// clients; the two differ on purpose. The file stores a WPA or WPA2 kind of
// one cipher or key management under its generation's name, and "any WPA"
// under the first of its synonyms ("mixed"). The answers show the two kinds
// that mix PSK and EAP as "unknown", and "any WPA" as "anywpa".
struct wifi_security_kind {
    WiFi_Security value;
    WiFi_Security file_value;  // the kind whose name (first row) the file stores
    const char* answer_name;
};
#define WIFI_SECURITY_KIND_COUNT 18
extern const wifi_security_kind g_wifi_security_kinds[WIFI_SECURITY_KIND_COUNT];

// Name to kind, ignoring case. False when no row has that name; "unknown" is
// found and gives WIFI_SECURITY_UNKNOWN.
bool wapinfo_security_from_name(const char* name, WiFi_Security* value);
// Kind to the name the profile file stores it under. Null for a value that
// is no kind.
const char* wapinfo_security_to_name(WiFi_Security value);
// Kind to the name answers show; "unknown" for a value that is no kind.
const char* wapinfo_security_answer_name(WiFi_Security value);

// The interface's IP settings as stored in the profile file.
struct wifi_network_setting {
    bool dhcp = false;
    bool dns_dhcp = false;
    std::string ip_addr;
    std::string netmask;
    std::string gateway;
    std::string dns_server1;
    std::string dns_server2;
};

// Loads the station switch, the registered profiles (in file order) and,
// when wifi_net_setting is not null, the IP settings. A missing, unreadable
// or damaged file reads as the defaults plus whatever profiles it still
// holds. A profile whose key or key form is missing reads with an empty key
// taken as text.
void wapinfo_read_profile(bool* enable_feature, std::vector<wifi_ap_info>* ap_info_vector,
                          wifi_network_setting* wifi_net_setting);

// The profile file has one writer at a time in the process: request threads
// and the controller both read and rewrite it, and a read-modify-write that
// interleaved with another would lose a saved network or IP setting. Every
// read and write below holds this lock; a caller that reads and then writes
// holds it across both (it may be taken again by the same thread). Taken
// after registed_ap_mutex, never before it.
void wapinfo_lock_profile_file();
void wapinfo_unlock_profile_file();

// Rewrites the whole profile file; a null wifi_net_setting keeps the IP
// settings the file holds now. Profiles are numbered in list order; one
// whose security has no name is left out. Values are single lines: a line
// break in a value is stored as a blank, so that it cannot end the line and
// start a key of its own. Blanks at either end of a value do not survive a
// read, so a profile whose SSID is empty or only blanks is left out: it
// would end the list for every profile after it. The new contents go to a
// temporary file beside the file (beside the link's target when the path is
// a symbolic link), reach the disk, and replace the file by a rename, so
// that a power cut or a killed worker leaves either the old file or the new
// one, never a part of one. Gives up silently after five failed attempts to
// save, leaving the previous file whole.
void wapinfo_update_profile_to_user_setting(bool enable_feature,
                                            std::vector<wifi_ap_info>* ap_info_vector,
                                            wifi_network_setting* wifi_net_setting);

// Renumbers the profiles with a priority of 1 or more as 1, 2, 3, ... in the
// order of their old priorities; 0 and below keep theirs. With resort_lsit
// the list is also put into that order (profiles outside the ordering
// first); without it only the numbers change.
void wapinfo_reindex_ap_list(std::vector<wifi_ap_info>* ap_info_vector, bool resort_lsit);
