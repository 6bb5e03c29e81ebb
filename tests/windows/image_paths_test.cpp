// SPDX-License-Identifier: Apache-2.0
// Typed image paths through the real file calls: bytes that are no UTF-8 open in the ANSI
// code page; reserved device names, \\.\ names and folders are "Failed to open file" by what
// their handle reaches; the Win32 rules for trailing dots and spaces and long paths hold.
#include <windows.h>

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>

#include "dfu/dfu_command.h"
#include "dfu/image_path.h"
#include "platform/common/wide_stream.h"

namespace {

// Reached only by an image that was read: it refuses without a request.
struct ClosedEndpoint final : usb_core::IUsbControlEndpoint {
    HRESULT Transfer(WINUSB_SETUP_PACKET&, PUCHAR, std::uint64_t) override { return E_FAIL; }
    bool IsConnected() override { return false; }
    void Disconnect() override {}
    std::uint16_t GetMaxTransferSize() override { return 64; }
};

void WriteImage(const std::wstring& path) {
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE) << GetLastError();
    DWORD written = 0;
    EXPECT_TRUE(WriteFile(file, "image", 5, &written, nullptr));
    CloseHandle(file);
}

class ImagePathsOnWindows : public testing::Test {
  protected:
    void SetUp() override {
        wchar_t temp[MAX_PATH + 1] = {};
        ASSERT_NE(0u, GetTempPathW(MAX_PATH + 1, temp));
        folder = std::wstring(temp) + L"lynx-image-paths-" + std::to_wstring(GetCurrentProcessId());
        ASSERT_TRUE(CreateDirectoryW(folder.c_str(), nullptr)) << GetLastError();
        WriteImage(folder + L"\\fw.bin");
        WriteImage(folder + L"\\\u00e9.bin");
        deep = folder + L"\\" + std::wstring(150, L'd');
        ASSERT_TRUE(CreateDirectoryW(deep.c_str(), nullptr)) << GetLastError();
        deep += L"\\" + std::wstring(299 - deep.size(), L'f');
        WriteImage(deep);
    }
    void TearDown() override {
        DeleteFileW(deep.c_str());
        RemoveDirectoryW((folder + L"\\" + std::wstring(150, L'd')).c_str());
        for (const wchar_t* name : {L"\\fw.bin", L"\\\u00e9.bin", L"\\r\u00e9port.json"}) {
            DeleteFileW((folder + name).c_str());
        }
        RemoveDirectoryW(folder.c_str());
    }

    std::string Run(const std::string& typed) {
        std::ostringstream log;
        const HRESULT status =
            dfu::DfuCommand(&log, std::make_shared<ClosedEndpoint>()).ExecuteFile(typed.c_str());
        EXPECT_EQ(status, log.str().empty() ? E_ACCESSDENIED : E_FAIL);
        return log.str();
    }

    std::wstring folder;
    std::wstring deep;
};

TEST_F(ImagePathsOnWindows, OnlyAFileOnDiskIsRead) {
    // Byte E9 is "\u00e9" in code page 1252, the ANSI code page of Wine's default locale.
    ASSERT_EQ(1252u, GetACP());
    const std::string base = platform::WideToUtf8(folder);
    const struct {
        std::string typed;
        bool read;
    } rows[] = {
        {base + "\\\xE9.bin", true},
        {base + "\\\xE9", false},
        {"NUL", false},
        {"CON", false},
        {"COM1", false},
        {"\\\\.\\NUL", false},
        {"NUL.bin", false},
        {base, false},
        {base + "\\missing.bin", false},
        {base + "\\fw.bin.", true},  // Win32 names lose trailing dots and spaces
        {base + "\\fw.bin ", true},
        {platform::WideToUtf8(deep), true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.typed);
        EXPECT_EQ(Run(row.typed), row.read ? "" : "Failed to open file " + row.typed + "\n");
    }
}

TEST_F(ImagePathsOnWindows, ReportOnlyOnAFileOnDisk) {
    const std::string base = platform::WideToUtf8(folder);
    {
        const dfu::FileHandle report = dfu::CreateReportFile(base + "\\r\xE9port.json");
        ASSERT_TRUE(report.IsOpen());
        EXPECT_TRUE(dfu::WriteAll(report, "{}\n"));
    }
    const DWORD attributes = GetFileAttributesW((folder + L"\\r\u00e9port.json").c_str());
    EXPECT_NE(attributes, INVALID_FILE_ATTRIBUTES);
    for (const std::string& typed : {std::string("NUL"), std::string("CON"), base}) {
        SCOPED_TRACE(typed);
        EXPECT_FALSE(dfu::CreateReportFile(typed).IsOpen());
    }
}

}  // namespace
