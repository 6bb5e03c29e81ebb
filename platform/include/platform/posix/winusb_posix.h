// SPDX-License-Identifier: Apache-2.0
// Stand-ins for CreateFileW and the WinUSB calls, served by the installed DeviceBackend.
#pragma once

#include <cstdint>

#include "platform/posix/files_posix.h"
#include "platform/posix/win_types.h"

using PULONG = ULONG*;
using WINUSB_INTERFACE_HANDLE = void*;
using PWINUSB_INTERFACE_HANDLE = WINUSB_INTERFACE_HANDLE*;

#pragma pack(push, 1)
struct WINUSB_SETUP_PACKET {
    UCHAR RequestType;
    UCHAR Request;
    USHORT Value;
    USHORT Index;
    USHORT Length;
};

struct USB_INTERFACE_DESCRIPTOR {
    UCHAR bLength;
    UCHAR bDescriptorType;
    UCHAR bInterfaceNumber;
    UCHAR bAlternateSetting;
    UCHAR bNumEndpoints;
    UCHAR bInterfaceClass;
    UCHAR bInterfaceSubClass;
    UCHAR bInterfaceProtocol;
    UCHAR iInterface;
};
#pragma pack(pop)
using PUSB_INTERFACE_DESCRIPTOR = USB_INTERFACE_DESCRIPTOR*;

BOOL WinUsb_Initialize(HANDLE deviceHandle, PWINUSB_INTERFACE_HANDLE interfaceHandle);
BOOL WinUsb_Free(WINUSB_INTERFACE_HANDLE interfaceHandle);
BOOL WinUsb_GetDescriptor(WINUSB_INTERFACE_HANDLE interfaceHandle, UCHAR descriptorType,
                          UCHAR index, USHORT languageId, PUCHAR buffer, ULONG bufferLength,
                          PULONG lengthTransferred);
BOOL WinUsb_QueryInterfaceSettings(WINUSB_INTERFACE_HANDLE interfaceHandle,
                                   UCHAR alternateInterfaceNumber,
                                   PUSB_INTERFACE_DESCRIPTOR descriptor);
BOOL WinUsb_GetAssociatedInterface(WINUSB_INTERFACE_HANDLE interfaceHandle,
                                   UCHAR associatedInterfaceIndex,
                                   PWINUSB_INTERFACE_HANDLE associatedHandle);
BOOL WinUsb_SetCurrentAlternateSetting(WINUSB_INTERFACE_HANDLE interfaceHandle,
                                       UCHAR settingNumber);
BOOL WinUsb_ControlTransfer(WINUSB_INTERFACE_HANDLE interfaceHandle,
                            WINUSB_SETUP_PACKET setupPacket, PUCHAR buffer, ULONG bufferLength,
                            PULONG lengthTransferred, LPOVERLAPPED overlapped);
