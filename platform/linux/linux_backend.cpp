#include "platform/linux/linux_backend.h"

namespace platform::linux_hw {
namespace {

class LinuxBackend final : public DeviceBackend {
  public:
    std::vector<std::wstring> ListUsbDeviceInterfaces() override { return {}; }
    ErrorCode OpenUsbDevice(const std::wstring&, std::unique_ptr<UsbDeviceConnection>*) override {
        return ERROR_FILE_NOT_FOUND;
    }
    std::uint64_t SubscribeUsbEvents(UsbEventCallback) override { return 0; }
    void UnsubscribeUsbEvents(std::uint64_t) override {}
    std::vector<VideoCaptureDeviceInfo> ListVideoCaptureDevices(VideoCategory) override {
        return {};
    }
    HRESULT OpenVideoDevice(const std::wstring&, std::unique_ptr<VideoDeviceConnection>*) override {
        return HResultFromError(ERROR_FILE_NOT_FOUND);
    }
    ErrorCode CreateSettingsKey(const std::wstring&) override { return ERROR_ACCESS_DENIED; }
    ErrorCode SetSettingsValue(const std::wstring&, const std::wstring&, std::uint32_t,
                               const std::uint8_t*, std::uint32_t) override {
        return ERROR_ACCESS_DENIED;
    }
};

}  // namespace

std::shared_ptr<DeviceBackend> CreateLinuxBackend() {
    return std::make_shared<LinuxBackend>();
}

}  // namespace platform::linux_hw
