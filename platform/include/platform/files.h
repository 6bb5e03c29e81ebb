// SPDX-License-Identifier: Apache-2.0
// Files by name: opening one, what kind of object a handle reaches, its size, reading and
// writing it. CreateFileW also opens USB device interfaces (platform/winusb.h); CloseHandle
// is in platform/sync.h.
#pragma once

#include "platform/types.h"

#ifndef _WIN32
#include "platform/posix/files_posix.h"
#endif
