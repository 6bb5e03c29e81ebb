// Opening a DFU-mode device through the WinUSB calls of the POSIX platform layer: which
// interface is chosen, which handles are taken and given back, and the endpoint's bounds.
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "dfu/win_usb_device.h"
#include "platform/posix/device_backend.h"
#include "platform/sync.h"
#include "sim_lab.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes Interface(std::uint8_t number, std::uint8_t interfaceClass) {
    return {9, 4, number, 0, 0, interfaceClass, 0, 0, 0};
}
Bytes Functional(std::uint16_t transferSize) {
    return {9,
            0x21,
            1,
            0xE8,
            0x03,
            static_cast<std::uint8_t>(transferSize & 0xFF),
            static_cast<std::uint8_t>(transferSize >> 8),
            0x10,
            0x01};
}
Bytes Configuration(std::uint8_t interfaces, std::initializer_list<Bytes> parts) {
    Bytes bytes = {9, 2, 0, 0, interfaces, 1, 0, 0x80, 50};
    for (const auto& part : parts) bytes.insert(bytes.end(), part.begin(), part.end());
    bytes[2] = static_cast<std::uint8_t>(bytes.size());
    return bytes;
}

// A USB device that answers from fixed descriptors and notes what the host asks of it.
struct FakeDevice {
    Bytes configuration;
    std::uint32_t deviceDescriptorLength = 18;
    platform::ErrorCode alternateSettingError = ERROR_SUCCESS;
    std::vector<std::string> calls;
    std::vector<platform::UsbSetupPacket> transfers;
};

class FakeConnection final : public platform::UsbDeviceConnection {
  public:
    explicit FakeConnection(std::shared_ptr<FakeDevice> device) : device_(std::move(device)) {}
    platform::ErrorCode GetDescriptor(std::uint8_t type, std::uint8_t, std::uint16_t,
                                      std::uint8_t* buffer, std::uint32_t length,
                                      std::uint32_t* transferred) override {
        Bytes source =
            type == 1 ? Bytes(device_->deviceDescriptorLength, 0) : device_->configuration;
        *transferred = std::min<std::uint32_t>(length, source.size());
        std::copy_n(source.begin(), *transferred, buffer);
        return ERROR_SUCCESS;
    }
    platform::ErrorCode ClaimInterface(std::uint8_t number) override {
        device_->calls.push_back("claim " + std::to_string(number));
        return ERROR_SUCCESS;
    }
    platform::ErrorCode ReleaseInterface(std::uint8_t number) override {
        device_->calls.push_back("release " + std::to_string(number));
        return ERROR_SUCCESS;
    }
    platform::ErrorCode SetAlternateSetting(std::uint8_t number, std::uint8_t setting) override {
        device_->calls.push_back("alt " + std::to_string(number) + "/" + std::to_string(setting));
        return device_->alternateSettingError;
    }
    platform::ErrorCode ControlTransfer(const platform::UsbSetupPacket& setup, std::uint8_t*,
                                        std::uint32_t length, std::uint32_t* transferred) override {
        device_->transfers.push_back(setup);
        *transferred = length;
        return ERROR_SUCCESS;
    }

  private:
    std::shared_ptr<FakeDevice> device_;
};

class FakeBackend final : public platform::DeviceBackend {
  public:
    explicit FakeBackend(std::shared_ptr<FakeDevice> device) : device_(std::move(device)) {}
    std::vector<std::wstring> ListUsbDeviceInterfaces() override { return {dfu_test::kLink}; }
    platform::ErrorCode OpenUsbDevice(
        const std::wstring& path,
        std::unique_ptr<platform::UsbDeviceConnection>* connection) override {
        if (path == L"denied") return ERROR_ACCESS_DENIED;
        if (path != dfu_test::kLink) return ERROR_FILE_NOT_FOUND;
        *connection = std::make_unique<FakeConnection>(device_);
        return ERROR_SUCCESS;
    }
    std::uint64_t SubscribeUsbEvents(platform::UsbEventCallback) override { return 0; }
    void UnsubscribeUsbEvents(std::uint64_t) override {}
    std::vector<platform::VideoCaptureDeviceInfo> ListVideoCaptureDevices(
        platform::VideoCategory) override {
        return {};
    }
    HRESULT OpenVideoDevice(const std::wstring&,
                            std::unique_ptr<platform::VideoDeviceConnection>*) override {
        return E_FAIL;
    }
    platform::ErrorCode CreateSettingsKey(const std::wstring&) override {
        return ERROR_ACCESS_DENIED;
    }
    platform::ErrorCode SetSettingsValue(const std::wstring&, const std::wstring&, std::uint32_t,
                                         const std::uint8_t*, std::uint32_t) override {
        return ERROR_ACCESS_DENIED;
    }

