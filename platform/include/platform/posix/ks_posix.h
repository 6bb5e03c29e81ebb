// SPDX-License-Identifier: Apache-2.0
// The kernel-streaming subset the camera code uses, for targets without kernel streaming.
// Methods keep the system's order within each interface; those the program never calls are
// left out.
#pragma once

#include "platform/posix/com_posix.h"

inline constexpr GUID KSCATEGORY_SENSOR_CAMERA = {
    0x24E552D7, 0x6523, 0x47F7, {0xA6, 0x47, 0xD3, 0x46, 0x5B, 0xF1, 0xF5, 0xCA}};
inline constexpr GUID KSNODETYPE_DEV_SPECIFIC = {
    0x941C7AC0, 0xC559, 0x11D0, {0x8A, 0x2B, 0x00, 0xA0, 0xC9, 0x25, 0x5A, 0xC1}};
// Node types of a video device's topology, as the platform's ksmedia.h names them.
inline constexpr GUID KSNODETYPE_VIDEO_STREAMING = {
    0xDFF229E1, 0xF70F, 0x11D0, {0xB9, 0x17, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
inline constexpr GUID KSNODETYPE_VIDEO_INPUT_TERMINAL = {
    0xDFF229E2, 0xF70F, 0x11D0, {0xB9, 0x17, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
inline constexpr GUID KSNODETYPE_VIDEO_OUTPUT_TERMINAL = {
    0xDFF229E3, 0xF70F, 0x11D0, {0xB9, 0x17, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
inline constexpr GUID KSNODETYPE_VIDEO_SELECTOR = {
    0xDFF229E4, 0xF70F, 0x11D0, {0xB9, 0x17, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
inline constexpr GUID KSNODETYPE_VIDEO_PROCESSING = {
    0xDFF229E5, 0xF70F, 0x11D0, {0xB9, 0x17, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
inline constexpr GUID KSNODETYPE_VIDEO_CAMERA_TERMINAL = {
    0xDFF229E6, 0xF70F, 0x11D0, {0xB9, 0x17, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
inline constexpr IID IID_IKsTopologyInfo = {
    0x720D4AC0, 0x7533, 0x11D0, {0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00}};
inline constexpr IID IID_IKsControl = {
    0x28F54685, 0x06FD, 0x11D2, {0xB2, 0x7A, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}};

constexpr ULONG KSPROPERTY_TYPE_GET = 0x00000001;
constexpr ULONG KSPROPERTY_TYPE_SET = 0x00000002;
constexpr ULONG KSPROPERTY_TYPE_SETSUPPORT = 0x00000100;
constexpr ULONG KSPROPERTY_TYPE_TOPOLOGY = 0x10000000;

// The system's identifier is a union with a 64-bit member, hence the alignment.
struct alignas(8) KSIDENTIFIER {
    GUID Set;
    ULONG Id;
    ULONG Flags;
};
using KSPROPERTY = KSIDENTIFIER;
using KSMETHOD = KSIDENTIFIER;
using KSEVENT = KSIDENTIFIER;
using PKSPROPERTY = KSPROPERTY*;
using PKSMETHOD = KSMETHOD*;
using PKSEVENT = KSEVENT*;

struct KSP_NODE {
    KSPROPERTY Property;
    ULONG NodeId;
    ULONG Reserved;
};

static_assert(sizeof(KSPROPERTY) == 24 && sizeof(KSP_NODE) == 32);

struct IKsControl : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE KsProperty(PKSPROPERTY property, ULONG propertyLength,
                                                 LPVOID data, ULONG dataLength,
                                                 ULONG* bytesReturned) = 0;
    virtual HRESULT STDMETHODCALLTYPE KsMethod(PKSMETHOD method, ULONG methodLength, LPVOID data,
                                               ULONG dataLength, ULONG* bytesReturned) = 0;
    virtual HRESULT STDMETHODCALLTYPE KsEvent(PKSEVENT event, ULONG eventLength, LPVOID data,
                                              ULONG dataLength, ULONG* bytesReturned) = 0;

  protected:
    ~IKsControl() = default;
};

struct IKsTopologyInfo : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE get_NumNodes(DWORD* count) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_NodeType(DWORD node, GUID* type) = 0;
    virtual HRESULT STDMETHODCALLTYPE CreateNodeInstance(DWORD node, REFIID iid, void** object) = 0;

  protected:
    ~IKsTopologyInfo() = default;
};
