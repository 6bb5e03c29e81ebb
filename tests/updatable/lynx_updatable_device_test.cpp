#include <gtest/gtest.h>

#include <deque>
#include <mutex>

#include "camera/camera_devices_factory.h"
#include "platform/posix/device_backend.h"
#include "platform/sync.h"
#include "updatable/lynx_updatable_device.h"

namespace {

using Microsoft::WRL::ComPtr;
constexpr HRESULT kStall = static_cast<HRESULT>(0x8007001Fu);
constexpr HRESULT kSetNotFound = static_cast<HRESULT>(0x80070492u);
const GUID kOtherNode = {0xDFF229E6, 0xF70F, 0x11D0, {0xB9, 0x17, 0, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
constexpr unsigned kSpeedup = 4;

// One answer of the camera's firmware to a GET.
struct Reply {
    HRESULT status = S_OK;
    std::uint32_t echo = 0x10;
    std::uint32_t returned = 1024;
    std::array<std::uint8_t, 4> version{0x1C, 0x00, 0x0A, 0x05};  // bytes 12 to 15
};

struct Request {
    std::uint32_t node;
    std::uint32_t flags;
    std::vector<std::uint8_t> frame;
    ULONGLONG tick;
};

// One camera whose node 2 may be the family's unit, answering from a script of replies;
// once the script is used up, GET requests stall.
class ScriptedBackend final : public platform::DeviceBackend,
                              public platform::VideoDeviceConnection {
  public:
    unsigned TimeScale() const override { return kSpeedup; }
    std::vector<std::wstring> ListUsbDeviceInterfaces() override { return {}; }
    platform::ErrorCode OpenUsbDevice(const std::wstring&,
                                      std::unique_ptr<platform::UsbDeviceConnection>*) override {
        return ERROR_FILE_NOT_FOUND;
    }
    std::uint64_t SubscribeUsbEvents(platform::UsbEventCallback) override { return 0; }
    void UnsubscribeUsbEvents(std::uint64_t) override {}
    std::vector<platform::VideoCaptureDeviceInfo> ListVideoCaptureDevices(
        platform::VideoCategory category) override {
        if (category == platform::VideoCategory::kSensorCamera) return {};
        return {{L"Lynx LX20", L"\\\\?\\usb#vid_3c5e&pid_0b64#1"}};
    }
    HRESULT OpenVideoDevice(const std::wstring&,
                            std::unique_ptr<platform::VideoDeviceConnection>* connection) override {
        *connection = std::make_unique<Handle>(*this);
        return S_OK;
    }
    platform::ErrorCode CreateSettingsKey(const std::wstring&) override {
        return ERROR_ACCESS_DENIED;
    }
    platform::ErrorCode SetSettingsValue(const std::wstring&, const std::wstring&, std::uint32_t,
                                         const std::uint8_t*, std::uint32_t) override {
        return ERROR_ACCESS_DENIED;
    }

    HRESULT GetNodeCount(std::uint32_t* count) override {
        *count = 4;
        return S_OK;
    }
    HRESULT GetNodeType(std::uint32_t node, GUID* type) override {
        *type = node == 1 || node == 2 ? KSNODETYPE_DEV_SPECIFIC : kOtherNode;
        return S_OK;
    }
    HRESULT OpenNode(std::uint32_t) override { return S_OK; }
    HRESULT NodeProperty(std::uint32_t node, const GUID& set, std::uint32_t id, std::uint32_t flags,
                         std::uint8_t* data, std::uint32_t length,
                         std::uint32_t* returned) override {
        std::lock_guard lock(mutex);
        *returned = 0;
        if (node != 2 || !hasUnit || set != kExtensionUnitGuid || id != 1) return kSetNotFound;
        if (flags == 0x10000100) return S_OK;
        requests.push_back(
            {node, flags, std::vector<std::uint8_t>(data, data + length), GetTickCount64()});
        if (flags == 0x10000002) return S_OK;
        if (replies.empty()) return kStall;
        const Reply reply = replies.front();
        replies.pop_front();
        if (reply.status != S_OK) return reply.status;
        std::fill(data, data + length, 0x77);
        for (int i = 0; i < 4; ++i) data[i] = static_cast<std::uint8_t>(reply.echo >> (8 * i));
        std::copy(reply.version.begin(), reply.version.end(), data + 4 + 12);
        *returned = reply.returned;
        return S_OK;
    }

    std::mutex mutex;
    bool hasUnit = true;
    std::deque<Reply> replies;
    std::vector<Request> requests;

  private:
    class Handle final : public platform::VideoDeviceConnection {
      public:
        explicit Handle(ScriptedBackend& backend) : backend_(backend) {}
        HRESULT GetNodeCount(std::uint32_t* count) override { return backend_.GetNodeCount(count); }
        HRESULT GetNodeType(std::uint32_t node, GUID* type) override {
            return backend_.GetNodeType(node, type);
        }
        HRESULT OpenNode(std::uint32_t node) override { return backend_.OpenNode(node); }
        HRESULT NodeProperty(std::uint32_t node, const GUID& set, std::uint32_t id,
                             std::uint32_t flags, std::uint8_t* data, std::uint32_t length,
                             std::uint32_t* returned) override {
            return backend_.NodeProperty(node, set, id, flags, data, length, returned);
        }

      private:
        ScriptedBackend& backend_;
    };
};

class UpdatableCamera : public testing::Test {
  protected:
    void SetUp() override { platform::InstallBackend(backend); }
    void TearDown() override { platform::InstallBackend(nullptr); }

    // The one camera, as the enumeration makes it.
    std::shared_ptr<ICameraDevice> Enumerate() {
        auto devices = CameraDevicesFactory(nullptr).GetDevices();
        return devices.size() == 1 ? devices[0] : nullptr;
    }

    std::shared_ptr<ScriptedBackend> backend = std::make_shared<ScriptedBackend>();
};

struct RetryCase {
    const char* name;
    std::vector<Reply> replies;
    int attempts;
    const wchar_t* version;
};

class InformationBlockRetries : public UpdatableCamera,
                                public testing::WithParamInterface<RetryCase> {};

TEST_P(InformationBlockRetries, UpToFiveAttemptsHalfASecondApart) {
    const RetryCase& c = GetParam();
    backend->replies.assign(c.replies.begin(), c.replies.end());

    const ULONGLONG start = GetTickCount64();
    auto camera = Enumerate();
    const ULONGLONG elapsed = GetTickCount64() - start;

    ASSERT_TRUE(camera);
    EXPECT_TRUE(camera->IsUpdatable());
    EXPECT_EQ(L"Lynx LX20", camera->GetName());
    EXPECT_EQ(c.version, camera->GetFirmwareVersion());
    EXPECT_EQ(std::wstring(L"Lynx LX20 (FW Version: ") + c.version + L")",
              camera->GetDetails(false));

    ASSERT_EQ(2u * c.attempts, backend->requests.size());
    for (int attempt = 0; attempt < c.attempts; ++attempt) {
        const Request& set = backend->requests[2 * attempt];
        const Request& get = backend->requests[2 * attempt + 1];
        EXPECT_EQ(0x10000002u, set.flags);
        EXPECT_EQ(0x10000001u, get.flags);
        const std::vector<std::uint8_t> head(set.frame.begin(), set.frame.begin() + 24);
        EXPECT_EQ((std::vector<std::uint8_t>{0x14, 0, 0xAB, 0xCD, 0x10, 0, 0, 0, 0, 0, 0, 0,
                                             0,    0, 0,    0,    0,    0, 0, 0, 0, 0, 0, 0}),
                  head);
        EXPECT_GE(get.tick - set.tick, 100u);
        if (attempt > 0) {
            EXPECT_GE(set.tick - backend->requests[2 * attempt - 1].tick, 500u);
        }
    }
    // Every failed attempt costs its exchange and a pause, the successful one only its
    // exchange; a pause more would be 500 ms.
    const bool answered = std::wstring(c.version) != L"0.0.0.0";
    const ULONGLONG least = 100u * c.attempts + 500u * (c.attempts - (answered ? 1 : 0));
    EXPECT_GE(elapsed, least);
    EXPECT_LT(elapsed, least + 450u);
}

const Reply kGood{};
const Reply kStalled{.status = kStall};
const Reply kShort{.returned = 233};
const Reply kOtherOpcode{.echo = 0x11};

INSTANTIATE_TEST_SUITE_P(
    Cameras, InformationBlockRetries,
    testing::Values(
        RetryCase{"AnswersAtOnce", {kGood}, 1, L"5.10.0.28"},
        RetryCase{"AnswersAtTheThirdAttempt", {kStalled, kShort, kGood}, 3, L"5.10.0.28"},
        RetryCase{"AnswersAtTheFifthAttempt",
                  {kStalled, kStalled, kOtherOpcode, kShort, kGood},
                  5,
                  L"5.10.0.28"},
        RetryCase{"NeverAnswers", {}, 5, L"0.0.0.0"},
        RetryCase{
            "AnswersWrongly", {kShort, kOtherOpcode, kShort, kOtherOpcode, kShort}, 5, L"0.0.0.0"},
        RetryCase{
            "HighestVersion", {Reply{.version = {255, 255, 255, 255}}}, 1, L"255.255.255.255"},
        RetryCase{"ByteOrder", {Reply{.version = {1, 2, 3, 4}}}, 1, L"4.3.2.1"}),
    [](const testing::TestParamInfo<RetryCase>& info) { return info.param.name; });

TEST_F(UpdatableCamera, CameraWithoutTheFamilysUnitIsAPlainCamera) {
    backend->hasUnit = false;
    EXPECT_EQ(nullptr, LynxUpdatableDeviceFactory().CreateDevice(nullptr));
    auto camera = Enumerate();
    ASSERT_TRUE(camera);
    EXPECT_FALSE(camera->IsUpdatable());
    EXPECT_EQ(L"Lynx LX20", camera->GetDetails(false));
    EXPECT_EQ(L"No FW version", camera->GetFirmwareVersion());
    EXPECT_EQ(1, camera->GetDeviceType());
    EXPECT_EQ(E_FAIL, camera->SwitchToDfu());
    EXPECT_TRUE(backend->requests.empty());
}

TEST_F(UpdatableCamera, SwitchToDfuSendsItsCommandAndIgnoresTheMissingAnswer) {
    backend->replies = {kGood};
    auto camera = Enumerate();
    ASSERT_TRUE(camera);
    backend->requests.clear();

    EXPECT_EQ(S_OK, camera->SwitchToDfu());

    ASSERT_EQ(2u, backend->requests.size());
    std::vector<std::uint8_t> expected(1024, 0);
    const std::uint8_t head[] = {0x14, 0, 0xAB, 0xCD, 0x1E, 0, 0, 0, 1};
    std::copy(std::begin(head), std::end(head), expected.begin());
    EXPECT_EQ(expected, backend->requests[0].frame);
    EXPECT_EQ(0x10000002u, backend->requests[0].flags);
    EXPECT_EQ(0x10000001u, backend->requests[1].flags);
}

TEST(UnconnectedLynx, IsTheFamilysDeviceWithoutAChannel) {
    auto device = CreateLynxUpdatableDevice();
    EXPECT_EQ(L"Lynx", device->GetName());
    EXPECT_EQ(L"0.0.0.0", device->GetFirmwareVersion());
    EXPECT_EQ(L"Lynx (FW Version: 0.0.0.0)", device->GetDetails(false));
    EXPECT_EQ(0, device->GetDeviceType());
    EXPECT_TRUE(device->IsUpdatable());
    EXPECT_FALSE(device->IsDfuModePerDevice());
    EXPECT_EQ(nullptr, device->GetLog());
    EXPECT_EQ(E_FAIL, device->SwitchToDfu());
}

}  // namespace
