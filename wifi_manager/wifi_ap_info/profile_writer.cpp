// Writing the profile file: the whole file is rebuilt from the caller's
// settings and list, so keys the program no longer knows are dropped.
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "../fixed_paths.h"
#include "profile_file.h"
#include "wifi_ap_info.h"

// The text of a value as it goes into the file. The file is line-based with
// no escapes: a line break inside a value would end the line early and let
// the rest of the value pose as a key of its own (an SSID could then forge
// another profile), so each one is stored as a blank. A NUL byte ends the
// value, as it does for every C string the file is built from.
static std::string wapinfo_file_value(const std::string& value) {
    std::string text = value.substr(0, value.find('\0'));
    for (char& c : text) {
        if (c == '\n' || c == '\r') {
            c = ' ';
        }
    }
    return text;
}

// The reader drops blanks at both ends of a value, so this is what it
// will get back as empty.
static bool wapinfo_reads_back_empty(const std::string& text) {
    return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

static void wapinfo_put_text(CSimpleIniA* ini, const char* key, const std::string& value) {
    ini->SetValue(WAPINFO_SECTION, key, wapinfo_file_value(value).c_str());
}

// The order of insertion is the order of the lines in the file.
static void wapinfo_put_station_settings(CSimpleIniA* ini, bool enable_feature,
                                         const wifi_network_setting& setting) {
    ini->SetValue(WAPINFO_SECTION, WAPINFO_KEY_STATION_ENABLE, enable_feature ? "true" : "false");
    ini->SetLongValue(WAPINFO_SECTION, WAPINFO_KEY_DHCP, setting.dhcp ? 1 : 0);
    ini->SetLongValue(WAPINFO_SECTION, WAPINFO_KEY_DNS_DHCP, setting.dns_dhcp ? 1 : 0);
    wapinfo_put_text(ini, WAPINFO_KEY_IP, setting.ip_addr);
    wapinfo_put_text(ini, WAPINFO_KEY_GATEWAY, setting.gateway);
    wapinfo_put_text(ini, WAPINFO_KEY_NETMASK, setting.netmask);
    wapinfo_put_text(ini, WAPINFO_KEY_DNS1, setting.dns_server1);
    wapinfo_put_text(ini, WAPINFO_KEY_DNS2, setting.dns_server2);
}

// An entry is left out, without using up a number, when its security has no
// name the file can hold, or when its SSID would read back empty: the reader
// ends the list at the first number without an SSID, which would hide every
// profile after it.
static bool wapinfo_is_storable(const wifi_ap_info& entry, const char** security_name) {
    *security_name = wapinfo_security_to_name(entry.security);
    return *security_name != nullptr && !wapinfo_reads_back_empty(wapinfo_file_value(entry.ssid));
}

static void wapinfo_put_profile(CSimpleIniA* ini, int n, const wifi_ap_info& entry,
                                const char* security_name) {
    wapinfo_profile_keys keys = {};
    wapinfo_format_profile_keys(n, &keys);
    wapinfo_put_text(ini, keys.ssid, entry.ssid);
    ini->SetValue(WAPINFO_SECTION, keys.security, security_name);
    wapinfo_put_text(ini, keys.passwd, entry.password);
    ini->SetValue(WAPINFO_SECTION, keys.passwd_encode,
                  entry.ascii_key ? WAPINFO_ENCODE_ASCII : WAPINFO_ENCODE_HEX);
    ini->SetLongValue(WAPINFO_SECTION, keys.priority, entry.priority);
}

// Every entry is written whether or not it is marked saved.
static void wapinfo_put_profiles(CSimpleIniA* ini, const std::vector<wifi_ap_info>& list) {
    int n = 1;
    for (const wifi_ap_info& entry : list) {
        const char* security_name = nullptr;
        if (!wapinfo_is_storable(entry, &security_name)) {
            continue;
        }
        wapinfo_put_profile(ini, n, entry, security_name);
        n++;
    }
}

// The path that holds the contents: the profile path itself, or the end of
// its chain of symbolic links, so that the rename replaces the target and
// the link the device was set up with survives.
static std::string wapinfo_profile_target() {
    std::string path = WIFIM_PROFILE_FILE;
    for (int hop = 0; hop < WAPINFO_MAX_LINK_HOPS; hop++) {
        char target[PATH_MAX];
        ssize_t n = readlink(path.c_str(), target, sizeof(target) - 1);
        if (n < 0) {
            break;
        }
        target[n] = '\0';
        if (target[0] == '/') {
            path = target;
        } else {
            // A relative target is taken from the link's own directory.
            path.erase(path.rfind('/') + 1);
            path += target;
        }
    }
    return path;
}

static std::string wapinfo_directory_of(const std::string& path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

// The rename is only durable once the directory entry is on the disk.
static void wapinfo_sync_directory(const std::string& directory) {
    int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        fsync(fd);
        close(fd);
    }
}

// Writes the contents to the temporary file and makes them reach the disk.
// A write error can first show when the buffer is flushed, so the flush,
// the sync and the close count as part of the save.
static bool wapinfo_write_temp_file(const CSimpleIniA& ini, const std::string& temp) {
    // A temporary file left by a save that was cut short is replaced; one
    // that is not a plain file of ours (a planted link) is never written
    // through, since the new file is created exclusively.
    unlink(temp.c_str());
    int fd =
        open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, WAPINFO_FILE_MODE);
    if (fd < 0) {
        return false;
    }
    // Whatever the process's umask: the file holds the user's keys.
    fchmod(fd, WAPINFO_FILE_MODE);
    FILE* fp = fdopen(fd, "wb");
    if (fp == nullptr) {
        close(fd);
        return false;
    }
    bool ok = ini.SaveFile(fp) == SI_OK;
    ok = fflush(fp) == 0 && ok;
    ok = ferror(fp) == 0 && ok;
    ok = fsync(fileno(fp)) == 0 && ok;
    ok = fclose(fp) == 0 && ok;
    return ok;
}

