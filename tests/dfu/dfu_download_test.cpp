// The engine driving the lab's DFU device through the real WinUSB endpoint and the POSIX
// platform calls: what the device received, what the operator reads, how long it took.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

#include "dfu/dfu_command.h"
#include "dfu/win_usb_device.h"
#include "platform/sync.h"
#include "sim_lab.h"

namespace {

using dfu_test::Crc32Text;
using dfu_test::Pattern;
using dfu_test::SimLab;

const std::string kDownload =
    "DownloadImage(reinterpret_cast<const BYTE *>(firmwareImage), imageLength)";
const std::string kBlock = "usbEndpoint->Transfer(downloadPacket, pBuffer, chunkSize)";
const std::string kBlockWait = "WaitForState(DFU_STATE::dfuDNLOAD_IDLE, 5000)";
const std::string kManifestWait = "WaitForState(DFU_STATE::dfuMANIFEST_WAIT_RESET, 30000)";

std::string Failed(const std::string& step, HRESULT status = E_FAIL) {
    return step + " Failed with status" + std::to_string(status) + "\n";
}
std::string Progress(std::initializer_list<std::pair<int, int>> lines) {
    std::string text;
    for (const auto& [chunk, left] : lines) {
        text += "Downloaded " + std::to_string(chunk) + ", bytes remaining " +
                std::to_string(left) + "\n";
    }
    return text;
}

HRESULT Burn(const std::vector<std::uint8_t>& image, std::ostream* log) {
    dfu::WinUsbDevice device(dfu_test::kLink);
    EXPECT_TRUE(device.IsOpen());
    return dfu::DfuCommand(log, device.AcquireControlEndpoint())
        .Execute(image.data(), image.size());
}

struct DownloadCase {
    const char* name;
    sim::DfuDeviceSpec device;
    std::size_t imageSize;
    HRESULT expected;
    std::string log;
    int blocksReceived;  // -1: the device saw no download at all
    bool manifested;     // and then reset, leaving the bus
};

sim::DfuDeviceSpec Device(std::uint16_t transferSize, std::uint32_t busyPolls = 0,
                          std::uint8_t stateAfterDetach = 2,
                          std::optional<sim::DfuFault> fault = std::nullopt) {
    sim::DfuDeviceSpec spec;
    spec.transferSize = transferSize;
    spec.busyPolls = busyPolls;
    spec.stateAfterDetach = stateAfterDetach;
    spec.fault = fault;
    return spec;
}

class DownloadToLabDevice : public testing::TestWithParam<DownloadCase> {};

TEST_P(DownloadToLabDevice, DeviceReceivesWhatTheOperatorIsTold) {
    const DownloadCase& c = GetParam();
    SimLab lab(c.device, 20);
    const auto image = Pattern(c.imageSize);
    std::ostringstream log;
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(Burn(image, &log), c.expected);
    // Errors end a wait at once; nothing here may run into the 5 s limit.
    EXPECT_LT(GetTickCount64() - start, 5000u);
    EXPECT_EQ(log.str(), c.log);

    const auto downloads = lab.Downloads();
    ASSERT_EQ(downloads.size(), c.blocksReceived < 0 ? 0u : 1u);
    if (c.blocksReceived >= 0) {
        EXPECT_EQ(downloads[0]["blocks"], c.blocksReceived);
        EXPECT_EQ(downloads[0]["manifested"], c.manifested);
        if (c.manifested) {
            EXPECT_EQ(downloads[0]["crc32"], Crc32Text(image));
        }
    }
    EXPECT_EQ(
        lab.Device()["present"],
        !c.manifested && c.device.fault.value_or(sim::DfuFault{}).kind != sim::FaultKind::kUnplug);
}

const HRESULT kStalled = platform::HResultFromError(ERROR_GEN_FAILURE);
const HRESULT kGone = platform::HResultFromError(ERROR_DEVICE_NOT_CONNECTED);

INSTANTIATE_TEST_SUITE_P(
    Cases, DownloadToLabDevice,
    testing::Values(
        DownloadCase{"ExactMultiple", Device(1024), 4096, S_OK,
                     Progress({{1024, 3072}, {1024, 2048}, {1024, 1024}, {1024, 0}}), 4, true},
        DownloadCase{"ShortLastBlockAfterBusyPolls", Device(6, 3), 10, S_OK,
                     Progress({{6, 4}, {4, 0}}), 2, true},
        // A strict device refuses an empty download from dfuIDLE.
        DownloadCase{"EmptyImage", Device(1024), 0, E_FAIL,
                     Failed(kManifestWait) + Failed("ManifestAndReset()"), 0, false},
        DownloadCase{"Stall", Device(16, 0, 2, sim::DfuFault{1, sim::FaultKind::kStall}), 64,
                     kStalled,
                     Progress({{16, 48}}) + Failed(kBlock, kStalled) + Failed(kDownload, kStalled),
                     1, false},
        DownloadCase{
            "Error", Device(16, 0, 2, sim::DfuFault{2, sim::FaultKind::kError}), 64, E_FAIL,
            Progress({{16, 48}, {16, 32}}) + Failed(kBlockWait) + Failed(kDownload), 2, false},
        DownloadCase{"Unplug", Device(16, 0, 2, sim::DfuFault{1, sim::FaultKind::kUnplug}), 64,
                     kGone, Progress({{16, 48}}) + Failed(kBlock, kGone) + Failed(kDownload, kGone),
                     1, false},
        DownloadCase{"AppIdleAfterDetach", Device(16, 0, 0), 64, E_FAIL,
                     Failed("AssertState(DFU_STATE::dfuIDLE)"), -1, false},
        DownloadCase{"ErrorAfterDetach", Device(16, 0, 10), 64, E_FAIL,
                     Failed("AssertState(DFU_STATE::dfuIDLE)"), -1, false}),
    [](const auto& info) { return std::string(info.param.name); });

// Waits that never end, on a world clock a hundred times faster than real time.
class WaitLimits : public testing::TestWithParam<std::tuple<sim::DfuDeviceSpec, ULONGLONG>> {};

TEST_P(WaitLimits, StopAtTheirLimit) {
    const auto& [device, limitMs] = GetParam();
    SimLab lab(device, 100);
    std::ostringstream log;
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(Burn(Pattern(64), &log), E_FAIL);
    EXPECT_GE(GetTickCount64() - start, limitMs);
    EXPECT_LT(GetTickCount64() - start, limitMs + 1000);
    const std::string last = limitMs == 5000 ? Failed(kBlockWait) + Failed(kDownload)
                                             : Failed(kManifestWait) + Failed("ManifestAndReset()");
    EXPECT_TRUE(log.str().ends_with(last)) << log.str();
}

sim::DfuDeviceSpec NeverManifests() {
    auto spec = Device(64);
    spec.manifestPolls = 1000000;
    return spec;
}

// The endpoint bounds every transfer by the transfer size, the six-byte status request
// too: below six bytes no poll gets through.
INSTANTIATE_TEST_SUITE_P(Cases, WaitLimits,
                         testing::Values(std::make_tuple(Device(64, 1000000), 5000ull),
                                         std::make_tuple(Device(4), 5000ull),
                                         std::make_tuple(NeverManifests(), 30000ull)));

// The strict device refuses any block whose number is not the count so far modulo 65536.
TEST(DownloadBlocks, BlockNumberWrapsAfter65535) {
    SimLab lab(Device(8));
    const auto image = Pattern((65536 + 5) * 8 - 3);
    EXPECT_EQ(Burn(image, nullptr), S_OK);
    EXPECT_EQ(lab.Downloads()[0]["blocks"], 65541);
    EXPECT_EQ(lab.Downloads()[0]["crc32"], Crc32Text(image));
}

TEST(DownloadBlocks, CameraComesBackWithItsNewFirmwareAfterTheReset) {
    sim::WorldSpec spec;
    spec.cameras.resize(1);
    spec.cameras[0].name = L"Lynx LX20 Depth Camera";
    spec.cameras[0].firmwareAfterUpdate = {5, 16, 0, 1};
    auto world = std::make_shared<sim::SimWorld>(spec);
    platform::InstallBackend(world);
    {
        std::lock_guard lock(world->Lock());
        world->Cameras()[0]->present = false;
        auto device = Device(1024);
        device.link = dfu_test::kLink;
        world->Plug(std::make_shared<sim::SimDfuDevice>(*world, device, 0));
    }
    EXPECT_EQ(Burn(Pattern(3000), nullptr), S_OK);
    const auto state = world->DumpState();
    platform::InstallBackend(nullptr);
    EXPECT_EQ(state["cameras"][0]["firmware"], "5.16.0.1");
    EXPECT_TRUE(state["cameras"][0]["present"]);
    EXPECT_FALSE(state["dfuDevices"][0]["present"]);
}

TEST(ImageFiles, PathsAsTypedAndTheFileLeftAsItWas) {
    const auto dir =
        std::filesystem::temp_directory_path() / ("lynx-dfu-files-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    const std::string file = (dir / "image.bin").string();
    const std::string missing = (dir / "missing.bin").string();
    const auto image = Pattern(100);
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(image.data()), image.size());

    const std::pair<std::string, std::string> cases[] = {
        {"\"" + file + "\"", Progress({{64, 36}, {36, 0}})},
        {"\"" + file, "Failed to open file \"" + file + "\n"},
        {file + "\"", "Failed to open file " + file + "\"\n"},
        {"\"", "Failed to open file \n"},
        {missing, "Failed to open file " + missing + "\n"},
        {dir.string(), "Failed to open file " + dir.string() + "\n"},
    };
    for (const auto& [typed, expected] : cases) {
        SCOPED_TRACE(typed);
        SimLab lab(Device(64));
        dfu::WinUsbDevice device(dfu_test::kLink);
        std::ostringstream log;
        const HRESULT result =
            dfu::DfuCommand(&log, device.AcquireControlEndpoint()).ExecuteFile(typed.c_str());
        EXPECT_EQ(log.str(), expected);
        EXPECT_EQ(result, expected.starts_with("Failed") ? E_FAIL : S_OK);
        EXPECT_EQ(lab.Downloads().size(), expected.starts_with("Failed") ? 0u : 1u);
    }
    for (auto kind : {sim::FaultKind::kStall, sim::FaultKind::kError, sim::FaultKind::kUnplug}) {
        SimLab lab(Device(16, 0, 2, sim::DfuFault{2, kind}));
        dfu::WinUsbDevice device(dfu_test::kLink);
        EXPECT_NE(
            dfu::DfuCommand(nullptr, device.AcquireControlEndpoint()).ExecuteFile(file.c_str()),
            S_OK);
        std::ifstream in(file, std::ios::binary);
        EXPECT_EQ(std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), {}), image);
    }
    std::filesystem::remove_all(dir);
}

}  // namespace