  private:
    std::shared_ptr<FakeDevice> device_;
};

struct SelectionCase {
    const char* name;
    Bytes configuration;
    std::uint32_t deviceDescriptorLength;
    platform::ErrorCode alternateSettingError;
    bool open;
    std::vector<std::string> callsWhileOpening;
    std::uint16_t dfuInterface;
    std::uint16_t transferSize;
};

class InterfaceSelection : public testing::TestWithParam<SelectionCase> {
  protected:
    void SetUp() override {
        device = std::make_shared<FakeDevice>();
        device->configuration = GetParam().configuration;
        device->deviceDescriptorLength = GetParam().deviceDescriptorLength;
        device->alternateSettingError = GetParam().alternateSettingError;
        platform::InstallBackend(std::make_shared<FakeBackend>(device));
    }
    void TearDown() override { platform::InstallBackend(nullptr); }
    std::shared_ptr<FakeDevice> device;
};

TEST_P(InterfaceSelection, ChoosesTheFirstDfuInterfaceAndGivesBackEveryOtherHandle) {
    const auto& c = GetParam();
    auto winUsb = std::make_unique<dfu::WinUsbDevice>(dfu_test::kLink);
    EXPECT_EQ(winUsb->IsOpen(), c.open);
    EXPECT_EQ(device->calls, c.callsWhileOpening);
    if (!c.open) return;

    auto endpoint = winUsb->AcquireControlEndpoint();
    EXPECT_EQ(endpoint->GetMaxTransferSize(), c.transferSize);
    std::vector<std::uint8_t> buffer(c.transferSize + 1u);
    WINUSB_SETUP_PACKET packet{0x21, 1, 0, 0x77, c.transferSize};
    EXPECT_EQ(endpoint->Transfer(packet, buffer.data(), c.transferSize), S_OK);
    EXPECT_EQ(packet.Index, c.dfuInterface);
    ASSERT_EQ(device->transfers.size(), 1u);
    EXPECT_EQ(device->transfers[0].index, c.dfuInterface);

    packet.Length = static_cast<USHORT>(c.transferSize + 1);
    EXPECT_EQ(endpoint->Transfer(packet, buffer.data(), c.transferSize + 1u),
              static_cast<HRESULT>(0x80070018u));
    EXPECT_EQ(device->transfers.size(), 1u) << "an over-long transfer must not reach the bus";

    auto second = winUsb->AcquireControlEndpoint();
    EXPECT_NE(second, endpoint);
    winUsb->Close();
    winUsb->Close();
    EXPECT_EQ(device->calls.back(), "release 0");
    // The endpoints outlive the device: they must not touch it any more.
    winUsb.reset();
    for (const auto& e : {endpoint, second}) {
        EXPECT_FALSE(e->IsConnected());
        EXPECT_EQ(e->Transfer(packet, buffer.data(), 1), E_HANDLE);
    }
    EXPECT_EQ(device->transfers.size(), 1u);
}

const std::vector<std::string> kReleasedAll = {"claim 0", "release 0"};

