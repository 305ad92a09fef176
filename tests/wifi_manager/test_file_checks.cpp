// Existence checks used to validate the wpa_supplicant configuration path.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "test_support.h"
#include "wifi_manager/wifi_manager.h"

TEST(FileChecks, NullPathDoesNotExist) {
    EXPECT_FALSE(wifim_file_exist(nullptr));
    EXPECT_FALSE(wifim_folder_exist(nullptr));
}

TEST(FileChecks, RegularFileIsAFileNotAFolder) {
    ASSERT_TRUE(wifim_test::write_file("/tmp/plain.conf", "x"));
    EXPECT_TRUE(wifim_file_exist("/tmp/plain.conf"));
    EXPECT_FALSE(wifim_folder_exist("/tmp/plain.conf"));
}

TEST(FileChecks, DirectoryIsAFolderNotAFile) {
    mkdir("/tmp/adir", 0755);
    EXPECT_FALSE(wifim_file_exist("/tmp/adir"));
    EXPECT_TRUE(wifim_folder_exist("/tmp/adir"));
}

TEST(FileChecks, DanglingSymbolicLinkCountsAsAFile) {
    unlink("/tmp/dangling");
    ASSERT_EQ(symlink("/tmp/nothing-here", "/tmp/dangling"), 0);
    EXPECT_TRUE(wifim_file_exist("/tmp/dangling"));
    EXPECT_FALSE(wifim_folder_exist("/tmp/dangling"));
}

TEST(FileChecks, MissingPathIsNeither) {
    EXPECT_FALSE(wifim_file_exist("/tmp/missing"));
    EXPECT_FALSE(wifim_folder_exist("/tmp/missing"));
}
