// Cameras of the lab reached through the platform layer: enumeration and initialisation.
#include <gtest/gtest.h>

#include "camera/camera_devices_factory.h"
#include "platform/sim/sim_world.h"
#include "updatable/lynx_updatable_device.h"

namespace {

using Microsoft::WRL::ComPtr;
constexpr HRESULT kOutOfMemory = static_cast<HRESULT>(0x8007000Eu);
constexpr HRESULT kFileNotFound = static_cast<HRESULT>(0x80070002u);

class LabCameras : public testing::Test {
  protected:
    void Load(const std::string& json) {
        world = std::make_shared<sim::SimWorld>(sim::ParseWorld(json));
        platform::InstallBackend(world);
    }
    void SetUp() override { MFStartup(MF_VERSION, MFSTARTUP_LITE); }
    void TearDown() override {
        MFShutdown();
        platform::InstallBackend(nullptr);
    }
    std::shared_ptr<sim::SimWorld> world;
};

// The platform's calls, failing at the given call (0 = first attribute set); the function
// pointers reach the counters through these globals.
int createCalls = 0, enumCalls = 0, createFailsAt = -1, enumFailsAt = -1;
HRESULT CreateAttributes(IMFAttributes** store, UINT32 size) {
    return createCalls++ == createFailsAt ? kOutOfMemory : MFCreateAttributes(store, size);
}
HRESULT EnumDeviceSources(IMFAttributes* store, IMFActivate*** sources, UINT32* count) {
    return enumCalls++ == enumFailsAt ? E_FAIL : MFEnumDeviceSources(store, sources, count);
}

struct EnumerationCase {
    const char* name;
    int createFailsAt;
    int enumFailsAt;
    std::vector<std::wstring> expected;
};

class Enumeration : public LabCameras, public testing::WithParamInterface<EnumerationCase> {};

TEST_P(Enumeration, SensorCategoryFirstThenEveryCaptureDevice) {
    Load(R"({"cameras": [
        {"name": "Webcam A", "link": "a"},
        {"name": "Lynx B", "link": "b", "enumerations": [1, 2], "lynx": true, "firmware": "5.10.0.28"},
        {"name": "IR camera C", "link": "c", "enumerations": [1]},
        {"name": "Lynx D", "link": "d", "lynx": true, "firmware": "1.2.3.4"}]})");
    createCalls = enumCalls = 0;
    createFailsAt = GetParam().createFailsAt;
    enumFailsAt = GetParam().enumFailsAt;
    std::ostringstream log;
    CameraDevicesFactory enumerator(&log, {std::make_shared<LynxUpdatableDeviceFactory>()},
                                    std::make_shared<CameraDeviceFactory>(),
                                    {&CreateAttributes, &EnumDeviceSources});

    std::vector<std::wstring> lines;
    for (const auto& device : enumerator.GetDevices()) {
        lines.push_back(device->GetDetails(true));
        EXPECT_EQ(&log, device->GetLog());
    }

    EXPECT_EQ(GetParam().expected, lines);
    EXPECT_EQ(
        std::min(createFailsAt < 0 ? 2 : createFailsAt + 1, enumFailsAt < 0 ? 2 : enumFailsAt + 1),
        createCalls);
    EXPECT_EQ("", log.str());
}

const std::wstring kB = L"Lynx B (FW Version: 5.10.0.28), Symbolic link: b";
const std::wstring kC = L"IR camera C, Symbolic link: c";
const std::wstring kA = L"Webcam A, Symbolic link: a";
const std::wstring kD = L"Lynx D (FW Version: 1.2.3.4), Symbolic link: d";

INSTANTIATE_TEST_SUITE_P(Failures, Enumeration,
                         testing::Values(EnumerationCase{"None", -1, -1, {kB, kC, kA, kB, kD}},
                                         EnumerationCase{"SecondStore", 1, -1, {kB, kC}},
                                         EnumerationCase{"SecondEnumeration", -1, 1, {kB, kC}},
                                         EnumerationCase{"FirstStore", 0, -1, {}}),
                         [](const testing::TestParamInfo<EnumerationCase>& info) {
                             return info.param.name;
                         });

ComPtr<IMFActivate> EnumeratedActivation() {
    ComPtr<IMFAttributes> store;
    MFCreateAttributes(store.GetAddressOf(), 1);
    store->SetGUID(MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE,
                   MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_GUID);
    IMFActivate** found = nullptr;
    UINT32 count = 0;
    ComPtr<IMFActivate> activation;
    if (MFEnumDeviceSources(store.Get(), &found, &count) == S_OK && count == 1) {
        activation.Attach(found[0]);
    }
    CoTaskMemFree(found);
    return activation;
}

TEST_F(LabCameras, InitializationKeepsWhatItReadBeforeAFailure) {
    Load(R"({"cameras": [{"name": "Caméra «µ»", "link": "present"}]})");
    CameraDevice working;
    EXPECT_EQ(L"Unknown, Symbolic link: Unknown", working.GetDetails(true));
    EXPECT_EQ(S_OK, working.Initialize(EnumeratedActivation()));
    EXPECT_EQ(L"Caméra «µ», Symbolic link: present", working.GetDetails(true));
    EXPECT_EQ(L"No FW version", working.GetFirmwareVersion());

    // An activation object that names the device only by its link has no friendly name.
    ComPtr<IMFAttributes> store;
    ComPtr<IMFActivate> linkOnly;
    MFCreateAttributes(store.GetAddressOf(), 2);
    store->SetGUID(MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE,
                   MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_GUID);
    store->SetString(MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_SYMBOLIC_LINK, L"present");
    ASSERT_EQ(S_OK, MFCreateDeviceSourceActivate(store.Get(), linkOnly.GetAddressOf()));
    CameraDevice nameless;
    EXPECT_EQ(MF_E_ATTRIBUTENOTFOUND, nameless.Initialize(linkOnly));
    EXPECT_EQ(L"Unknown, Symbolic link: present", nameless.GetDetails(true));

    // Unplugged between enumeration and activation.
    auto activation = EnumeratedActivation();
    {
        std::lock_guard lock(world->Lock());
        world->Cameras()[0]->present = false;
    }
    CameraDevice gone;
    EXPECT_EQ(kFileNotFound, gone.Initialize(activation));
    EXPECT_EQ(L"Caméra «µ», Symbolic link: present", gone.GetDetails(true));
}

}  // namespace
