// SPDX-License-Identifier: Apache-2.0
// COM basics: IUnknown, reference-counting pointers, apartment start-up, task memory.
#pragma once

#include "platform/types.h"

#ifdef _WIN32
#include <objbase.h>
#include <wrl/client.h>
#else
#include "platform/posix/com_posix.h"
#endif
