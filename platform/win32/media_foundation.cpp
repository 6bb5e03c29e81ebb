// Media Foundation, loaded when first called instead of imported.
//
// Windows N and KN editions without the Media Feature Pack, and Server without its media
// feature, have no mfplat.dll or mf.dll: with those as static imports the loader would refuse
// the whole program, recovery and settings included, which need no camera API. Here each
// call loads its DLL on first use; where it is missing the call fails, the enumeration finds
// no camera, and the rest of the program works.
//
// The functions carry the system's own names (the SDK headers declare them without
// dllimport), so the camera code calls them as it would the imported ones.
#include <windows.h>

#include "platform/mf.h"

namespace {

// LoadLibraryExW, LOAD_LIBRARY_SEARCH_SYSTEM32: "If this value is used, %windows%\system32
// is searched for the DLL and its dependencies. Directories in the standard search path are
// not searched." A DLL of the same name beside the program, or in the current directory,
// is never taken for the system's.
HMODULE SystemModule(const wchar_t* name) {
    return LoadLibraryExW(name, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
}

HMODULE Mfplat() {
    static const HMODULE module = SystemModule(L"mfplat.dll");
    return module;
}

HMODULE Mf() {
    static const HMODULE module = SystemModule(L"mf.dll");
    return module;
}

template <typename Function>
Function Find(HMODULE module, const char* name) {
    if (module == nullptr) return nullptr;
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
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

extern "C" {

HRESULT WINAPI MFStartup(ULONG version, DWORD flags) {
    static const auto function = Find<StartupFunction>(Mfplat(), "MFStartup");
    return function != nullptr ? function(version, flags) : kNotPresent;
}

HRESULT WINAPI MFShutdown() {
    static const auto function = Find<ShutdownFunction>(Mfplat(), "MFShutdown");
    return function != nullptr ? function() : kNotPresent;
}

HRESULT WINAPI MFCreateAttributes(IMFAttributes** attributes, UINT32 initialSize) {
    static const auto function = Find<CreateAttributesFunction>(Mfplat(), "MFCreateAttributes");
    if (attributes != nullptr) *attributes = nullptr;
    return function != nullptr ? function(attributes, initialSize) : kNotPresent;
}

HRESULT WINAPI MFEnumDeviceSources(IMFAttributes* attributes, IMFActivate*** sources,
                                   UINT32* count) {
    static const auto function = Find<EnumDeviceSourcesFunction>(Mf(), "MFEnumDeviceSources");
    if (function != nullptr) return function(attributes, sources, count);
    if (sources != nullptr) *sources = nullptr;
    if (count != nullptr) *count = 0;
    return kNotPresent;
}

HRESULT WINAPI MFCreateDeviceSourceActivate(IMFAttributes* attributes, IMFActivate** activate) {
    static const auto function =
        Find<CreateDeviceSourceActivateFunction>(Mf(), "MFCreateDeviceSourceActivate");
    if (function != nullptr) return function(attributes, activate);
    if (activate != nullptr) *activate = nullptr;
    return kNotPresent;
}

}  // extern "C"
