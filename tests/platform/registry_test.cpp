// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "platform/posix/device_backend.h"
#include "platform/registry.h"
#include "platform/sim/sim_world.h"

namespace {

// RegSetValueExW's rule holds in the lab: a REG_SZ's count includes its null; stored without.
TEST(RegistryStandIn, RefusesATextWithoutItsNullAndStoresTheTextAlone) {
    const auto world = std::make_shared<sim::SimWorld>(sim::WorldSpec{});
    platform::InstallBackend(world);
    HKEY key = nullptr;
    ASSERT_EQ(
        ERROR_SUCCESS,
        RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Services\\OptyraCameraDFU",
                        0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr));
    const BYTE text[] = {'A', 0, 'u', 0, 't', 0, 'o', 0, 0, 0};
    for (DWORD size : {8u, 9u, 0u, 10u}) {
        EXPECT_EQ(size == 10 ? ERROR_SUCCESS : ERROR_INVALID_PARAMETER,
                  RegSetValueExW(key, L"DFUAutoMode", 0, REG_SZ, text, size));
    }
    RegCloseKey(key);
    EXPECT_EQ(8, world->DumpState()["registry"]["DFUAutoMode"]["bytes"]);
    platform::InstallBackend(nullptr);
}

}  // namespace
