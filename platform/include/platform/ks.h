// SPDX-License-Identifier: Apache-2.0
// Kernel streaming: property requests to a device's topology nodes.
#pragma once

#include "platform/com.h"

#ifdef _WIN32
// mingw-w64's ksmedia.h must come after the Media Foundation headers, or strmif.h and
// ddraw.h types are defined twice.
#include "platform/mf.h"
// clang-format off
#include <ks.h>
#include <ksmedia.h>
// IKsControl for user mode lives in ksproxy.h; ks.h declares it for drivers only.
#include <ksproxy.h>
// clang-format on

// The sensor-camera device category is missing from mingw-w64's ksmedia.h.
#ifndef STATIC_KSCATEGORY_SENSOR_CAMERA
inline constexpr GUID KSCATEGORY_SENSOR_CAMERA = {
    0x24E552D7, 0x6523, 0x47F7, {0xA6, 0x47, 0xD3, 0x46, 0x5B, 0xF1, 0xF5, 0xCA}};
#endif

// mingw-w64 has no vidcap.h, so the topology interface of a capture filter is declared here,
// with the full method table of the system's interface so that the slots line up.
inline constexpr IID IID_IKsTopologyInfo = {
    0x720D4AC0, 0x7533, 0x11D0, {0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00}};

struct IKsTopologyInfo : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE get_NumCategories(DWORD* count) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_Category(DWORD index, GUID* category) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_NumConnections(DWORD* count) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_ConnectionInfo(DWORD index,
                                                         KSTOPOLOGY_CONNECTION* connection) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_NodeName(DWORD node, WCHAR* name, DWORD bufferSize,
                                                   DWORD* nameLength) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_NumNodes(DWORD* count) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_NodeType(DWORD node, GUID* type) = 0;
    virtual HRESULT STDMETHODCALLTYPE CreateNodeInstance(DWORD node, REFIID iid, void** object) = 0;
};
#else
#include "platform/posix/ks_posix.h"
#endif