static bool wapinfo_save_once(const CSimpleIniA& ini) {
    std::string target = wapinfo_profile_target();
    std::string temp = target + WAPINFO_TEMP_SUFFIX;
    if (!wapinfo_write_temp_file(ini, temp) || rename(temp.c_str(), target.c_str()) != 0) {
        unlink(temp.c_str());
        return false;
    }
    wapinfo_sync_directory(wapinfo_directory_of(target));
    return true;
}

static void wapinfo_save_profile_file(const CSimpleIniA& ini) {
    for (int attempt = 1; attempt <= WAPINFO_SAVE_ATTEMPTS; attempt++) {
        if (wapinfo_save_once(ini)) {
            return;
        }
        int pause_ms = WAPINFO_SAVE_RETRY_MIN_MS + rand() % WAPINFO_SAVE_RETRY_SPREAD_MS;
        usleep(static_cast<useconds_t>(pause_ms) * 1000);
    }
}

void wapinfo_update_profile_to_user_setting(bool enable_feature,
                                            std::vector<wifi_ap_info>* ap_info_vector,
                                            wifi_network_setting* wifi_net_setting) {
    // The IP settings kept and the file written are one step, so that no
    // other writer's settings slip in between and get lost.
    wapinfo_lock_profile_file();
    wifi_network_setting kept_setting;
    if (wifi_net_setting == nullptr) {
        bool scratch_enable = true;
        std::vector<wifi_ap_info> scratch_list;
        wapinfo_read_profile(&scratch_enable, &scratch_list, &kept_setting);
        wifi_net_setting = &kept_setting;
    }
    CSimpleIniA ini;
    wapinfo_put_station_settings(&ini, enable_feature, *wifi_net_setting);
    if (ap_info_vector != nullptr) {
        wapinfo_put_profiles(&ini, *ap_info_vector);
    }
    wapinfo_save_profile_file(ini);
    wapinfo_unlock_profile_file();
}

static pthread_mutex_t g_wapinfo_file_mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

void wapinfo_lock_profile_file() {
    pthread_mutex_lock(&g_wapinfo_file_mutex);
}

void wapinfo_unlock_profile_file() {
    pthread_mutex_unlock(&g_wapinfo_file_mutex);
}
