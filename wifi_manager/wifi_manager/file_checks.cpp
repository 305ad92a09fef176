#include <stdio.h>
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

bool wifim_read_text_file(const char* path, std::string* text) {
    text->clear();
    FILE* fp = fopen(path, "re");
    if (fp == nullptr) {
        return false;
    }
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), fp)) > 0) {
        text->append(buf, n);
    }
    fclose(fp);
    return true;
}
