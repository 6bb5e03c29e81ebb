// SPDX-License-Identifier: Apache-2.0
// Device interface lists and notifications over the backend's USB devices.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/cfgmgr.h"
#include "platform/common/real_calls.h"
#include "platform/posix/device_backend.h"

struct CmNotificationObject {
    std::uint64_t subscription = 0;
};

namespace {

// Only USB device interfaces exist behind the seam; every other class lists nothing.
std::vector<std::wstring> PresentInterfaces(const GUID* interfaceClass) {
    if (interfaceClass == nullptr || *interfaceClass != kGuidDevinterfaceUsbDevice) return {};
    return platform::Backend().ListUsbDeviceInterfaces();
}

// The platform's list form: zero-terminated paths one after the other, then an empty one.
std::wstring MultiString(const std::vector<std::wstring>& paths) {
    std::wstring list;
    for (const auto& path : paths) {
        list += path;
        list.push_back(L'\0');
    }
    list.push_back(L'\0');
    return list;
}

}  // namespace

CONFIGRET platform::real::CM_Get_Device_Interface_List_SizeW(PULONG length, LPGUID interfaceClass,
                                                             DEVINSTID_W, ULONG) {
    if (length == nullptr) return CR_INVALID_POINTER;
    *length = static_cast<ULONG>(MultiString(PresentInterfaces(interfaceClass)).size());
    return CR_SUCCESS;
}

CONFIGRET platform::real::CM_Get_Device_Interface_ListW(LPGUID interfaceClass, DEVINSTID_W,
                                                        PZZWSTR buffer, ULONG bufferLength, ULONG) {
    if (buffer == nullptr || bufferLength == 0) return CR_INVALID_POINTER;
    const std::wstring list = MultiString(PresentInterfaces(interfaceClass));
    // The list may have grown since its size was asked for.
    if (list.size() > bufferLength) return CR_BUFFER_SMALL;
    // The list carries its own terminators: each path's, and the empty string's that ends it.
    // NOLINTNEXTLINE(bugprone-not-null-terminated-result)
    std::wmemcpy(buffer, list.data(), list.size());
    return CR_SUCCESS;
}

CONFIGRET CM_Register_Notification(PCM_NOTIFY_FILTER filter, PVOID context,
                                   PCM_NOTIFY_CALLBACK callback, PHCMNOTIFICATION notification) {
    using platform::Backend;
    using platform::UsbEvent;
    if (notification == nullptr) return CR_INVALID_POINTER;
    *notification = nullptr;
    if (filter == nullptr || callback == nullptr || filter->cbSize != sizeof(CM_NOTIFY_FILTER)) {
        return CR_INVALID_DATA;
    }
    if (filter->FilterType != CM_NOTIFY_FILTER_TYPE_DEVICEINTERFACE) return CR_CALL_NOT_IMPLEMENTED;
    const GUID interfaceClass = filter->u.DeviceInterface.ClassGuid;
    auto registration = std::make_unique<CmNotificationObject>();
    HCMNOTIFICATION handle = registration.get();
    registration->subscription = Backend().SubscribeUsbEvents(
        [handle, context, callback, interfaceClass](UsbEvent event, const std::wstring& path) {
            if (interfaceClass != kGuidDevinterfaceUsbDevice) return;
            // The record ends in the path itself, as the platform delivers it.
            const std::size_t size = sizeof(CM_NOTIFY_EVENT_DATA) + path.size() * sizeof(WCHAR);
            std::vector<std::uint8_t> storage(size, 0);
            auto* data = reinterpret_cast<CM_NOTIFY_EVENT_DATA*>(storage.data());
            data->FilterType = CM_NOTIFY_FILTER_TYPE_DEVICEINTERFACE;
            data->u.DeviceInterface.ClassGuid = interfaceClass;
            std::wmemcpy(data->u.DeviceInterface.SymbolicLink, path.c_str(), path.size() + 1);
            callback(handle, context,
                     event == UsbEvent::kArrival ? CM_NOTIFY_ACTION_DEVICEINTERFACEARRIVAL
                                                 : CM_NOTIFY_ACTION_DEVICEINTERFACEREMOVAL,
                     data, static_cast<DWORD>(size));
        });
    if (registration->subscription == 0) return CR_FAILURE;
    *notification = registration.release();
    return CR_SUCCESS;
}

CONFIGRET CM_Unregister_Notification(HCMNOTIFICATION notification) {
    if (notification == nullptr) return CR_INVALID_POINTER;
    platform::Backend().UnsubscribeUsbEvents(notification->subscription);
    delete notification;
    return CR_SUCCESS;
}

namespace platform {

// Every POSIX target has the functions; only Windows must look them up.
CONFIGRET real::RegisterInterfaceNotification(PCM_NOTIFY_FILTER filter, PVOID context,
                                              PCM_NOTIFY_CALLBACK callback,
                                              PHCMNOTIFICATION notification) {
    return CM_Register_Notification(filter, context, callback, notification);
}

CONFIGRET real::UnregisterInterfaceNotification(HCMNOTIFICATION notification) {
    return CM_Unregister_Notification(notification);
}

}  // namespace platform
