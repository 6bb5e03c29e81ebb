#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "camera/camera_devices_factory.h"
#include "platform/sim/sim_world.h"
#include "platform/sync.h"
#include "updatable/lynx_updatable_device.h"

namespace {

constexpr unsigned kSpeedup = 4;

// Opens the protected channel for the tests that talk to the firmware directly.
class OpenLynx : public LynxUpdatableDevice {
  public:
    using LynxUpdatableDevice::commandPipe;
    using LynxUpdatableDevice::extensionUnit;
};

class LynxCamera : public testing::Test {
  protected:
    void Load(const std::string& cameras) {
        world = std::make_shared<sim::SimWorld>(sim::ParseWorld(
            R"({"speedup": )" + std::to_string(kSpeedup) + R"(, "cameras": [)" + cameras + "]}"));
        platform::InstallBackend(world);
    }
    void SetUp() override { MFStartup(MF_VERSION, MFSTARTUP_LITE); }
    void TearDown() override {
        MFShutdown();
        platform::InstallBackend(nullptr);
    }

    // The one camera, made from its enumerated activation object.
    std::shared_ptr<OpenLynx> Initialize() {
        Microsoft::WRL::ComPtr<IMFAttributes> store;
        MFCreateAttributes(store.GetAddressOf(), 1);
        store->SetGUID(MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE,
                       MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_GUID);
        IMFActivate** found = nullptr;
        UINT32 count = 0;
        EXPECT_EQ(S_OK, MFEnumDeviceSources(store.Get(), &found, &count));
        EXPECT_EQ(1u, count);
        Microsoft::WRL::ComPtr<IMFActivate> activation;
        activation.Attach(found[0]);
        CoTaskMemFree(found);
        auto device = std::make_shared<OpenLynx>();
        EXPECT_EQ(S_OK, device->Initialize(activation));
        return device;
    }

    bool DfuDevicePresent() { return !world->ListUsbDeviceInterfaces().empty(); }

    std::shared_ptr<sim::SimWorld> world;
};

struct RetryCase {
    const char* name;
    int infoFailures;
    const char* firmware;
    const wchar_t* version;
    int exchanges;
    int pauses;
};

class InformationBlock : public LynxCamera, public testing::WithParamInterface<RetryCase> {};

TEST_P(InformationBlock, UpToFiveAttemptsHalfASecondApart) {
    const RetryCase& c = GetParam();
    Load(R"({"name": "Lynx LX20", "link": "l", "lynx": true, "firmware": ")" +
         std::string(c.firmware) + R"(", "infoFailures": )" + std::to_string(c.infoFailures) + "}");

    const ULONGLONG start = GetTickCount64();
    auto devices = CameraDevicesFactory(nullptr).GetDevices();
    const ULONGLONG elapsed = GetTickCount64() - start;

    ASSERT_EQ(1u, devices.size());
    EXPECT_TRUE(devices[0]->IsUpdatable());
    EXPECT_EQ(0, devices[0]->GetDeviceType());
    EXPECT_EQ(std::wstring(L"Lynx LX20 (FW Version: ") + c.version + L")",
              devices[0]->GetDetails(false));
    // Each exchange waits 100 ms for the reply, each failed one 500 ms more; one pause more
    // or less would be 500 ms.
    const ULONGLONG least = 100u * c.exchanges + 500u * c.pauses;
    EXPECT_GE(elapsed, least);
    EXPECT_LT(elapsed, least + 450u);
}

INSTANTIATE_TEST_SUITE_P(
    Cameras, InformationBlock,
    testing::Values(RetryCase{"AnswersAtOnce", 0, "5.10.0.28", L"5.10.0.28", 1, 0},
                    RetryCase{"AnswersAtTheThirdAttempt", 2, "5.10.0.28", L"5.10.0.28", 3, 2},
                    RetryCase{"AnswersAtTheFifthAttempt", 4, "1.2.3.4", L"1.2.3.4", 5, 4},
                    RetryCase{"NeverAnswers", 5, "5.10.0.28", L"0.0.0.0", 5, 5},
                    RetryCase{"HighestVersion", 0, "255.255.255.255", L"255.255.255.255", 1, 0}),
    [](const testing::TestParamInfo<RetryCase>& info) { return info.param.name; });

TEST_F(LynxCamera, SwitchToDfuTakesTheCameraOffAndItsDfuDeviceArrivesLater) {
    Load(R"({"name": "Lynx", "link": "l", "lynx": true, "dfuDelayMs": 2000,
             "dfu": {"link": "\\\\?\\USB#VID_3C5E&PID_0F1C#1"}})");
    auto device = Initialize();
    const ULONGLONG start = GetTickCount64();

    // The camera answers, then leaves the bus at once.
    EXPECT_EQ(S_OK, device->SwitchToDfu());
    EXPECT_TRUE(CameraDevicesFactory(nullptr).GetDevices().empty());
    EXPECT_FALSE(DfuDevicePresent());
    while (!DfuDevicePresent() && GetTickCount64() - start < 10000) Sleep(10);
    EXPECT_TRUE(DfuDevicePresent());
    EXPECT_GE(GetTickCount64() - start, 2000u);
}

TEST(UnconnectedLynx, IsTheFamilysDeviceWithoutAChannel) {
    auto device = CreateLynxUpdatableDevice();
    EXPECT_EQ(L"Lynx (FW Version: 0.0.0.0)", device->GetDetails(false));
    EXPECT_EQ(0, device->GetDeviceType());
    EXPECT_FALSE(device->IsDfuModePerDevice());
    EXPECT_EQ(nullptr, device->GetLog());
    EXPECT_EQ(E_FAIL, device->SwitchToDfu());
}

}  // namespace
