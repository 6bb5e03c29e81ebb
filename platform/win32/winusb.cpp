// SPDX-License-Identifier: Apache-2.0
// WinUSB, loaded from system32 when first called instead of imported: winusb.dll is not a
// KnownDLL, so an import would be looked for beside the program first. The functions carry
// the system's own names (winusb.h declares them without dllimport), so the DFU code calls
// them as it would the imported ones; those names record the call
// (platform/common/recorded_calls.cpp) and come here. Where the DLL or a function is missing the
// call fails as WinUSB calls fail, FALSE with the reason in GetLastError, and the step that needed
// it reports that.
#include <windows.h>

#include "platform/common/real_calls.h"
#include "platform/win32/system_library.h"
#include "platform/winusb.h"

namespace {

constexpr const wchar_t* kWinUsb = L"winusb.dll";

template <typename Function>
Function Find(const char* name) {
    return platform::win32::SystemFunction<Function>(kWinUsb, name);
}

BOOL Missing() {
    SetLastError(platform::win32::MissingError(kWinUsb));
    return FALSE;
}

}  // namespace

namespace platform::real {

BOOL WinUsb_Initialize(HANDLE device, PWINUSB_INTERFACE_HANDLE interfaceHandle) {
    static const auto function = Find<decltype(&::WinUsb_Initialize)>("WinUsb_Initialize");
    if (function != nullptr) return function(device, interfaceHandle);
    if (interfaceHandle != nullptr) *interfaceHandle = nullptr;
    return Missing();
}

BOOL WinUsb_Free(WINUSB_INTERFACE_HANDLE interfaceHandle) {
    static const auto function = Find<decltype(&::WinUsb_Free)>("WinUsb_Free");
    return function != nullptr ? function(interfaceHandle) : Missing();
}

BOOL WinUsb_GetDescriptor(WINUSB_INTERFACE_HANDLE interfaceHandle, UCHAR type, UCHAR index,
                          USHORT language, PUCHAR buffer, ULONG length, PULONG transferred) {
    static const auto function = Find<decltype(&::WinUsb_GetDescriptor)>("WinUsb_GetDescriptor");
    if (function != nullptr)
        return function(interfaceHandle, type, index, language, buffer, length, transferred);
    if (transferred != nullptr) *transferred = 0;
    return Missing();
}

BOOL WinUsb_QueryInterfaceSettings(WINUSB_INTERFACE_HANDLE interfaceHandle, UCHAR alternate,
                                   PUSB_INTERFACE_DESCRIPTOR descriptor) {
    static const auto function =
        Find<decltype(&::WinUsb_QueryInterfaceSettings)>("WinUsb_QueryInterfaceSettings");
    return function != nullptr ? function(interfaceHandle, alternate, descriptor) : Missing();
}

BOOL WinUsb_GetAssociatedInterface(WINUSB_INTERFACE_HANDLE interfaceHandle, UCHAR index,
                                   PWINUSB_INTERFACE_HANDLE associated) {
    static const auto function =
        Find<decltype(&::WinUsb_GetAssociatedInterface)>("WinUsb_GetAssociatedInterface");
    if (function != nullptr) return function(interfaceHandle, index, associated);
    if (associated != nullptr) *associated = nullptr;
    return Missing();
}

BOOL WinUsb_SetCurrentAlternateSetting(WINUSB_INTERFACE_HANDLE interfaceHandle, UCHAR setting) {
    static const auto function =
        Find<decltype(&::WinUsb_SetCurrentAlternateSetting)>("WinUsb_SetCurrentAlternateSetting");
    return function != nullptr ? function(interfaceHandle, setting) : Missing();
}

BOOL WinUsb_ControlTransfer(WINUSB_INTERFACE_HANDLE interfaceHandle, WINUSB_SETUP_PACKET packet,
                            PUCHAR buffer, ULONG length, PULONG transferred,
                            LPOVERLAPPED overlapped) {
    static const auto function =
        Find<decltype(&::WinUsb_ControlTransfer)>("WinUsb_ControlTransfer");
    if (function != nullptr)
        return function(interfaceHandle, packet, buffer, length, transferred, overlapped);
    if (transferred != nullptr) *transferred = 0;
    return Missing();
}

}  // namespace platform::real
