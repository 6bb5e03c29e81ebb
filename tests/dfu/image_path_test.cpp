// SPDX-License-Identifier: Apache-2.0
// Image paths as the operator types them (UTF-8 answers): files whose names are not ASCII
// open on every target, with or without enclosing quotes; what does not name a file is
// reported with the path as typed.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "dfu/dfu_command.h"

namespace {

namespace fs = std::filesystem;

// An endpoint that is already closed: a run that got as far as the endpoint has read the
// image, and stops there with E_ACCESSDENIED without a request.
struct ClosedEndpoint final : usb_core::IUsbControlEndpoint {
    HRESULT Transfer(WINUSB_SETUP_PACKET&, PUCHAR, std::uint64_t) override { return E_FAIL; }
    bool IsConnected() override { return false; }
    void Disconnect() override {}
    std::uint16_t GetMaxTransferSize() override { return 64; }
};

TEST(ImagePath, NamesOutsideAsciiOpenAsTyped) {
    const fs::path folder = fs::temp_directory_path() / u8"lynx-image-J\u00f6rg";
    fs::remove_all(folder);
    fs::create_directories(folder / u8"\u65e5\u672c");
    const struct {
        const char8_t* file;   // created under the folder; nullptr: nothing is created
        const char8_t* typed;  // appended to the folder's UTF-8 path
        bool opens;
    } rows[] = {
        {u8"fw.bin", u8"/fw.bin", true},
        {u8"J\u00f6rg fw.bin", u8"/J\u00f6rg fw.bin", true},
        {u8"\u65e5\u672c/\U0001F600.bin", u8"/\u65e5\u672c/\U0001F600.bin", true},
        {u8"Stra\u00dfe.bin", u8"/Stra\u00dfe.bin\"", true},  // typed in quotes, below
        {nullptr, u8"/J\u00f6rg missing.bin", false},
        {nullptr, u8"/\u65e5\u672c", false},  // a folder is no image
    };
    for (const auto& row : rows) {
        if (row.file != nullptr) std::ofstream(folder / row.file, std::ios::binary) << "image";
        const std::u8string typed8 = folder.u8string() + row.typed;
        std::string typed(typed8.begin(), typed8.end());
        if (typed.back() == '"') typed.insert(typed.begin(), '"');
        SCOPED_TRACE(typed);

        std::ostringstream log;
        const HRESULT status =
            dfu::DfuCommand(&log, std::make_shared<ClosedEndpoint>()).ExecuteFile(typed.c_str());
        EXPECT_EQ(status, row.opens ? E_ACCESSDENIED : E_FAIL);
        EXPECT_EQ(log.str(), row.opens ? "" : "Failed to open file " + typed + "\n");
    }
    fs::remove_all(folder);
}

}  // namespace
