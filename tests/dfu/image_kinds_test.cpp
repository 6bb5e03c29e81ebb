// SPDX-License-Identifier: Apache-2.0
// What a typed image path may name on Linux and in the lab: only a file on disk is read; a
// device, a FIFO, a socket or a folder is "Failed to open file" at once, without waiting for
// a writer; names open as their bytes, UTF-8 or not, also in quotes; the report follows the
// same rules.
// Beneath, the file calls' stand-ins keep the Windows rules: a folder does not open without
// backup semantics, only a regular file is FILE_TYPE_DISK and only it has a size.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "closed_endpoint.h"
#include "dfu/image_path.h"
#include "platform/files.h"
#include "platform/sync.h"

namespace {

namespace fs = std::filesystem;

class ImageKinds : public testing::Test {
  protected:
    void SetUp() override {
        folder = fs::temp_directory_path() / ("lynx-image-kinds-" + std::to_string(getpid()));
        fs::remove_all(folder);
        fs::create_directories(folder / "dir");
        ASSERT_EQ(0, mkfifo((folder / "fifo").c_str(), 0600));
        socketFd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string socketPath = (folder / "socket").string();
        ASSERT_LT(socketPath.size(), sizeof address.sun_path);
        socketPath.copy(address.sun_path, socketPath.size());
        ASSERT_EQ(0, bind(socketFd, reinterpret_cast<sockaddr*>(&address), sizeof address));
        std::ofstream(folder / "\xE9.bin", std::ios::binary) << "image";
        fs::create_directories(folder / "J\u00f6rg \u65e5\u672c");
        std::ofstream(folder / "J\u00f6rg \u65e5\u672c/\U0001F600.bin", std::ios::binary)
            << "image";
        // 300 characters in all, under the 255 of one name.
        deep = folder.string() + "/" + std::string(150, 'd');
        fs::create_directories(deep);
        deep += "/" + std::string(299 - deep.size(), 'f');
        std::ofstream(deep, std::ios::binary) << "image";
    }
    void TearDown() override {
        close(socketFd);
        fs::remove_all(folder);
    }

    fs::path folder;
    std::string deep;
    int socketFd = -1;
};

TEST_F(ImageKinds, OnlyAFileOnDiskIsRead) {
    const std::string base = folder.string();
    const std::string tooLongName = base + "/" + std::string(300, 'n');
    const std::string utf8 = base + "/J\u00f6rg \u65e5\u672c/";
    const struct {
        std::string typed;
        const char* line;  // nullptr: the image is read
    } rows[] = {
        {"/dev/zero", "Failed to open file /dev/zero\n"},
        {base + "/socket", nullptr},  // line filled in below: the path as typed
        {base + "/dir", nullptr},
        {utf8 + "\U0001F600.bin", ""},
        {'"' + utf8 + "\U0001F600.bin\"", ""},
        {utf8 + "missing.bin", nullptr},
        {base + "/\xE9.bin", ""},
        {base + "/\xE9", nullptr},
        {base + "/\xEF\xBF\xBD.bin", nullptr},  // U+FFFD: what a lone surrogate becomes
        {deep, ""},
        {tooLongName, nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.typed);
        const std::string expected =
            row.line != nullptr ? row.line : "Failed to open file " + row.typed + "\n";
        EXPECT_EQ(ReadImage(row.typed), expected);
    }
}

TEST_F(ImageKinds, ReportOnlyOnAFileOnDisk) {
    const std::string base = folder.string();
    const struct {
        std::string typed;
        bool created;
    } rows[] = {
        {base + "/report.json", true}, {base + "/r\xE9port.json", true},
        {base + "/dir", false},        {base + "/fifo", false},
        {"/dev/null", false},          {base + "/missing/report.json", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.typed);
        const dfu::FileHandle report = dfu::CreateReportFile(row.typed);
        EXPECT_EQ(report.IsOpen(), row.created);
        if (!row.created) continue;
        EXPECT_TRUE(dfu::WriteAll(report, "{}\n"));
        std::ifstream written(row.typed, std::ios::binary);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(written), {}), "{}\n");
    }
}

TEST_F(ImageKinds, FileCallsKeepTheWindowsRules) {
    const struct {
        std::string name;
        DWORD error;  // ERROR_SUCCESS: it opens
        DWORD type;
    } rows[] = {
        {deep, ERROR_SUCCESS, FILE_TYPE_DISK},
        {"/dev/zero", ERROR_SUCCESS, FILE_TYPE_CHAR},
        {(folder / "fifo").string(), ERROR_SUCCESS, FILE_TYPE_PIPE},
        {(folder / "dir").string(), ERROR_ACCESS_DENIED, FILE_TYPE_UNKNOWN},
        {(folder / "missing").string(), ERROR_FILE_NOT_FOUND, FILE_TYPE_UNKNOWN},
        {deep + "/below", ERROR_PATH_NOT_FOUND, FILE_TYPE_UNKNOWN},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SetLastError(ERROR_SUCCESS);
        const dfu::FileHandle file(CreateFileA(row.name.c_str(), GENERIC_READ, FILE_SHARE_READ,
                                               nullptr, OPEN_EXISTING, 0, nullptr));
        EXPECT_EQ(GetLastError(), row.error);
        EXPECT_EQ(file.IsOpen(), row.error == ERROR_SUCCESS);
        if (!file.IsOpen()) continue;
        EXPECT_EQ(GetFileType(file.Get()), row.type);
        LARGE_INTEGER size{};
        EXPECT_EQ(GetFileSizeEx(file.Get(), &size) != FALSE, row.type == FILE_TYPE_DISK);
        EXPECT_EQ(size.QuadPart, row.type == FILE_TYPE_DISK ? 5 : 0);
    }
}

}  // namespace
