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
using dfu_test::kLink;
using dfu_test::Pattern;
using dfu_test::SimLab;

constexpr const char* kFail = " Failed with status-2147467259";
constexpr const char* kStall = " Failed with status-2147024865";      // ERROR_GEN_FAILURE
constexpr const char* kUnplugged = " Failed with status-2147023729";  // ERROR_DEVICE_NOT_CONNECTED
constexpr const char* kDownloadStep =
    "DownloadImage(reinterpret_cast<const BYTE *>(firmwareImage), imageLength)";

HRESULT Burn(const std::vector<std::uint8_t>& image, std::ostream* log) {
    dfu::WinUsbDevice device(kLink);
    EXPECT_TRUE(device.IsOpen());
    if (!device.IsOpen()) return E_HANDLE;
    dfu::DfuCommand command(log, device.AcquireControlEndpoint());
    return command.Execute(image.data(), image.size());
}

struct DownloadCase {
    const char* name;
    std::uint16_t transferSize;
    std::size_t imageSize;
    std::uint32_t busyPolls;
    std::uint8_t stateAfterDetach;
    std::optional<sim::DfuFault> fault;
    HRESULT expected;
    std::string log;
    std::uint32_t blocksReceived;  // data blocks the device took; -1u: no download at all
    bool manifested;
    bool presentAfter;
};

class DownloadToSimDevice : public testing::TestWithParam<DownloadCase> {};

TEST_P(DownloadToSimDevice, DeviceReceivesWhatTheOperatorIsTold) {
    const DownloadCase& c = GetParam();
    sim::DfuDeviceSpec spec;
    spec.transferSize = c.transferSize;
    spec.busyPolls = c.busyPolls;
    spec.stateAfterDetach = c.stateAfterDetach;
    spec.fault = c.fault;
    SimLab lab(spec, 20);
    const auto image = Pattern(c.imageSize);

    std::ostringstream log;
    EXPECT_EQ(Burn(image, &log), c.expected);
    EXPECT_EQ(log.str(), c.log);

    const auto downloads = lab.Downloads();
    if (c.blocksReceived == ~0u) {
        EXPECT_TRUE(downloads.empty());
    } else {
        ASSERT_EQ(downloads.size(), 1u);
        EXPECT_EQ(downloads[0]["blocks"], c.blocksReceived);
        EXPECT_EQ(downloads[0]["manifested"], c.manifested);
        if (c.manifested) {
            EXPECT_EQ(downloads[0]["bytes"], c.imageSize);
            EXPECT_EQ(downloads[0]["crc32"], Crc32Text(image));
        }
    }
    EXPECT_EQ(lab.Device()["present"], c.presentAfter);
}

std::string Progress(std::initializer_list<std::pair<int, int>> lines) {
    std::string text;
    for (const auto& [chunk, left] : lines) {
        text += "Downloaded " + std::to_string(chunk) + ", bytes remaining " +
                std::to_string(left) + "\n";
    }
    return text;
}

const sim::DfuFault kStallAt1{1, sim::FaultKind::kStall};
const sim::DfuFault kErrorAt2{2, sim::FaultKind::kError};
const sim::DfuFault kUnplugAt1{1, sim::FaultKind::kUnplug};

INSTANTIATE_TEST_SUITE_P(
    Cases, DownloadToSimDevice,
    testing::Values(DownloadCase{"ExactMultiple", 1024, 4096, 0, 2, std::nullopt, S_OK,
                                 Progress({{1024, 3072}, {1024, 2048}, {1024, 1024}, {1024, 0}}), 4,
                                 true, false},
                    DownloadCase{"TenBytesInSixes", 6, 10, 0, 2, std::nullopt, S_OK,
                                 Progress({{6, 4}, {4, 0}}), 2, true, false},
                    DownloadCase{"BusyBeforeEachBlock", 64, 200, 3, 2, std::nullopt, S_OK,
                                 Progress({{64, 136}, {64, 72}, {64, 8}, {8, 0}}), 4, true, false},
                    // A strict device refuses an empty download from dfuIDLE, so the manifestation
                    // wait sees dfuERROR and gives up at once.
                    DownloadCase{
                        "EmptyImage", 1024, 0, 0, 2, std::nullopt, E_FAIL,
                        std::string("WaitForState(DFU_STATE::dfuMANIFEST_WAIT_RESET, 30000)") +
                            kFail + "\nManifestAndReset()" + kFail + "\n",
                        0, false, true},
                    DownloadCase{"StallAtSecondBlock", 16, 64, 0, 2, kStallAt1,
                                 static_cast<HRESULT>(0x8007001Fu),
                                 Progress({{16, 48}}) +
                                     "usbEndpoint->Transfer(downloadPacket, pBuffer, chunkSize)" +
                                     kStall + "\n" + kDownloadStep + kStall + "\n",
                                 1, false, true},
                    DownloadCase{"ErrorAfterThirdBlock", 16, 64, 0, 2, kErrorAt2, E_FAIL,
                                 Progress({{16, 48}, {16, 32}}) +
                                     "WaitForState(DFU_STATE::dfuDNLOAD_IDLE, 5000)" + kFail +
                                     "\n" + kDownloadStep + kFail + "\n",
                                 2, false, true},
                    DownloadCase{"UnpluggedDuringSecondBlock", 16, 64, 0, 2, kUnplugAt1,
                                 static_cast<HRESULT>(0x8007048Fu),
                                 Progress({{16, 48}}) +
                                     "usbEndpoint->Transfer(downloadPacket, pBuffer, chunkSize)" +
                                     kUnplugged + "\n" + kDownloadStep + kUnplugged + "\n",
                                 1, false, false},
                    DownloadCase{"StillInAppModeAfterDetach", 16, 64, 0, 0, std::nullopt, E_FAIL,
                                 std::string("AssertState(DFU_STATE::dfuIDLE)") + kFail + "\n", ~0u,
                                 false, true},
                    DownloadCase{"ErrorStateAfterDetach", 16, 64, 0, 10, std::nullopt, E_FAIL,
                                 std::string("AssertState(DFU_STATE::dfuIDLE)") + kFail + "\n", ~0u,
                                 false, true}),
    [](const auto& info) { return std::string(info.param.name); });

