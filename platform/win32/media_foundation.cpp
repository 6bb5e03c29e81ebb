// SPDX-License-Identifier: Apache-2.0
// Media Foundation, loaded when first called instead of imported.
//
// Windows N and KN editions without the Media Feature Pack, and Server without its media
// feature, have no mfplat.dll or mf.dll: with those as static imports the loader would refuse
// the whole program, recovery and settings included, which need no camera API. Here each
// call loads its DLL on first use; where it is missing the call fails, the enumeration finds
// no camera, and the rest of the program works.
//
// The functions carry the system's own names (the SDK headers declare them without
// dllimport), so the camera code calls them as it would the imported ones; those names
// record the call (platform/common/recorded_calls.cpp), then come here. An attribute store
// the program passes back is the system's own again (a recording hands out proxies).
#include <windows.h>

#include "platform/common/real_calls.h"
#include "platform/common/recorded_objects.h"
#include "platform/mf.h"
#include "platform/win32/system_library.h"

namespace {

constexpr const wchar_t* kMfplat = L"mfplat.dll";
constexpr const wchar_t* kMf = L"mf.dll";

template <typename Function>
Function Find(const wchar_t* library, const char* name) {
    return platform::win32::SystemFunction<Function>(library, name);
}

// MFStartup: "E_NOTIMPL: Media Foundation is not implemented on the system. This error can
// occur if the media components are not present". Every call gives that answer then.
constexpr HRESULT kNotPresent = E_NOTIMPL;

using StartupFunction = HRESULT(WINAPI*)(ULONG, DWORD);
using ShutdownFunction = HRESULT(WINAPI*)();
using CreateAttributesFunction = HRESULT(WINAPI*)(IMFAttributes**, UINT32);
using EnumDeviceSourcesFunction = HRESULT(WINAPI*)(IMFAttributes*, IMFActivate***, UINT32*);
using CreateDeviceSourceActivateFunction = HRESULT(WINAPI*)(IMFAttributes*, IMFActivate**);

}  // namespace

namespace platform::real {

HRESULT MFStartup(ULONG version, DWORD flags) {
    static const auto function = Find<StartupFunction>(kMfplat, "MFStartup");
    return function != nullptr ? function(version, flags) : kNotPresent;
}

HRESULT MFShutdown() {
    static const auto function = Find<ShutdownFunction>(kMfplat, "MFShutdown");
    return function != nullptr ? function() : kNotPresent;
}

HRESULT MFCreateAttributes(IMFAttributes** attributes, UINT32 initialSize) {
    static const auto function = Find<CreateAttributesFunction>(kMfplat, "MFCreateAttributes");
    if (attributes != nullptr) *attributes = nullptr;
    return function != nullptr ? function(attributes, initialSize) : kNotPresent;
}

HRESULT MFEnumDeviceSources(IMFAttributes* attributes, IMFActivate*** sources, UINT32* count) {
    static const auto function = Find<EnumDeviceSourcesFunction>(kMf, "MFEnumDeviceSources");
    if (function != nullptr) return function(rec::SystemObject(attributes), sources, count);
    if (sources != nullptr) *sources = nullptr;
    if (count != nullptr) *count = 0;
    return kNotPresent;
}

HRESULT MFCreateDeviceSourceActivate(IMFAttributes* attributes, IMFActivate** activate) {
    static const auto function =
        Find<CreateDeviceSourceActivateFunction>(kMf, "MFCreateDeviceSourceActivate");
    if (function != nullptr) return function(rec::SystemObject(attributes), activate);
    if (activate != nullptr) *activate = nullptr;
    return kNotPresent;
}

}  // namespace platform::real
