// Cameras of the lab reached through the platform layer: enumeration, activation, topology,
// and the firmware behind the family's extension unit.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <thread>

#include "camera/camera_devices_factory.h"
#include "camera/firmware_command_pipe.h"
#include "platform/sim/sim_world.h"
#include "platform/sync.h"

namespace {

using Microsoft::WRL::ComPtr;
constexpr HRESULT kNotConnected = static_cast<HRESULT>(0x8007048Fu);
constexpr HRESULT kFileNotFound = static_cast<HRESULT>(0x80070002u);

class LabCameras : public testing::Test {
  protected:
    void Load(const std::string& json) {
        world = std::make_shared<sim::SimWorld>(sim::ParseWorld(json));
        platform::InstallBackend(world);
    }
    void TearDown() override {
        platform::InstallBackend(nullptr);
        world.reset();
    }

    // A bound extension unit on the camera with this link.
    ComPtr<ExtensionUnitKsControl> Unit(const wchar_t* link, HRESULT* status) {
        ComPtr<IMFAttributes> store;
        ComPtr<IMFActivate> activation;
        ComPtr<IMFMediaSource> source;
        MFCreateAttributes(store.GetAddressOf(), 2);
        store->SetGUID(MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE,
                       MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_GUID);
        store->SetString(MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_SYMBOLIC_LINK, link);
        EXPECT_EQ(S_OK, MFCreateDeviceSourceActivate(store.Get(), activation.GetAddressOf()));
        EXPECT_EQ(S_OK, activation->ActivateObject(
                            IID_IMFMediaSource, reinterpret_cast<void**>(source.GetAddressOf())));
        ComPtr<ExtensionUnitKsControl> unit;
        unit.Attach(ExtensionUnitKsControl::Create());
        *status = unit->FindExtensionUnitNode(source);
        return unit;
    }

    bool DfuDevicePresent() {
        for (const auto& path : world->ListUsbDeviceInterfaces()) {
            if (path.find(L"PID_0F1C") != std::wstring::npos) return true;
        }
        return false;
    }

    std::shared_ptr<sim::SimWorld> world;
};

TEST_F(LabCameras, SensorCategoryFirstAndACameraOfBothSetsTwice) {
    Load(R"({"cameras": [
        {"name": "Webcam A", "link": "\\\\?\\usb#a", "enumerations": [2]},
        {"name": "Lynx B", "link": "\\\\?\\usb#b", "enumerations": [1, 2], "lynx": true, "firmware": "5.10.0.28"},
        {"name": "IR camera C", "link": "\\\\?\\usb#c", "enumerations": [1]},
        {"name": "Lynx D", "link": "\\\\?\\usb#d", "lynx": true, "firmware": "1.2.3.4"}]})");

    std::vector<std::wstring> lines;
    for (const auto& device : CameraDevicesFactory(nullptr).GetDevices()) {
        lines.push_back(device->GetDetails(true));
    }
    EXPECT_EQ(
        (std::vector<std::wstring>{L"Lynx B (FW Version: 5.10.0.28), Symbolic link: \\\\?\\usb#b",
                                   L"IR camera C, Symbolic link: \\\\?\\usb#c",
                                   L"Webcam A, Symbolic link: \\\\?\\usb#a",
                                   L"Lynx B (FW Version: 5.10.0.28), Symbolic link: \\\\?\\usb#b",
                                   L"Lynx D (FW Version: 1.2.3.4), Symbolic link: \\\\?\\usb#d"}),
        lines);
}

TEST_F(LabCameras, PlainCameraHasNoFamilyUnit) {
    Load(R"({"cameras": [{"name": "Webcam", "link": "w"}]})");
    HRESULT status = S_OK;
    auto unit = Unit(L"w", &status);
    EXPECT_EQ(E_FAIL, status);
}

