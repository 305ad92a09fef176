#include <sys/stat.h>

#include "wifi_manager.h"

bool wifim_file_exist(const char* path) {
    if (path == nullptr) {
        return false;
    }
    struct stat st;
    if (lstat(path, &st) != 0) {
        return false;
    }
    return !S_ISDIR(st.st_mode);
}

bool wifim_folder_exist(const char* path) {
    if (path == nullptr) {
        return false;
    }
    struct stat st;
    return lstat(path, &st) == 0 && S_ISDIR(st.st_mode);
}
