// SPDX-License-Identifier: Apache-2.0
// The configuration manager: device interface lists and arrival/removal notifications.
#pragma once

#include "platform/types.h"

#ifdef _WIN32
#include <cfgmgr32.h>
#else
#include "platform/posix/cfgmgr_posix.h"
#endif

// The device interface class of USB devices.
inline constexpr GUID kGuidDevinterfaceUsbDevice = {
    0xA5DCBF10, 0x6530, 0x11D2, {0x90, 0x1F, 0x00, 0xC0, 0x4F, 0xB9, 0x51, 0xED}};

namespace platform {

// CM_Register_Notification and CM_Unregister_Notification. Windows: looked up at run time,
// since older systems (and Wine) lack them; a missing function is a failed registration.
// (Not named after RegisterDeviceNotification: winuser.h defines that name as a macro.)
CONFIGRET RegisterInterfaceNotification(PCM_NOTIFY_FILTER filter, PVOID context,
                                        PCM_NOTIFY_CALLBACK callback,
                                        PHCMNOTIFICATION notification);
CONFIGRET UnregisterInterfaceNotification(HCMNOTIFICATION notification);

}  // namespace platform
