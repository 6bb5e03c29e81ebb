#include <cstdlib>
#include <mutex>

#include "platform/com.h"
#include "platform/posix/device_backend.h"

namespace {
thread_local DWORD lastError = 0;

// The backend in force before main installs one: no devices, nothing can be stored.
class EmptyBackend final : public platform::DeviceBackend {
  public:
    std::vector<std::wstring> ListUsbDeviceInterfaces() override { return {}; }
    platform::ErrorCode OpenUsbDevice(const std::wstring&,
                                      std::unique_ptr<platform::UsbDeviceConnection>*) override {
        return ERROR_FILE_NOT_FOUND;
    }
    std::uint64_t SubscribeUsbEvents(platform::UsbEventCallback) override { return 0; }
    void UnsubscribeUsbEvents(std::uint64_t) override {}
    std::vector<platform::VideoCaptureDeviceInfo> ListVideoCaptureDevices(
        platform::VideoCategory) override {
        return {};
    }
    HRESULT OpenVideoDevice(const std::wstring&,
                            std::unique_ptr<platform::VideoDeviceConnection>*) override {
        return platform::HResultFromError(ERROR_FILE_NOT_FOUND);
    }
    platform::ErrorCode CreateSettingsKey(const std::wstring&) override {
        return ERROR_ACCESS_DENIED;
    }
    platform::ErrorCode SetSettingsValue(const std::wstring&, const std::wstring&, std::uint32_t,
                                         const std::uint8_t*, std::uint32_t) override {
        return ERROR_ACCESS_DENIED;
    }
};

std::mutex backendMutex;
std::shared_ptr<platform::DeviceBackend>& BackendSlot() {
    static std::shared_ptr<platform::DeviceBackend> backend = std::make_shared<EmptyBackend>();
    return backend;
}
}  // namespace

DWORD GetLastError() {
    return lastError;
}
void SetLastError(DWORD error) {
    lastError = error;
}

HRESULT CoInitializeEx(void*, DWORD) {
    return S_OK;
}
void* CoTaskMemAlloc(std::size_t size) {
    return std::malloc(size);
}
void CoTaskMemFree(void* memory) {
    std::free(memory);
}

namespace platform {

void InstallBackend(std::shared_ptr<DeviceBackend> backend) {
    std::lock_guard lock(backendMutex);
    BackendSlot() = backend ? std::move(backend) : std::make_shared<EmptyBackend>();
}

std::shared_ptr<DeviceBackend> CurrentBackend() {
    std::lock_guard lock(backendMutex);
    return BackendSlot();
}

DeviceBackend& Backend() {
    return *CurrentBackend();
}

}  // namespace platform