// Error states end a wait at once; with the world clock at real speed a wait that ran to
// its limit would take five seconds.
TEST(DownloadFailures, ErrorStateEndsTheWaitWithoutWaitingOutTheLimit) {
    sim::DfuDeviceSpec spec;
    spec.transferSize = 16;
    spec.fault = sim::DfuFault{0, sim::FaultKind::kError};
    SimLab lab(spec);
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(Burn(Pattern(64), nullptr), E_FAIL);
    EXPECT_LT(GetTickCount64() - start, 1000u);
}

// Time limits run in world milliseconds at a hundredfold speed.
struct LimitCase {
    const char* name;
    std::uint16_t transferSize;
    std::uint32_t busyPolls;
    std::uint32_t manifestPolls;
    std::uint32_t limitMs;
    std::string lastLines;
};

class WaitLimits : public testing::TestWithParam<LimitCase> {};

TEST_P(WaitLimits, AWaitThatNeverEndsStopsAtItsLimit) {
    const LimitCase& c = GetParam();
    sim::DfuDeviceSpec spec;
    spec.transferSize = c.transferSize;
    spec.busyPolls = c.busyPolls;
    spec.manifestPolls = c.manifestPolls;
    SimLab lab(spec, 100);
    std::ostringstream log;
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(Burn(Pattern(64), &log), E_FAIL);
    const ULONGLONG elapsed = GetTickCount64() - start;
    EXPECT_GE(elapsed, c.limitMs);
    EXPECT_LT(elapsed, c.limitMs + 1000);
    EXPECT_TRUE(log.str().ends_with(c.lastLines)) << log.str();
    EXPECT_FALSE(lab.Downloads()[0]["manifested"]);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, WaitLimits,
    testing::Values(  // The endpoint bounds every transfer by the transfer size, the six-byte
                      // status request too: below six bytes no poll gets through.
        LimitCase{"TransferSizeBelowTheStatusReply", 4, 0, 1, 5000,
                  std::string("WaitForState(DFU_STATE::dfuDNLOAD_IDLE, 5000)") + kFail + "\n" +
                      kDownloadStep + kFail + "\n"},
        LimitCase{"StaysBusy", 64, 1000000, 1, 5000,
                  std::string("WaitForState(DFU_STATE::dfuDNLOAD_IDLE, 5000)") + kFail + "\n" +
                      kDownloadStep + kFail + "\n"},
        LimitCase{"NeverManifests", 64, 0, 1000000, 30000,
                  std::string("WaitForState(DFU_STATE::dfuMANIFEST_WAIT_RESET, "
                              "30000)") +
                      kFail + "\nManifestAndReset()" + kFail + "\n"}),
    [](const auto& info) { return std::string(info.param.name); });

// More than 65536 blocks: the strict device refuses any block whose number is not the
// count so far modulo 65536, so only a correct wrap gets the image through.
TEST(DownloadBlocks, BlockNumberWrapsAfter65535) {
    sim::DfuDeviceSpec spec;
    spec.transferSize = 8;
    SimLab lab(spec);
    const auto image = Pattern((65536 + 5) * 8 - 3);
    EXPECT_EQ(Burn(image, nullptr), S_OK);
    const auto downloads = lab.Downloads();
    ASSERT_EQ(downloads.size(), 1u);
    EXPECT_EQ(downloads[0]["blocks"], 65541u);
    EXPECT_EQ(downloads[0]["crc32"], Crc32Text(image));
    EXPECT_TRUE(downloads[0]["manifested"]);
}

