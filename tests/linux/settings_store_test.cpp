#include "platform/linux/settings_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace platform::linux_hw {
namespace {

const std::wstring kKey = L"SYSTEM\\CurrentControlSet\\Services\\OptyraCameraDFU";

class SettingsStoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/lynx-settings-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        base_ = pattern;
        root_ = base_ + "/lynx-dfu";
    }
    void TearDown() override { std::filesystem::remove_all(base_); }

    std::string Read(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        std::ostringstream text;
        text << file.rdbuf();
        return text.str();
    }

    std::string base_;
    std::string root_;
};

TEST_F(SettingsStoreTest, ModeIsStoredAsTextInARootOnlyFile) {
    SettingsStore store(root_);
    ASSERT_EQ(store.CreateKey(kKey), ERROR_SUCCESS);
    const std::wstring mode = L"Service Controlled";
    std::u16string utf16(mode.begin(), mode.end());
    ASSERT_EQ(
        store.SetValue(kKey, L"DFUAutoMode", 1, reinterpret_cast<const std::uint8_t*>(utf16.data()),
                       static_cast<std::uint32_t>(utf16.size() * 2)),
        ERROR_SUCCESS);
    const std::string file =
        root_ + "/SYSTEM/CurrentControlSet/Services/OptyraCameraDFU/DFUAutoMode";
    EXPECT_EQ(Read(file), "Service Controlled");

    struct stat info {};
    ASSERT_EQ(stat(root_.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    ASSERT_EQ(stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);

    // Overwriting leaves exactly the new text, with no leftovers beside it.
    std::u16string shorter = u"Auto";
    ASSERT_EQ(store.SetValue(kKey, L"DFUAutoMode", 1,
                             reinterpret_cast<const std::uint8_t*>(shorter.data()), 8),
              ERROR_SUCCESS);
    EXPECT_EQ(Read(file), "Auto");
    EXPECT_FALSE(std::filesystem::exists(file + ".new"));
}

TEST_F(SettingsStoreTest, MissingParentsOfTheStoreAreCreatedOpenToAll) {
    // A system without /var/lib: the store's own parents appear, passable by everyone,
    // while the store itself stays root-only.
    const std::string root = base_ + "/var/lib/lynx-dfu";
    SettingsStore store(root);
    ASSERT_EQ(store.CreateKey(kKey), ERROR_SUCCESS);
    const std::uint8_t data[2] = {'A', 0};
    ASSERT_EQ(store.SetValue(kKey, L"DFUAutoMode", 1, data, 2), ERROR_SUCCESS);
    EXPECT_EQ(Read(root + "/SYSTEM/CurrentControlSet/Services/OptyraCameraDFU/DFUAutoMode"), "A");
    struct stat info {};
    for (const auto& [path, mode] :
         {std::pair{base_ + "/var", 0755u}, std::pair{base_ + "/var/lib", 0755u},
          std::pair{root, 0700u}, std::pair{root + "/SYSTEM", 0700u}}) {
        ASSERT_EQ(stat(path.c_str(), &info), 0) << path;
        EXPECT_EQ(info.st_mode & 0777, mode) << path;
    }
}

TEST_F(SettingsStoreTest, NamesThatWouldLeaveTheStoreAreRefused) {
    SettingsStore store(root_);
    for (const std::wstring& key :
         {std::wstring(L"SYSTEM\\..\\..\\etc"), std::wstring(L""),
          std::wstring(L"SYSTEM\\\\Services"), std::wstring(L"SYSTEM/x")}) {
        EXPECT_EQ(store.CreateKey(key), ERROR_INVALID_PARAMETER)
            << std::string(key.begin(), key.end());
    }
    ASSERT_EQ(store.CreateKey(kKey), ERROR_SUCCESS);
    const std::uint8_t data[2] = {'A', 0};
    EXPECT_EQ(store.SetValue(kKey, L"..", 1, data, 2), ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(std::filesystem::exists(base_ + "/etc"));
}

TEST_F(SettingsStoreTest, ValueOfAKeyNeverCreatedIsNotFound) {
    SettingsStore store(root_);
    const std::uint8_t data[2] = {'A', 0};
    EXPECT_EQ(store.SetValue(kKey, L"DFUAutoMode", 1, data, 2), ERROR_FILE_NOT_FOUND);
}

}  // namespace
}  // namespace platform::linux_hw