INSTANTIATE_TEST_SUITE_P(
    Cases, InterfaceSelection,
    testing::Values(
        SelectionCase{"DfuOnInterface0",
                      Configuration(1, {Interface(0, 0xFE), Functional(512)}),
                      18,
                      ERROR_SUCCESS,
                      true,
                      {"claim 0", "alt 0/0"},
                      0,
                      512},
        SelectionCase{"DfuOnThirdInterface",
                      Configuration(3, {Interface(0, 0x0E), Interface(1, 0x0E), Interface(2, 0xFE),
                                        Functional(1024)}),
                      18,
                      ERROR_SUCCESS,
                      true,
                      {"claim 0", "claim 1", "release 1", "claim 2", "alt 2/0", "release 2"},
                      2,
                      1024},
        // The first functional descriptor of the configuration counts, wherever it is.
        SelectionCase{"FunctionalDescriptorOfAnotherInterface",
                      Configuration(2, {Interface(0, 0x0E), Functional(256), Interface(1, 0xFE),
                                        Functional(4096)}),
                      18,
                      ERROR_SUCCESS,
                      true,
                      {"claim 0", "claim 1", "alt 1/0", "release 1"},
                      1,
                      256},
        SelectionCase{"NoDfuInterface",
                      Configuration(2, {Interface(0, 0x0E), Functional(64), Interface(1, 0x0E)}),
                      18,
                      ERROR_SUCCESS,
                      false,
                      {"claim 0", "claim 1", "release 1", "release 0"},
                      0,
                      0},
        SelectionCase{"NoFunctionalDescriptor", Configuration(1, {Interface(0, 0xFE)}), 18,
                      ERROR_SUCCESS, false, kReleasedAll, 0, 0},
        SelectionCase{"FunctionalDescriptorCutShort",
                      [] {
                          auto bytes = Configuration(1, {Interface(0, 0xFE), Functional(64)});
                          bytes.resize(bytes.size() - 2);
                          return bytes;
                      }(),
                      18, ERROR_SUCCESS, false, kReleasedAll, 0, 0},
        SelectionCase{
            "NoInterfacesAtAll", Configuration(0, {}), 18, ERROR_SUCCESS, false, {}, 0, 0},
        SelectionCase{"ShortDeviceDescriptor",
                      Configuration(1, {Interface(0, 0xFE), Functional(64)}), 10, ERROR_SUCCESS,
                      false, kReleasedAll, 0, 0},
        SelectionCase{"AlternateSettingStalls",
                      Configuration(1, {Interface(0, 0xFE), Functional(64)}),
                      18,
                      ERROR_GEN_FAILURE,
                      false,
                      {"claim 0", "alt 0/0", "release 0"},
                      0,
                      0}),
    [](const auto& info) { return std::string(info.param.name); });

