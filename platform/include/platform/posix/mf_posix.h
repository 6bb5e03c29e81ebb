// SPDX-License-Identifier: Apache-2.0
// The Media Foundation subset the camera code uses, for targets without Media Foundation.
// Methods keep the system's order within each interface; those the program never calls are
// left out.
#pragma once

#include <cstdint>

#include "platform/posix/com_posix.h"

using UINT32 = std::uint32_t;

inline constexpr GUID MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE = {
    0xC60AC5FE, 0x252A, 0x478F, {0xA0, 0xEF, 0xBC, 0x8F, 0xA5, 0xF7, 0xCA, 0xD3}};
inline constexpr GUID MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_GUID = {
    0x8AC3587A, 0x4AE7, 0x42D8, {0x99, 0xE0, 0x0A, 0x60, 0x13, 0xEE, 0xF9, 0x0F}};
inline constexpr GUID MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_CATEGORY = {
    0x77F0AE69, 0xC3BD, 0x4509, {0x94, 0x1D, 0x46, 0x7E, 0x4D, 0x24, 0x89, 0x9E}};
inline constexpr GUID MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_SYMBOLIC_LINK = {
    0x58F0AAD8, 0x22BF, 0x4F8A, {0xBB, 0x3D, 0xD2, 0xC4, 0x97, 0x8C, 0x6E, 0x2F}};
inline constexpr GUID MF_DEVSOURCE_ATTRIBUTE_FRIENDLY_NAME = {
    0x60D0E559, 0x52F8, 0x4FA2, {0xBB, 0xCE, 0xAC, 0xDB, 0x34, 0xA8, 0xEC, 0x01}};

inline constexpr IID IID_IMFAttributes = {
    0x2CD2D921, 0xC447, 0x44A7, {0xA1, 0x3C, 0x4A, 0xDA, 0xBF, 0xC2, 0x47, 0xE3}};
inline constexpr IID IID_IMFActivate = {
    0x7FEE9E9A, 0x4A89, 0x47A6, {0x89, 0x9C, 0xB6, 0xA5, 0x3A, 0x70, 0xFB, 0x67}};
inline constexpr IID IID_IMFMediaSource = {
    0x279A808D, 0xAEC7, 0x40C8, {0x9C, 0x6B, 0xA6, 0xB4, 0x92, 0xC7, 0x8A, 0x66}};

constexpr HRESULT MF_E_ATTRIBUTENOTFOUND = static_cast<HRESULT>(0xC00D36E6u);
constexpr HRESULT MF_E_SHUTDOWN = static_cast<HRESULT>(0xC00D3E85u);

struct IMFAttributes : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetGUID(REFGUID key, GUID* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetAllocatedString(REFGUID key, LPWSTR* value,
                                                         UINT32* length) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetGUID(REFGUID key, REFGUID value) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetString(REFGUID key, LPCWSTR value) = 0;

  protected:
    ~IMFAttributes() = default;
};

struct IMFActivate : public IMFAttributes {
    virtual HRESULT STDMETHODCALLTYPE ActivateObject(REFIID iid, void** object) = 0;

  protected:
    ~IMFActivate() = default;
};

struct IMFMediaSource : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE Shutdown() = 0;

  protected:
    ~IMFMediaSource() = default;
};

// Media Foundation's start-up and shut-down. Nothing behind the seam needs starting; the
// calls are here so that the program makes them on every target.
constexpr ULONG MF_VERSION = 0x00020070;
constexpr DWORD MFSTARTUP_NOSOCKET = 0x1;
constexpr DWORD MFSTARTUP_LITE = MFSTARTUP_NOSOCKET;
HRESULT MFStartup(ULONG version, DWORD flags);
HRESULT MFShutdown();

HRESULT MFCreateAttributes(IMFAttributes** attributes, UINT32 initialSize);
HRESULT MFEnumDeviceSources(IMFAttributes* attributes, IMFActivate*** sources, UINT32* count);
HRESULT MFCreateDeviceSourceActivate(IMFAttributes* attributes, IMFActivate** activate);