TEST_F(LabCameras, InformationBlockAfterFailedExchanges) {
    Load(R"({"speedup": 10, "cameras": [
        {"name": "Lynx 2", "link": "l2", "lynx": true, "firmware": "5.10.0.28", "infoFailures": 2},
        {"name": "Lynx 9", "link": "l9", "lynx": true, "firmware": "5.10.0.28", "infoFailures": 9}]})");
    const ULONGLONG start = GetTickCount64();
    const auto devices = CameraDevicesFactory(nullptr).GetDevices();
    // Three exchanges and two pauses for the first, five of each for the second.
    EXPECT_GE(GetTickCount64() - start, 1300u + 3000u);
    ASSERT_EQ(2u, devices.size());
    EXPECT_EQ(L"5.10.0.28", devices[0]->GetFirmwareVersion());
    EXPECT_EQ(L"0.0.0.0", devices[1]->GetFirmwareVersion());
    EXPECT_TRUE(devices[1]->IsUpdatable());
}

TEST_F(LabCameras, FirmwareIgnoresWhatItDoesNotUnderstand) {
    Load(R"({"cameras": [{"name": "Lynx", "link": "l", "lynx": true, "firmware": "5.10.0.28",
                          "dfu": {"link": "\\\\?\\USB#VID_3C5E&PID_0F1C#1"}}]})");
    HRESULT status = E_FAIL;
    auto unit = Unit(L"l", &status);
    ASSERT_EQ(S_OK, status);
    FirmwareCommandPipe pipe(unit, kExtensionUnitGuid, 1);
    std::uint8_t info[kDeviceInfoSize] = {};

    // Unknown commands, and the switch with another parameter, get no answer.
    EXPECT_NE(S_OK, pipe.SendCommand(0x33, nullptr, 0, 0, 0, 0, 0));
    EXPECT_NE(S_OK, pipe.SendCommand(kSwitchToDfuCommand, nullptr, 0, 0, 0, 0, 0));
    // A frame with broken magic or a length beyond the frame is dropped.
    for (const auto& head : {std::vector<std::uint8_t>{0x14, 0, 0xAB, 0xCE, 0x10},
                             std::vector<std::uint8_t>{0xFD, 0x03, 0xAB, 0xCD, 0x10},
                             std::vector<std::uint8_t>{0x13, 0x00, 0xAB, 0xCD, 0x10}}) {
        std::uint8_t frame[1024] = {};
        std::copy(head.begin(), head.end(), frame);
        KSPROPERTY set{kExtensionUnitGuid, 1, KSPROPERTY_TYPE_SET};
        KSPROPERTY get{kExtensionUnitGuid, 1, KSPROPERTY_TYPE_GET};
        ULONG returned = 0;
        EXPECT_EQ(S_OK, unit->KsProperty(&set, sizeof set, frame, sizeof frame, &returned));
        EXPECT_NE(S_OK, unit->KsProperty(&get, sizeof get, frame, sizeof frame, &returned));
    }
    // The camera is still there and answers properly.
    ASSERT_EQ(S_OK, pipe.ReadResponse(info, kDeviceInfoCommand, kDeviceInfoSize, 0, 0, 0, 0));
    EXPECT_EQ((std::vector<std::uint8_t>{28, 0, 10, 5}),
              std::vector<std::uint8_t>(info + 12, info + 16));
    EXPECT_FALSE(DfuDevicePresent());
    EXPECT_EQ(1u, world->ListVideoCaptureDevices(platform::VideoCategory::kVideoCapture).size());
}

TEST_F(LabCameras, SwitchCommandTakesTheCameraOffAndItsDfuDeviceArrivesLater) {
    Load(R"({"speedup": 10, "cameras": [
        {"name": "Lynx", "link": "l", "lynx": true, "dfuDelayMs": 2000,
         "dfu": {"link": "\\\\?\\USB#VID_3C5E&PID_0F1C#1"}},
        {"name": "Lynx without boot loader", "link": "n", "lynx": true}]})");
    HRESULT status = E_FAIL;
    auto unit = Unit(L"l", &status);
    ASSERT_EQ(S_OK, status);
    auto stays = Unit(L"n", &status);
    ASSERT_EQ(S_OK, status);

    EXPECT_NE(S_OK, FirmwareCommandPipe(stays, kExtensionUnitGuid, 1)
                        .SendCommand(kSwitchToDfuCommand, nullptr, 0, 1, 0, 0, 0));
    const ULONGLONG start = GetTickCount64();
    // The camera is gone before its answer could be read.
    EXPECT_EQ(kNotConnected, FirmwareCommandPipe(unit, kExtensionUnitGuid, 1)
                                 .SendCommand(kSwitchToDfuCommand, nullptr, 0, 1, 0, 0, 0));
    const auto listed = world->ListVideoCaptureDevices(platform::VideoCategory::kVideoCapture);
    ASSERT_EQ(1u, listed.size());
    EXPECT_EQ(L"n", listed[0].symbolicLink);
    std::unique_ptr<platform::VideoDeviceConnection> connection;
    EXPECT_EQ(kFileNotFound, world->OpenVideoDevice(L"l", &connection));

    EXPECT_FALSE(DfuDevicePresent());
    while (!DfuDevicePresent() && GetTickCount64() - start < 10000) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(DfuDevicePresent());
    EXPECT_GE(GetTickCount64() - start, 2000u);
    EXPECT_LT(GetTickCount64() - start, 3000u);
}

