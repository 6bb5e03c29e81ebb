// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "platform/posix/device_backend.h"
#include "platform/sim/sim_world.h"
#include "platform/sync.h"

namespace {

using Clock = std::chrono::steady_clock;

// A named object is one any other program may create first: the stand-in refuses names.
// Bad handles fail at once.
TEST(Events, NamesAndBadHandlesAreRefusedWithoutWaiting) {
    EXPECT_EQ(nullptr, CreateEventW(nullptr, TRUE, FALSE, L"sync-test"));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, GetLastError());
    EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(nullptr, 10000));
    EXPECT_EQ(ERROR_INVALID_HANDLE, GetLastError());
    EXPECT_FALSE(SetEvent(INVALID_HANDLE_VALUE));
    EXPECT_FALSE(CloseHandle(nullptr));
}

TEST(Events, AutoResetReleasesOneWaitAndAnotherThreadEndsAWait) {
    HANDLE once = CreateEventW(nullptr, FALSE, TRUE, nullptr);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(once, 0));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(once, 0));
    CloseHandle(once);
    HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    std::thread signaller([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        SetEvent(event);
    });
    const auto start = Clock::now();
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(event, 10000));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
    signaller.join();
    CloseHandle(event);
}

TEST(Clock, SpeedupScalesSleepsWaitsAndTicks) {
    sim::WorldSpec spec;
    spec.speedup = 100;
    platform::InstallBackend(std::make_shared<sim::SimWorld>(spec));
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    const auto realStart = Clock::now();
    const ULONGLONG tickStart = GetTickCount64();
    Sleep(1000);
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(event, 2000));
    const auto real = Clock::now() - realStart;
    const ULONGLONG ticks = GetTickCount64() - tickStart;
    platform::InstallBackend(nullptr);
    CloseHandle(event);
    // 3 s of world time in about 30 ms of real time.
    EXPECT_GE(ticks, 3000u);
    EXPECT_LT(real, std::chrono::milliseconds(1500));
    EXPECT_GE(real, std::chrono::milliseconds(29));
}

}  // namespace
