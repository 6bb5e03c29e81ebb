// SPDX-License-Identifier: Apache-2.0
#include "dfu/device_watcher.h"

#include <algorithm>
#include <cstring>

namespace {
constexpr DWORD kDeviceFound = 0;
constexpr DWORD kDeviceNotFound = 2;
constexpr int kWaitAttempts = 10;
constexpr int kListAttempts = 5;
}  // namespace

DeviceWatcher::DeviceWatcher(std::wstring watcherName, DeviceFilter deviceFilter)
    : name(std::move(watcherName)), filter(std::move(deviceFilter)) {
    // One unnamed event for arrivals and removals alike. A named one lives in the session's
    // namespace, where any other program may create it first (the object names page: "use
    // unique names and be sure to check function return values for duplicate-name errors"):
    // one holding a mutex of that name makes the creation fail, so that every wait ends at
    // once; one holding an event of that name can signal it. Nothing can open an unnamed
    // event, and two watchers no longer wake each other.
    arrivalEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);

    CM_NOTIFY_FILTER notifyFilter;
    std::memset(&notifyFilter, 0, sizeof notifyFilter);
    notifyFilter.cbSize = sizeof notifyFilter;
    notifyFilter.Flags = 0;
    notifyFilter.FilterType = CM_NOTIFY_FILTER_TYPE_DEVICEINTERFACE;
    notifyFilter.Reserved = 0;
    if (filter.interfaceClass != nullptr)
        notifyFilter.u.DeviceInterface.ClassGuid = *filter.interfaceClass;
    // Without notifications the watcher still sees what its rescans find.
    platform::RegisterInterfaceNotification(&notifyFilter, this, &DeviceWatcher::OnNotification,
                                            &notification);
}

DeviceWatcher::~DeviceWatcher() {
    // No callback runs once this returns, so the rest needs no lock.
    if (notification != nullptr) platform::UnregisterInterfaceNotification(notification);
    if (arrivalEvent != nullptr) {
        ResetEvent(arrivalEvent);
        CloseHandle(arrivalEvent);
    }
}

void DeviceWatcher::AddDevice(const std::wstring& path) {
    devices.push_back(DeviceInterfaceEntry{path, GetParentId(path), GetInterfaceKind(path)});
    SetEvent(arrivalEvent);
}

void DeviceWatcher::Refresh() {
    {
        std::lock_guard lock(listLock);
        devices.clear();
    }
    ResetEvent(arrivalEvent);

    GUID interfaceClass = filter.interfaceClass != nullptr ? *filter.interfaceClass : GUID{};
    // CM_Get_Device_Interface_ListW: "a new device interface can be added to the system
    // causing the size returned to no longer be valid. Callers should be robust to that
    // condition and retry getting the size and the list if CM_Get_Device_Interface_List
    // returns CR_BUFFER_SMALL." A camera re-enumerating in DFU mode does exactly that; the
    // bound keeps a bus that never settles from holding the rescan forever.
    std::wstring buffer;
    for (int attempt = 0; attempt < kListAttempts; ++attempt) {
        ULONG size = 0;
        CM_Get_Device_Interface_List_SizeW(&size, &interfaceClass, nullptr,
                                           CM_GET_DEVICE_INTERFACE_LIST_PRESENT);
        if (size < 2) return;
        buffer.assign(size, L'\0');
        const CONFIGRET listed = CM_Get_Device_Interface_ListW(
            &interfaceClass, nullptr, buffer.data(), size, CM_GET_DEVICE_INTERFACE_LIST_PRESENT);
        if (listed == CR_SUCCESS) break;
        buffer.clear();
        if (listed != CR_BUFFER_SMALL) break;
    }
    buffer = ToLower(buffer);

    std::vector<std::wstring> paths;
    for (std::size_t start = 0; start < buffer.size();) {
        const std::size_t end = std::min(buffer.find(L'\0', start), buffer.size());
        if (end == start) break;
        paths.push_back(buffer.substr(start, end - start));
        start = end + 1;
    }

    std::lock_guard lock(listLock);
    for (const auto& path : paths) {
        if (filter.Matches(path)) AddDevice(path);
    }
}

std::vector<DeviceInterfaceEntry> DeviceWatcher::GetDevices() {
    Refresh();
    std::lock_guard lock(listLock);
    return devices;
}

DWORD DeviceWatcher::WaitForDevice(std::uint32_t timeLimitMs, std::wstring path) {
    const DWORD interval = timeLimitMs < 110 ? 10 : timeLimitMs / 10;
    for (int attempt = 0; attempt < kWaitAttempts; ++attempt) {
        Refresh();
        if (WaitForSingleObject(arrivalEvent, interval) != WAIT_OBJECT_0) continue;
        {
            std::lock_guard lock(listLock);
            const bool found = std::any_of(devices.begin(), devices.end(), [&](const auto& entry) {
                return entry.symbolicLink == path;
            });
            if (found) return kDeviceFound;
        }
        Sleep(interval);
    }
    return kDeviceNotFound;
}

DWORD CALLBACK DeviceWatcher::OnNotification(HCMNOTIFICATION, PVOID context,
                                             CM_NOTIFY_ACTION action,
                                             PCM_NOTIFY_EVENT_DATA eventData, DWORD) {
    auto* watcher = static_cast<DeviceWatcher*>(context);
    if (watcher == nullptr || eventData == nullptr ||
        eventData->FilterType != CM_NOTIFY_FILTER_TYPE_DEVICEINTERFACE) {
        return 0;
    }
    if (action != CM_NOTIFY_ACTION_DEVICEINTERFACEARRIVAL &&
        action != CM_NOTIFY_ACTION_DEVICEINTERFACEREMOVAL) {
        return 0;
    }
    const std::wstring path = ToLower(eventData->u.DeviceInterface.SymbolicLink);
    if (!watcher->filter.Matches(path)) return 0;

    std::lock_guard lock(watcher->listLock);
    if (action == CM_NOTIFY_ACTION_DEVICEINTERFACEARRIVAL) {
        watcher->AddDevice(path);
    } else {
        std::erase_if(watcher->devices,
                      [&](const auto& entry) { return entry.symbolicLink == path; });
        SetEvent(watcher->arrivalEvent);
    }
    return 0;
}

DeviceWatcher& CreateUsbDeviceWatcher(std::optional<DeviceWatcher>& storage,
                                      const std::wstring& name, const std::wstring& vendorToken,
                                      const std::wstring& productToken,
                                      const std::wstring& interfaceToken) {
    return storage.emplace(name, MakeUsbDeviceFilter(vendorToken, productToken, interfaceToken));
}
