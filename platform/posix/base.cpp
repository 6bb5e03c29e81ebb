// SPDX-License-Identifier: Apache-2.0
#include <cstdlib>
#include <mutex>

#include "platform/com.h"
#include "platform/common/real_calls.h"
#include "platform/posix/device_backend.h"

namespace {
thread_local DWORD lastError = 0;

std::mutex backendMutex;
std::shared_ptr<platform::DeviceBackend>& BackendSlot() {
    static std::shared_ptr<platform::DeviceBackend> backend =
        std::make_shared<platform::EmptyDeviceBackend>();
    return backend;
}
}  // namespace

DWORD GetLastError() {
    return lastError;
}
void SetLastError(DWORD error) {
    lastError = error;
}

HRESULT platform::real::CoInitializeEx(void*, DWORD) {
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
    BackendSlot() = backend ? std::move(backend) : std::make_shared<platform::EmptyDeviceBackend>();
}

std::shared_ptr<DeviceBackend> CurrentBackend() {
    std::lock_guard lock(backendMutex);
    return BackendSlot();
}

DeviceBackend& Backend() {
    return *CurrentBackend();
}

}  // namespace platform