// An activation object with a fixed set of strings.
class Activation final : public IMFActivate {
  public:
    explicit Activation(std::map<const GUID*, std::wstring> strings)
        : strings(std::move(strings)) {}
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** object) override {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
    ULONG STDMETHODCALLTYPE Release() override { return --refs; }
    HRESULT STDMETHODCALLTYPE GetGUID(REFGUID, GUID*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetAllocatedString(REFGUID key, LPWSTR* value,
                                                 UINT32* length) override {
        for (const auto& [id, text] : strings) {
            if (*id != key) continue;
            *value = static_cast<wchar_t*>(CoTaskMemAlloc((text.size() + 1) * sizeof(wchar_t)));
            std::wcscpy(*value, text.c_str());
            *length = static_cast<UINT32>(text.size());
            return S_OK;
        }
        return MF_E_ATTRIBUTENOTFOUND;
    }
    HRESULT STDMETHODCALLTYPE SetGUID(REFGUID, REFGUID) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetString(REFGUID, LPCWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE ActivateObject(REFIID, void**) override { return E_NOTIMPL; }

    std::map<const GUID*, std::wstring> strings;
    long refs = 1;
};

struct InitCase {
    const char* name;
    bool hasLink;
    bool hasName;
    const wchar_t* link;
    HRESULT expected;
    const wchar_t* details;  // GetDetails(true) afterwards
};

class CameraInitialization : public LabCameras, public testing::WithParamInterface<InitCase> {};

TEST_P(CameraInitialization, KeepsWhatItReadBeforeAFailure) {
    const InitCase& c = GetParam();
    Load(R"({"cameras": [{"name": "Webcam", "link": "present"}]})");
    std::map<const GUID*, std::wstring> strings;
    if (c.hasLink) strings[&MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_SYMBOLIC_LINK] = c.link;
    if (c.hasName) strings[&MF_DEVSOURCE_ATTRIBUTE_FRIENDLY_NAME] = L"Caméra «µ»";
    Activation activation(strings);
    CameraDevice device;
    EXPECT_EQ(L"Unknown, Symbolic link: Unknown", device.GetDetails(true));

    EXPECT_EQ(c.expected, device.Initialize(&activation));

    EXPECT_EQ(c.details, device.GetDetails(true));
    EXPECT_EQ(L"No FW version", device.GetFirmwareVersion());
    EXPECT_EQ(1, activation.refs);
}

INSTANTIATE_TEST_SUITE_P(
    Failures, CameraInitialization,
    testing::Values(InitCase{"Works", true, true, L"present", S_OK,
                             L"Caméra «µ», Symbolic link: present"},
                    InitCase{"NoLink", false, true, L"", MF_E_ATTRIBUTENOTFOUND,
                             L"Unknown, Symbolic link: Unknown"},
                    InitCase{"NoName", true, false, L"present", MF_E_ATTRIBUTENOTFOUND,
                             L"Unknown, Symbolic link: present"},
                    InitCase{"DeviceGone", true, true, L"gone", kFileNotFound,
                             L"Caméra «µ», Symbolic link: gone"}),
    [](const testing::TestParamInfo<InitCase>& info) { return info.param.name; });

}  // namespace
