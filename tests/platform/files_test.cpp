// SPDX-License-Identifier: Apache-2.0
// The file calls' stand-ins keep the Windows rules: a folder does not open without backup
// semantics (ERROR_ACCESS_DENIED), a FIFO opens without waiting for a writer, only a regular
// file is FILE_TYPE_DISK and only it has a size.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "platform/files.h"
#include "platform/sync.h"

namespace {

namespace fs = std::filesystem;

TEST(FilesOnPosix, WhatEachKindOfNameOpensAs) {
    const fs::path folder = fs::temp_directory_path() / ("lynx-files-" + std::to_string(getpid()));
    fs::remove_all(folder);
    fs::create_directories(folder / "dir");
    ASSERT_EQ(0, mkfifo((folder / "fifo").c_str(), 0600));
    std::ofstream(folder / "file", std::ios::binary) << "12345";
    const struct {
        std::string name;
        DWORD error;  // ERROR_SUCCESS: it opens
        DWORD type;
    } rows[] = {
        {(folder / "file").string(), ERROR_SUCCESS, FILE_TYPE_DISK},
        {"/dev/zero", ERROR_SUCCESS, FILE_TYPE_CHAR},
        {(folder / "fifo").string(), ERROR_SUCCESS, FILE_TYPE_PIPE},
        {(folder / "dir").string(), ERROR_ACCESS_DENIED, FILE_TYPE_UNKNOWN},
        {(folder / "missing").string(), ERROR_FILE_NOT_FOUND, FILE_TYPE_UNKNOWN},
        {(folder / "file" / "below").string(), ERROR_PATH_NOT_FOUND, FILE_TYPE_UNKNOWN},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SetLastError(ERROR_SUCCESS);
        const HANDLE file = CreateFileA(row.name.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                        OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        EXPECT_EQ(GetLastError(), row.error);
        if (row.error != ERROR_SUCCESS) {
            EXPECT_EQ(file, INVALID_HANDLE_VALUE);
            continue;
        }
        ASSERT_NE(file, INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetFileType(file), row.type);
        LARGE_INTEGER size{};
        EXPECT_EQ(GetFileSizeEx(file, &size) != FALSE, row.type == FILE_TYPE_DISK);
        if (row.type == FILE_TYPE_DISK) {
            EXPECT_EQ(size.QuadPart, 5);
        }
        CloseHandle(file);
    }
    fs::remove_all(folder);
}

}  // namespace
