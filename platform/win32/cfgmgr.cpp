// CM_Register_Notification and CM_Unregister_Notification, found at run time: the mingw
// headers do not declare them, and where the system lacks them (Wine, older Windows) a call
// through the import table would end the process.
#include <windows.h>

#include "platform/cfgmgr.h"

namespace {

using RegisterFunction = CONFIGRET(WINAPI*)(PCM_NOTIFY_FILTER, PVOID, PCM_NOTIFY_CALLBACK,
                                            PHCMNOTIFICATION);
using UnregisterFunction = CONFIGRET(WINAPI*)(HCMNOTIFICATION);

FARPROC Lookup(const char* name) {
    HMODULE module = GetModuleHandleW(L"cfgmgr32.dll");
    if (module == nullptr)
        module = LoadLibraryExW(L"cfgmgr32.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    return module != nullptr ? GetProcAddress(module, name) : nullptr;
}

}  // namespace

namespace platform {

CONFIGRET RegisterInterfaceNotification(PCM_NOTIFY_FILTER filter, PVOID context,
                                        PCM_NOTIFY_CALLBACK callback,
                                        PHCMNOTIFICATION notification) {
    static const auto function = reinterpret_cast<RegisterFunction>(
        reinterpret_cast<void*>(Lookup("CM_Register_Notification")));
    if (notification != nullptr) *notification = nullptr;
    if (function == nullptr) return CR_CALL_NOT_IMPLEMENTED;
    return function(filter, context, callback, notification);
}

CONFIGRET UnregisterInterfaceNotification(HCMNOTIFICATION notification) {
    static const auto function = reinterpret_cast<UnregisterFunction>(
        reinterpret_cast<void*>(Lookup("CM_Unregister_Notification")));
    if (function == nullptr || notification == nullptr) return CR_CALL_NOT_IMPLEMENTED;
    return function(notification);
}

}  // namespace platform
