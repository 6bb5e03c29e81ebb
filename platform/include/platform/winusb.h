// SPDX-License-Identifier: Apache-2.0
// Opening a USB device interface path and talking to it through WinUSB.
#pragma once

#include "platform/types.h"

#ifdef _WIN32
// winusb.h brings USB_INTERFACE_DESCRIPTOR through usb100.h.
#include <winusb.h>
#else
#include "platform/posix/winusb_posix.h"
#endif
