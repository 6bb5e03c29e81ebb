// SPDX-License-Identifier: Apache-2.0
// The configuration-manager subset, for targets without it. Layouts follow Windows x64.
#pragma once

#include "platform/posix/win_types.h"

#ifndef CALLBACK
#define CALLBACK
#endif

using CONFIGRET = DWORD;
using PULONG = ULONG*;
using LPGUID = GUID*;
using DEVINSTID_W = wchar_t*;
using PZZWSTR = wchar_t*;

constexpr CONFIGRET CR_SUCCESS = 0x00;
constexpr CONFIGRET CR_INVALID_POINTER = 0x03;
constexpr CONFIGRET CR_INVALID_DATA = 0x1F;
constexpr CONFIGRET CR_FAILURE = 0x13;
constexpr CONFIGRET CR_BUFFER_SMALL = 0x1A;
constexpr CONFIGRET CR_CALL_NOT_IMPLEMENTED = 0x34;

constexpr ULONG CM_GET_DEVICE_INTERFACE_LIST_PRESENT = 0x0;
constexpr int MAX_DEVICE_ID_LEN = 200;

enum CM_NOTIFY_FILTER_TYPE {
    CM_NOTIFY_FILTER_TYPE_DEVICEINTERFACE = 0,
    CM_NOTIFY_FILTER_TYPE_DEVICEHANDLE,
    CM_NOTIFY_FILTER_TYPE_DEVICEINSTANCE,
    CM_NOTIFY_FILTER_TYPE_MAX
};

enum CM_NOTIFY_ACTION {
    CM_NOTIFY_ACTION_DEVICEINTERFACEARRIVAL = 0,
    CM_NOTIFY_ACTION_DEVICEINTERFACEREMOVAL,
    CM_NOTIFY_ACTION_DEVICEQUERYREMOVE,
    CM_NOTIFY_ACTION_DEVICEQUERYREMOVEFAILED,
    CM_NOTIFY_ACTION_DEVICEREMOVEPENDING,
    CM_NOTIFY_ACTION_DEVICEREMOVECOMPLETE,
    CM_NOTIFY_ACTION_DEVICECUSTOMEVENT,
    CM_NOTIFY_ACTION_DEVICEINSTANCEENUMERATED,
    CM_NOTIFY_ACTION_DEVICEINSTANCESTARTED,
    CM_NOTIFY_ACTION_DEVICEINSTANCEREMOVED,
    CM_NOTIFY_ACTION_MAX
};

struct CM_NOTIFY_FILTER {
    DWORD cbSize;
    DWORD Flags;
    CM_NOTIFY_FILTER_TYPE FilterType;
    DWORD Reserved;
    union {
        struct {
            GUID ClassGuid;
        } DeviceInterface;
        struct {
            HANDLE hTarget;
        } DeviceHandle;
        struct {
            char16_t
                InstanceId[MAX_DEVICE_ID_LEN];  // UTF-16 as on Windows: the record is 416 bytes
        } DeviceInstance;
    } u;
};
using PCM_NOTIFY_FILTER = CM_NOTIFY_FILTER*;
static_assert(sizeof(CM_NOTIFY_FILTER) == 416);

struct CM_NOTIFY_EVENT_DATA {
    CM_NOTIFY_FILTER_TYPE FilterType;
    DWORD Reserved;
    union {
        struct {
            GUID ClassGuid;
            WCHAR SymbolicLink[1];  // zero-terminated, as long as the path
        } DeviceInterface;
    } u;
};
using PCM_NOTIFY_EVENT_DATA = CM_NOTIFY_EVENT_DATA*;

struct CmNotificationObject;
using HCMNOTIFICATION = CmNotificationObject*;
using PHCMNOTIFICATION = HCMNOTIFICATION*;
using PCM_NOTIFY_CALLBACK = DWORD (*)(HCMNOTIFICATION notification, PVOID context,
                                      CM_NOTIFY_ACTION action, PCM_NOTIFY_EVENT_DATA eventData,
                                      DWORD eventDataSize);

CONFIGRET CM_Get_Device_Interface_List_SizeW(PULONG length, LPGUID interfaceClass,
                                             DEVINSTID_W deviceId, ULONG flags);
CONFIGRET CM_Get_Device_Interface_ListW(LPGUID interfaceClass, DEVINSTID_W deviceId, PZZWSTR buffer,
                                        ULONG bufferLength, ULONG flags);
CONFIGRET CM_Register_Notification(PCM_NOTIFY_FILTER filter, PVOID context,
                                   PCM_NOTIFY_CALLBACK callback, PHCMNOTIFICATION notification);
// Returns only once no callback of this registration runs any more (unless called from one).
CONFIGRET CM_Unregister_Notification(HCMNOTIFICATION notification);