TEST(DownloadBlocks, CameraComesBackWithItsNewFirmwareAfterTheReset) {
    sim::CameraSpec camera;
    camera.name = L"Lynx LX20 Depth Camera";
    camera.lynx = true;
    camera.firmware = {5, 10, 0, 28};
    camera.firmwareAfterUpdate = {5, 16, 0, 1};
    sim::DfuDeviceSpec spec;
    spec.link = kLink;
    SimLab lab(spec, 1, {camera});
    {
        std::lock_guard lock(lab.world->Lock());
        lab.world->Cameras()[0]->present = false;
        lab.world->Plug(std::make_shared<sim::SimDfuDevice>(*lab.world, spec, 0));
    }
    EXPECT_EQ(Burn(Pattern(3000), nullptr), S_OK);
    const auto state = lab.world->DumpState();
    EXPECT_EQ(state["cameras"][0]["firmware"], "5.16.0.1");
    EXPECT_TRUE(state["cameras"][0]["present"]);
    EXPECT_FALSE(state["dfuDevices"][0]["present"]);
}

// ExecuteFile: the path as typed, and the image file left as it was.
class ImageFiles : public testing::Test {
  protected:
    void SetUp() override {
        dir = std::filesystem::temp_directory_path() /
              ("lynx-dfu-files-" + std::to_string(::getpid()));
        std::filesystem::create_directories(dir);
        image = Pattern(100);
        std::ofstream(dir / "image.bin", std::ios::binary)
            .write(reinterpret_cast<const char*>(image.data()), image.size());
    }
    void TearDown() override { std::filesystem::remove_all(dir); }

    std::vector<std::uint8_t> FileBytes() const {
        std::ifstream in(dir / "image.bin", std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    std::filesystem::path dir;
    std::vector<std::uint8_t> image;
};

TEST_F(ImageFiles, PathsAsTheOperatorTypesThem) {
    const std::string file = (dir / "image.bin").string();
    struct PathCase {
        std::string typed;
        HRESULT expected;
        std::string log;
    };
    const PathCase cases[] = {
        {"\"" + file + "\"", S_OK, ""},
        {file, S_OK, ""},
        {"\"" + file, E_FAIL, "Failed to open file \"" + file + "\n"},
        {file + "\"", E_FAIL, "Failed to open file " + file + "\"\n"},
        {"\"", E_FAIL, "Failed to open file \n"},
        {"\"\"", E_FAIL, "Failed to open file \n"},
        {(dir / "missing.bin").string(), E_FAIL,
         "Failed to open file " + (dir / "missing.bin").string() + "\n"},
        {dir.string(), E_FAIL, "Failed to open file " + dir.string() + "\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.typed);
        sim::DfuDeviceSpec spec;
        spec.transferSize = 64;
        SimLab lab(spec);
        dfu::WinUsbDevice device(kLink);
        ASSERT_TRUE(device.IsOpen());
        std::ostringstream log;
        dfu::DfuCommand command(&log, device.AcquireControlEndpoint());
        EXPECT_EQ(command.ExecuteFile(c.typed.c_str()), c.expected);
        // Progress lines only for a run that reached the device.
        if (c.expected == S_OK) {
            EXPECT_EQ(log.str(),
                      "Downloaded 64, bytes remaining 36\nDownloaded 36, bytes "
                      "remaining 0\n");
            EXPECT_EQ(lab.Downloads()[0]["crc32"], Crc32Text(image));
        } else {
            EXPECT_EQ(log.str(), c.log);
            EXPECT_TRUE(lab.Downloads().empty());
            EXPECT_EQ(lab.Device()["state"], "dfuIDLE");
        }
    }
}

TEST_F(ImageFiles, FailedDownloadsLeaveTheImageFileUntouched) {
    const std::string file = (dir / "image.bin").string();
    for (auto kind : {sim::FaultKind::kStall, sim::FaultKind::kError, sim::FaultKind::kUnplug}) {
        sim::DfuDeviceSpec spec;
        spec.transferSize = 16;
        spec.fault = sim::DfuFault{2, kind};
        SimLab lab(spec);
        dfu::WinUsbDevice device(kLink);
        ASSERT_TRUE(device.IsOpen());
        dfu::DfuCommand command(nullptr, device.AcquireControlEndpoint());
        EXPECT_NE(command.ExecuteFile(file.c_str()), S_OK);
        EXPECT_EQ(FileBytes(), image);
    }
}

TEST(ClosedDevice, RunOnAClosedDeviceIsRefusedWithoutARequest) {
    SimLab lab(sim::DfuDeviceSpec{});
    dfu::WinUsbDevice device(kLink);
    ASSERT_TRUE(device.IsOpen());
    auto endpoint = device.AcquireControlEndpoint();
    device.Close();
    std::ostringstream log;
    dfu::DfuCommand command(&log, endpoint);
    const auto image = Pattern(10);
    EXPECT_EQ(command.Execute(image.data(), image.size()), E_ACCESSDENIED);
    EXPECT_EQ(log.str(), "");
    EXPECT_TRUE(lab.Downloads().empty());
}

}  // namespace
