// SPDX-License-Identifier: Apache-2.0
// Typed image paths through the real file calls: UTF-8 names open as such, also in quotes,
// and bytes that are no UTF-8 in the ANSI code page; reserved device names, \\.\ names and
// folders are "Failed to open file" by what their handle reaches; the Win32 rules for trailing
// dots and spaces and long paths hold.
#include <windows.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "../dfu/closed_endpoint.h"
#include "dfu/image_path.h"
#include "platform/common/wide_stream.h"

namespace {

namespace fs = std::filesystem;

class ImagePathsOnWindows : public testing::Test {
  protected:
    void SetUp() override {
        fs::remove_all(folder);
        fs::create_directories(folder / std::wstring(150, L'd'));
        fs::create_directories(folder / L"J\u00f6rg \u65e5\u672c");
        for (const fs::path& image : {folder / L"fw.bin", folder / L"\u00e9.bin", Deep(),
                                      folder / L"J\u00f6rg \u65e5\u672c" / L"\U0001F600.bin"}) {
            std::ofstream(image, std::ios::binary) << "image";
        }
    }
    void TearDown() override { fs::remove_all(folder); }

    // 300 characters in all.
    fs::path Deep() const {
        const std::wstring dir = (folder / std::wstring(150, L'd')).wstring() + L"\\";
        return dir + std::wstring(300 - dir.size(), L'f');
    }

    const fs::path folder = fs::temp_directory_path() / L"lynx-image-paths";
    const std::string base = platform::WideToUtf8(folder.wstring());
};

TEST_F(ImagePathsOnWindows, OnlyAFileOnDiskIsRead) {
    // Byte E9 is "\u00e9" in code page 1252, the ANSI code page of Wine's default locale.
    ASSERT_EQ(1252u, GetACP());
    const std::string utf8 = base + "\\J\u00f6rg \u65e5\u672c\\";
    const struct {
        std::string typed;
        bool read;
    } rows[] = {
        {utf8 + "\U0001F600.bin", true},
        {'"' + utf8 + "\U0001F600.bin\"", true},
        {utf8 + "missing.bin", false},
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
        {platform::WideToUtf8(Deep().wstring()), true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.typed);
        EXPECT_EQ(ReadImage(row.typed), row.read ? "" : "Failed to open file " + row.typed + "\n");
    }
}

TEST_F(ImagePathsOnWindows, ReportOnlyOnAFileOnDisk) {
    EXPECT_TRUE(dfu::WriteAll(dfu::CreateReportFile(base + "\\r\xE9port.json"), "{}\n"));
    EXPECT_EQ(fs::file_size(folder / L"r\u00e9port.json"), 3u);
    for (const std::string& typed : {std::string("NUL"), std::string("CON"), base}) {
        SCOPED_TRACE(typed);
        EXPECT_FALSE(dfu::CreateReportFile(typed).IsOpen());
    }
}

}  // namespace
