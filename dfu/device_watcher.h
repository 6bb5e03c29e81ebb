// SPDX-License-Identifier: Apache-2.0
// Keeps the list of the device interfaces of one class that pass a filter, from rescans made
// by its owner and from the platform's arrival and removal notifications.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "dfu/device_paths.h"
#include "platform/cfgmgr.h"
#include "platform/sync.h"

class DeviceWatcher {
  public:
    // Registers for notifications at once: the platform calls back with this object's address,
    // so a watcher is never copied or moved.
    DeviceWatcher(std::wstring name, DeviceFilter filter);
    ~DeviceWatcher();
    DeviceWatcher(const DeviceWatcher&) = delete;
    DeviceWatcher& operator=(const DeviceWatcher&) = delete;

    // Rebuilds the list from the interfaces present.
    void Refresh();
    // Refresh, then a copy of the list.
    std::vector<DeviceInterfaceEntry> GetDevices();
    // 0 when the (lower-cased) path is in the list within about the time limit, 2 otherwise.
    DWORD WaitForDevice(std::uint32_t timeLimitMs, std::wstring path);

    // Signalled when a record is added and when a matching interface is removed: a removal
    // also ends a wait. Unnamed, so no other watcher or program can signal it.
    HANDLE arrivalEvent = nullptr;

  private:
    static DWORD CALLBACK OnNotification(HCMNOTIFICATION notification, PVOID context,
                                         CM_NOTIFY_ACTION action, PCM_NOTIFY_EVENT_DATA eventData,
                                         DWORD eventDataSize);
    // With the list lock held.
    void AddDevice(const std::wstring& path);

    std::wstring name;
    std::vector<DeviceInterfaceEntry> devices;
    HCMNOTIFICATION notification = nullptr;
    DeviceFilter filter;
    std::mutex listLock;
};

// Builds the USB filter and the watcher in the caller's storage, and hands back the watcher.
DeviceWatcher& CreateUsbDeviceWatcher(std::optional<DeviceWatcher>& storage,
                                      const std::wstring& name, const std::wstring& vendorToken,
                                      const std::wstring& productToken,
                                      const std::wstring& interfaceToken);
