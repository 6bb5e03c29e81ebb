#include "platform/registry.h"

#include <gtest/gtest.h>

#include "platform/posix/device_backend.h"
#include "platform/sim/sim_world.h"

namespace {

const wchar_t* const kKey = L"SYSTEM\\CurrentControlSet\\Services\\OptyraCameraDFU";

class RegistryOverSim : public testing::Test {
  protected:
    void Install(bool writable) {
        sim::WorldSpec spec;
        spec.registry.writable = writable;
        world_ = std::make_shared<sim::SimWorld>(spec);
        platform::InstallBackend(world_);
    }
    void TearDown() override { platform::InstallBackend(nullptr); }

    std::shared_ptr<sim::SimWorld> world_;
};

TEST_F(RegistryOverSim, CreatesTheKeyAndStoresTheBytesAsGiven) {
    Install(true);
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS,
              RegCreateKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, nullptr, REG_OPTION_NON_VOLATILE,
                              KEY_WRITE, nullptr, &key, nullptr));
    ASSERT_NE(nullptr, key);
    const BYTE data[] = {'A', 0, 'u', 0, 't', 0, 'o', 0};
    EXPECT_EQ(ERROR_SUCCESS, RegSetValueExW(key, L"DFUAutoMode", 0, REG_SZ, data, sizeof data));
    EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));
    const auto value = world_->DumpState()["registry"]["DFUAutoMode"];
    EXPECT_EQ(1, value["type"]);
    EXPECT_EQ(8, value["bytes"]);
    EXPECT_EQ("Auto", value["text"]);
}

TEST_F(RegistryOverSim, KeyNamesIgnoreCase) {
    Install(true);
    HKEY key = nullptr;
    ASSERT_EQ(
        ERROR_SUCCESS,
        RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"system\\currentcontrolset\\services\\OPTYRACAMERADFU",
                        0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr));
    const BYTE data[] = {'X', 0};
    EXPECT_EQ(ERROR_SUCCESS, RegSetValueExW(key, L"dfuautomode", 0, REG_SZ, data, sizeof data));
    RegCloseKey(key);
    EXPECT_EQ("X", world_->DumpState()["registry"]["DFUAutoMode"]["text"]);
}

TEST_F(RegistryOverSim, ReadOnlyStoreDeniesAccessAndStoresNothing) {
    Install(false);
    HKEY key = reinterpret_cast<HKEY>(0x1);
    EXPECT_EQ(static_cast<LSTATUS>(ERROR_ACCESS_DENIED),
              RegCreateKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, nullptr, 0, KEY_WRITE, nullptr, &key,
                              nullptr));
    EXPECT_EQ(nullptr, key);
    EXPECT_FALSE(world_->DumpState()["registry"].contains("DFUAutoMode"));
}

TEST_F(RegistryOverSim, BadHandlesAreRefused) {
    Install(true);
    const BYTE data[] = {0, 0};
    EXPECT_EQ(static_cast<LSTATUS>(ERROR_INVALID_HANDLE),
              RegSetValueExW(HKEY_LOCAL_MACHINE, L"DFUAutoMode", 0, REG_SZ, data, 2));
    EXPECT_EQ(static_cast<LSTATUS>(ERROR_INVALID_HANDLE), RegCloseKey(nullptr));
}

}  // namespace