// The POSIX WinUSB calls report backend failures as the Windows calls would.
TEST(WinUsbOnPosix, BackendFailuresBecomeTheWindowsErrors) {
    auto fake = std::make_shared<FakeDevice>();
    fake->configuration = Configuration(1, {Interface(0, 0xFE), Functional(64)});
    platform::InstallBackend(std::make_shared<FakeBackend>(fake));
    const DWORD flags = FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OVERLAPPED;
    const DWORD access = GENERIC_READ | GENERIC_WRITE;
    const DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE;
    EXPECT_EQ(
        CreateFileW(L"\\\\?\\usb#nothing", access, share, nullptr, OPEN_EXISTING, flags, nullptr),
        INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(CreateFileW(L"denied", access, share, nullptr, OPEN_EXISTING, flags, nullptr),
              INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    WINUSB_INTERFACE_HANDLE bogus = nullptr;
    EXPECT_FALSE(WinUsb_Initialize(INVALID_HANDLE_VALUE, &bogus));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    platform::InstallBackend(nullptr);
    dfu::WinUsbDevice missing(dfu_test::kLink);
    EXPECT_FALSE(missing.IsOpen());
    missing.Close();
}

// The lab's device is strict where DFU 1.1 is: each script runs on a fresh device, and
// after every request its state is read back (-1: the device is gone).
struct Step {
    WINUSB_SETUP_PACKET packet;
    HRESULT expected;
    int stateAfter;
};

TEST(LabDfuDevice, RequestsOutOfPlaceStallAndLeadToDfuError) {
    const HRESULT stall = platform::HResultFromError(ERROR_GEN_FAILURE);
    const HRESULT gone = platform::HResultFromError(ERROR_DEVICE_NOT_CONNECTED);
    const WINUSB_SETUP_PACKET detach{0x21, 0, 1000, 0, 0};
    const WINUSB_SETUP_PACKET clear{0x21, 4, 0, 0, 0};
    auto dnload = [](USHORT block, USHORT length) {
        return WINUSB_SETUP_PACKET{0x21, 1, block, 0, length};
    };
    struct Script {
        const char* name;
        std::optional<sim::DfuFault> fault;
        std::vector<Step> steps;
    };
    const Script scripts[] = {
        {"DetachInIdleStaysIdle", {}, {{detach, S_OK, 2}, {detach, S_OK, 2}}},
        {"UnknownRequestThenClear", {}, {{{0x21, 0x42, 0, 0, 0}, stall, 10}, {clear, S_OK, 2}}},
        {"BlocksInOrderOnly",
         {},
         {{dnload(0, 8), S_OK, -2}, {dnload(2, 8), stall, 10}, {clear, S_OK, 2}}},
        {"FirstBlockMustBeZero", {}, {{dnload(1, 8), stall, 10}}},
        {"EmptyDownloadFromIdle", {}, {{dnload(0, 0), stall, 10}}},
        {"DetachDuringDownload", {}, {{dnload(0, 8), S_OK, -2}, {detach, stall, 10}}},
        {"UnpluggedMidBlock",
         sim::DfuFault{0, sim::FaultKind::kUnplug},
         {{dnload(0, 8), gone, -1}}},
    };
    for (const auto& script : scripts) {
        SCOPED_TRACE(script.name);
        sim::DfuDeviceSpec spec;
        spec.transferSize = 64;
        spec.fault = script.fault;
        dfu_test::SimLab lab(spec);
        dfu::WinUsbDevice device(dfu_test::kLink);
        ASSERT_TRUE(device.IsOpen());
        // The lab's device checks wIndex, so the transfers below only pass with it rewritten
        // from the caller's zero to the DFU interface number (0 here).
        auto endpoint = device.AcquireControlEndpoint();
        std::vector<std::uint8_t> data(64, 0xA5);
        for (const auto& step : script.steps) {
            WINUSB_SETUP_PACKET packet = step.packet;
            EXPECT_EQ(
                endpoint->Transfer(packet, packet.Length ? data.data() : nullptr, packet.Length),
                step.expected);
            if (step.stateAfter == -2) continue;  // mid-download: GETSTATE would move it on
            UCHAR state = 0xFF;
            WINUSB_SETUP_PACKET getState{0xA1, 5, 0, 0, 1};
            const HRESULT read = endpoint->Transfer(getState, &state, 1);
            if (step.stateAfter < 0) {
                EXPECT_EQ(read, gone);
            } else {
                EXPECT_EQ(read, S_OK);
                EXPECT_EQ(state, step.stateAfter);
            }
        }
    }
}

TEST(LabDfuDevice, DescriptorsNameTheFamilyAndPlaceTheFunctionalDescriptor) {
    sim::DfuDeviceSpec spec;
    spec.interfaces = {14, 1, 254, 254};
    spec.transferSize = 2048;
    dfu_test::SimLab lab(spec);
    dfu::WinUsbDevice device(dfu_test::kLink);
    ASSERT_TRUE(device.IsOpen());
    auto endpoint = device.AcquireControlEndpoint();
    EXPECT_EQ(endpoint->GetMaxTransferSize(), 2048);
    // Interface 2 carries DFU: a request with any other wIndex would stall.
    UCHAR state = 0;
    WINUSB_SETUP_PACKET getState{0xA1, 5, 0, 3, 1};
    EXPECT_EQ(endpoint->Transfer(getState, &state, 1), S_OK);
    EXPECT_EQ(getState.Index, 2);
    EXPECT_EQ(state, 2);

    HANDLE file = CreateFileW(dfu_test::kLink.c_str(), GENERIC_READ | GENERIC_WRITE,
                              FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OVERLAPPED, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    WINUSB_INTERFACE_HANDLE usb = nullptr;
    ASSERT_TRUE(WinUsb_Initialize(file, &usb));
    std::uint8_t descriptor[18] = {};
    ULONG read = 0;
    ASSERT_TRUE(WinUsb_GetDescriptor(usb, 1, 0, 0, descriptor, sizeof descriptor, &read));
    EXPECT_EQ(read, 18u);
    EXPECT_EQ(descriptor[8] | descriptor[9] << 8, 0x3C5E);
    EXPECT_EQ(descriptor[10] | descriptor[11] << 8, 0x0F1C);
    std::uint8_t configuration[1024] = {};
    ASSERT_TRUE(WinUsb_GetDescriptor(usb, 2, 0, 0, configuration, sizeof configuration, &read));
    EXPECT_EQ(read, static_cast<ULONG>(configuration[2] | configuration[3] << 8));
    EXPECT_EQ(configuration[4], 4);
    const auto at = dfu::FindDfuFunctionalDescriptor(configuration, read);
    ASSERT_TRUE(at.has_value());
    EXPECT_EQ(*at, 9u + 3 * 9u) << "right after the first class-254 interface";
    EXPECT_TRUE(WinUsb_Free(usb));
    EXPECT_TRUE(CloseHandle(file));
}

}  // namespace
