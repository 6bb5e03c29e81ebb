// SPDX-License-Identifier: Apache-2.0
// Media Foundation: attribute stores, capture-device enumeration and activation, media sources.
#pragma once

#include "platform/com.h"

#ifdef _WIN32
#include <mfapi.h>
#include <mferror.h>
#include <mfidl.h>

// Exported by mf.dll (and libmf.a) but not declared in mingw-w64's mfidl.h.
extern "C" HRESULT WINAPI MFCreateDeviceSourceActivate(IMFAttributes* attributes,
                                                       IMFActivate** activate);
#else
#include "platform/posix/mf_posix.h"
#endif
