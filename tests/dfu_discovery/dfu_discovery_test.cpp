// Discovery of the family's DFU-mode devices: what is listed and how long the wait takes.
#include <gtest/gtest.h>

#include <sstream>

#include "dfu/dfu_devices_factory.h"
#include "lab_bus.h"
#include "platform/sync.h"

namespace {

using namespace discovery_test;

std::vector<std::wstring> Links(const std::vector<std::shared_ptr<IDfuDevice>>& devices) {
    std::vector<std::wstring> links;
    for (const auto& device : devices) links.push_back(device->GetSymbolicLink());
    return links;
}

struct DiscoveryCase {
    const char* label;
    std::vector<std::wstring> present;
    std::uint32_t timeoutMs;
    std::vector<std::wstring> expected;
    ULONGLONG minMs, maxMs;  // world milliseconds the call takes
};

class Discovery : public testing::TestWithParam<DiscoveryCase> {};

TEST_P(Discovery, ReturnsTheFamilysDevicesPresent) {
    const auto& c = GetParam();
    LabBus bus(c.present, 10);
    std::ostringstream log;
    LynxDfuDevicesFactory lynx(&log);
    DfuDevicesFactory joined(&log);

    const ULONGLONG start = GetTickCount64();
    const auto devices = lynx.GetDfuDevices(c.timeoutMs);
    const ULONGLONG elapsed = GetTickCount64() - start;
    EXPECT_EQ(c.expected, Links(devices));
    EXPECT_GE(elapsed + 2, c.minMs);
    EXPECT_LE(elapsed, c.maxMs);
    EXPECT_EQ(c.expected, Links(joined.GetDfuDevices(c.timeoutMs)));
    EXPECT_EQ("", log.str());
}

INSTANTIATE_TEST_SUITE_P(
    Worlds, Discovery,
    testing::Values(
        DiscoveryCase{"none_no_wait", {kOtherProduct}, 0, {}, 0, 2000},
        DiscoveryCase{"none_waits_out_the_timeout", {kOtherVendor}, 10000, {}, 10000, 20000},
        DiscoveryCase{"present_ends_the_wait_at_once",
                      {kOtherProduct, kSecond, kOtherVendor, kFirst},
                      10000,
                      {Lower(kSecond), Lower(kFirst)},
                      0,
                      5000},
        DiscoveryCase{
            "present_no_wait", {kFirst, kSecond}, 0, {Lower(kFirst), Lower(kSecond)}, 0, 2000}),
    [](const auto& info) { return std::string(info.param.label); });

TEST(Discovery, ArrivalDuringTheWaitIsReturnedAndEndsIt) {
    LabBus bus({}, 10);
    bus.PlugLater(3000, bus.MakeDevice(kFirst));
    LynxDfuDevicesFactory factory(nullptr);
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(std::vector<std::wstring>{Lower(kFirst)}, Links(factory.GetDfuDevices(10000)));
    const ULONGLONG elapsed = GetTickCount64() - start;
    EXPECT_GE(elapsed, 2900u);
    EXPECT_LT(elapsed, 8000u);
}

TEST(Discovery, WithoutWaitALaterArrivalIsOfferedOnlyByTheNextCall) {
    LabBus bus({});
    auto device = bus.MakeDevice(kFirst);
    auto factory = CreateDfuDevicesFactory(nullptr);
    EXPECT_TRUE(factory->GetDfuDevices(0).empty());
    bus.Plug(device);
    EXPECT_EQ(std::vector<std::wstring>{Lower(kFirst)}, Links(factory->GetDfuDevices(0)));
}

// A device that is not on the bus is waited for during the connection limit, then reported.
TEST(LynxDfuDevice, AbsentDeviceIsWaitedForTenSecondsThenNotConnected) {
    LabBus bus({}, 100);
    std::ostringstream log;
    LynxDfuDevice device(Lower(kFirst), &log);
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(E_FAIL, device.Burn(LYNX_SOURCE_DIR "/lab/sample-firmware.bin"));
    EXPECT_GE(GetTickCount64() - start + 2, 10000u);
    EXPECT_LT(GetTickCount64() - start, 20000u);
    const std::wstring link = Lower(kFirst);
    EXPECT_EQ("DFU device" + std::string(link.begin(), link.end()) + " is not connected\n",
              log.str());
    EXPECT_TRUE(bus.world->DumpState()["downloads"].empty());
}

}  // namespace
