// SPDX-License-Identifier: Apache-2.0
// What a typed image path may name on Linux and in the lab: only a file on disk is read; a
// device, a FIFO, a socket or a folder is "Failed to open file" at once, without waiting for
// a writer; names that are no UTF-8 open as their bytes; the report follows the same rules.
// Beneath, the file calls' stand-ins keep the Windows rules: a folder does not open without
// backup semantics, only a regular file is FILE_TYPE_DISK and only it has a size.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <sstream>
#include <string>

#include "dfu/dfu_command.h"
#include "dfu/image_path.h"
#include "platform/files.h"
#include "platform/sync.h"

namespace {

namespace fs = std::filesystem;

// Reached only by an image that was read: it refuses without a request.
struct ClosedEndpoint final : usb_core::IUsbControlEndpoint {
    HRESULT Transfer(WINUSB_SETUP_PACKET&, PUCHAR, std::uint64_t) override { return E_FAIL; }
    bool IsConnected() override { return false; }
    void Disconnect() override {}
    std::uint16_t GetMaxTransferSize() override { return 64; }
};

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

    // The log of a run over an endpoint that refuses: empty when the image was read.
    std::string Run(const std::string& typed) {
        std::ostringstream log;
        const HRESULT status =
            dfu::DfuCommand(&log, std::make_shared<ClosedEndpoint>()).ExecuteFile(typed.c_str());
        EXPECT_EQ(status, log.str().empty() ? E_ACCESSDENIED : E_FAIL);
        return log.str();
    }

    fs::path folder;
    std::string deep;
    int socketFd = -1;
};

TEST_F(ImageKinds, OnlyAFileOnDiskIsRead) {
    const std::string base = folder.string();
    const std::string tooLongName = base + "/" + std::string(300, 'n');
    const struct {
        std::string typed;
        const char* line;  // nullptr: the image is read
    } rows[] = {
        {"/dev/zero", "Failed to open file /dev/zero\n"},
        {"/dev/null", "Failed to open file /dev/null\n"},
        {base + "/socket", nullptr},  // line filled in below: the path as typed
        {base + "/dir", nullptr},
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
        EXPECT_EQ(Run(row.typed), expected);
    }
}

TEST_F(ImageKinds, AFifoWithoutWriterIsRefusedAtOnce) {
    const std::string fifo = (folder / "fifo").string();
    auto run = std::async(std::launch::async, [&] { return Run(fifo); });
    if (run.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        ADD_FAILURE() << "the open waits for a writer";
        // A writer lets a blocked open return, so the test ends either way.
        const int writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
        run.wait();
        close(writer);
    }
    EXPECT_EQ(run.get(), "Failed to open file " + fifo + "\n");
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
