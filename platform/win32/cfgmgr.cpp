// SPDX-License-Identifier: Apache-2.0
// The configuration manager, loaded from system32 when first called instead of imported:
// cfgmgr32.dll is not a KnownDLL, so an import would be looked for beside the program first.
// The list functions carry the system's own names (the build declares them without
// dllimport, see CMakeLists.txt); CM_Register_Notification and CM_Unregister_Notification
// have names of their own, since the mingw headers do not declare them. Where the DLL or a
// function is missing (Wine lacks the notifications) the call fails with
// CR_CALL_NOT_IMPLEMENTED and the watcher sees what its rescans find. The names the program
// calls record the call first (platform/common/recorded_calls.cpp).
#include <windows.h>

#include "platform/cfgmgr.h"
#include "platform/common/real_calls.h"
#include "platform/win32/system_library.h"

namespace {

constexpr const wchar_t* kCfgmgr32 = L"cfgmgr32.dll";

template <typename Function>
Function Find(const char* name) {
    return platform::win32::SystemFunction<Function>(kCfgmgr32, name);
}

using RegisterFunction = CONFIGRET(WINAPI*)(PCM_NOTIFY_FILTER, PVOID, PCM_NOTIFY_CALLBACK,
                                            PHCMNOTIFICATION);
using UnregisterFunction = CONFIGRET(WINAPI*)(HCMNOTIFICATION);

}  // namespace

namespace platform::real {

CONFIGRET CM_Get_Device_Interface_List_SizeW(PULONG length, LPGUID interfaceClass,
                                             DEVINSTID_W deviceId, ULONG flags) {
    static const auto function =
        Find<decltype(&::CM_Get_Device_Interface_List_SizeW)>("CM_Get_Device_Interface_List_SizeW");
    if (function != nullptr) return function(length, interfaceClass, deviceId, flags);
    if (length != nullptr) *length = 0;
    return CR_CALL_NOT_IMPLEMENTED;
}

CONFIGRET CM_Get_Device_Interface_ListW(LPGUID interfaceClass, DEVINSTID_W deviceId, PWCHAR buffer,
                                        ULONG length, ULONG flags) {
    static const auto function =
        Find<decltype(&::CM_Get_Device_Interface_ListW)>("CM_Get_Device_Interface_ListW");
    if (function != nullptr) return function(interfaceClass, deviceId, buffer, length, flags);
    return CR_CALL_NOT_IMPLEMENTED;
}

CONFIGRET RegisterInterfaceNotification(PCM_NOTIFY_FILTER filter, PVOID context,
                                        PCM_NOTIFY_CALLBACK callback,
                                        PHCMNOTIFICATION notification) {
    static const auto function = Find<RegisterFunction>("CM_Register_Notification");
    if (notification != nullptr) *notification = nullptr;
    if (function == nullptr) return CR_CALL_NOT_IMPLEMENTED;
    return function(filter, context, callback, notification);
}

CONFIGRET UnregisterInterfaceNotification(HCMNOTIFICATION notification) {
    static const auto function = Find<UnregisterFunction>("CM_Unregister_Notification");
    if (function == nullptr || notification == nullptr) return CR_CALL_NOT_IMPLEMENTED;
    return function(notification);
}

}  // namespace platform::real
