// Discovery of the family's DFU-mode devices and the device objects it hands out, burning into
// the lab's devices.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
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

// --- the device objects ------------------------------------------------------------------

const std::string kImageDir = std::string(LYNX_SOURCE_DIR) + "/lab/";

std::vector<std::uint8_t> ReadBytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

TEST(LynxDfuDevice, BurnWritesTheWholeImageAndManifests) {
    LabBus bus({kFirst}, 20);
    std::ostringstream log;
    const auto devices = CreateDfuDevicesFactory(&log)->GetDfuDevices(0);
    ASSERT_EQ(1u, devices.size());
    const std::string image = kImageDir + "sample-firmware.bin";
    EXPECT_EQ(S_OK, devices[0]->Burn(image.c_str()));

    const auto bytes = ReadBytes(image);
    ASSERT_FALSE(bytes.empty());
    const auto downloads = bus.world->DumpState()["downloads"];
    ASSERT_EQ(1u, downloads.size());
    EXPECT_EQ(bytes.size(), downloads[0]["bytes"].get<std::uint64_t>());
    char crc[9];
    std::snprintf(crc, sizeof crc, "%08x", sim::Crc32(0, bytes.data(), bytes.size()));
    EXPECT_EQ(crc, downloads[0]["crc32"].get<std::string>());
    EXPECT_TRUE(downloads[0]["manifested"].get<bool>());
    // The device wrote through the factory's stream.
    EXPECT_NE(std::string::npos, log.str().find("bytes remaining 0\n"));
    // Having manifested, it left the bus.
    EXPECT_TRUE(CreateDfuDevicesFactory(nullptr)->GetDfuDevices(0).empty());
}

struct BurnFailureCase {
    const char* label;
    bool withLog;
};

class BurnFailures : public testing::TestWithParam<BurnFailureCase> {};

// Unplugged after the listing, a link as the platform never lists it, a missing image: the
// lines the operator reads (or none without a stream), E_FAIL, and nothing sent when the device
// was not there.
TEST_P(BurnFailures, LinesAndStatuses) {
    LabBus bus({}, 100);
    auto plugged = bus.MakeDevice(kFirst);
    bus.Plug(plugged);
    std::ostringstream log;
    std::ostream* stream = GetParam().withLog ? &log : nullptr;
    const auto devices = CreateDfuDevicesFactory(stream)->GetDfuDevices(0);
    ASSERT_EQ(1u, devices.size());

    const std::string missing = kImageDir + "no-such-image.bin";
    EXPECT_EQ(E_FAIL, devices[0]->Burn(missing.c_str()));
    std::string expected = GetParam().withLog ? "Failed to open file " + missing + "\n" : "";
    EXPECT_EQ(expected, log.str());

    const std::string image = kImageDir + "sample-firmware.bin";
    LynxDfuDevice upper(kFirst, stream);
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(E_FAIL, upper.Burn(image.c_str()));
    EXPECT_GE(GetTickCount64() - start + 2, 10000u);
    const std::string narrow(kFirst.begin(), kFirst.end());
    if (GetParam().withLog) expected += "DFU device" + narrow + " is not connected\n";
    EXPECT_EQ(expected, log.str());

    bus.Unplug(*plugged);
    for (int i = 0; i < 5000 && !CreateDfuDevicesFactory(nullptr)->GetDfuDevices(0).empty(); ++i)
        Sleep(1);
    EXPECT_EQ(E_FAIL, devices[0]->Burn(image.c_str()));
    const std::wstring lowerLink = Lower(kFirst);
    const std::string lower(lowerLink.begin(), lowerLink.end());
    if (GetParam().withLog) expected += "DFU device" + lower + " is not connected\n";
    EXPECT_EQ(expected, log.str());
    EXPECT_TRUE(bus.world->DumpState()["downloads"].empty());
}

INSTANTIATE_TEST_SUITE_P(Streams, BurnFailures,
                         testing::Values(BurnFailureCase{"with_log", true},
                                         BurnFailureCase{"without_log", false}),
                         [](const auto& info) { return std::string(info.param.label); });

}  // namespace
