// SPDX-License-Identifier: Apache-2.0
// The DFU auto mode as the Linux program stores it for the family's service: a root-only
// file per value, under a key path the service names exactly (file names are case-sensitive).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/linux/linux_backend.h"
#include "platform/linux/settings_store.h"
#include "platform/linux/sysfs.h"
#include "updatable/lynx_updatable_device.h"

namespace platform::linux_hw {
namespace {

const std::wstring kKey = L"SYSTEM\\CurrentControlSet\\Services\\OptyraCameraDFU";

class SettingsStoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/lynx-settings-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        base_ = pattern;
    }
    void TearDown() override {
        platform::InstallBackend(nullptr);
        std::filesystem::remove_all(base_);
    }

    std::string base_;
};

// A system without /var/lib: the store's own parents appear, passable by everyone, while the
// store itself stays root-only; overwriting leaves exactly the new text, nothing beside it.
TEST_F(SettingsStoreTest, EachModeIsStoredAsTextInARootOnlyFile) {
    const std::string root = base_ + "/var/lib/lynx-dfu";
    platform::InstallBackend(CreateLinuxBackend({.settings = root}));
    const auto camera = CreateLynxUpdatableDevice();
    const std::string file =
        root + "/SYSTEM/CurrentControlSet/Services/OptyraCameraDFU/DFUAutoMode";
    const struct {
        HRESULT (ICameraDevice::*set)();
        const char* text;
    } rows[] = {{&ICameraDevice::SetDfuAutoModeServiceControlled, "Service Controlled"},
                {&ICameraDevice::SetDfuAutoModeAuto, "Auto"},
                {&ICameraDevice::SetDfuAutoModeDisabled, "Disabled"}};
    for (const auto& row : rows) {
        ASSERT_EQ(S_OK, ((*camera).*row.set)());
        std::ifstream stored(file, std::ios::binary);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(stored), {}), row.text);
        EXPECT_FALSE(std::filesystem::exists(file + ".new"));
    }
    struct stat info{};
    for (const auto& [path, mode] :
         {std::pair{base_ + "/var", 0755u}, std::pair{base_ + "/var/lib", 0755u},
          std::pair{root, 0700u}, std::pair{root + "/SYSTEM", 0700u}, std::pair{file, 0600u}}) {
        ASSERT_EQ(stat(path.c_str(), &info), 0) << path;
        EXPECT_EQ(info.st_mode & 0777, mode) << path;
    }
}

TEST_F(SettingsStoreTest, NamesThatWouldLeaveTheStoreAreRefused) {
    SettingsStore store(base_ + "/lynx-dfu");
    const std::uint8_t data[2] = {'A', 0};
    EXPECT_EQ(store.SetValue(kKey, L"DFUAutoMode", 1, data, 2), ERROR_FILE_NOT_FOUND);
    for (const wchar_t* key : {L"SYSTEM\\..\\..\\etc", L"", L"SYSTEM\\\\Services", L"SYSTEM/x"}) {
        EXPECT_EQ(store.CreateKey(key), ERROR_INVALID_PARAMETER) << testing::PrintToString(key);
    }
    ASSERT_EQ(store.CreateKey(kKey), ERROR_SUCCESS);
    EXPECT_EQ(store.SetValue(kKey, L"..", 1, data, 2), ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(std::filesystem::exists(base_ + "/etc"));
}

// An operator who is not root meets a refusal; the program names that one alone.
TEST(ErrnoCodes, RefusalsReadAsAccessDenied) {
    EXPECT_EQ(ErrorFromErrno(EACCES), ERROR_ACCESS_DENIED);
    EXPECT_EQ(ErrorFromErrno(EPERM), ERROR_ACCESS_DENIED);
}

}  // namespace
}  // namespace platform::linux_hw
