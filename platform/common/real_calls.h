// SPDX-License-Identifier: Apache-2.0
// The target's own calls: the POSIX stand-ins, or on Windows the system's functions. The
// names the program calls (platform/include) pass each call through
// platform/common/recorded_calls.cpp first, which may record it or answer it from a
// recording; these do the work.
#pragma once

#include <string>

#include "platform/cfgmgr.h"
#include "platform/files.h"
#include "platform/mf.h"
#include "platform/registry.h"
#include "platform/sync.h"
#include "platform/types.h"
#include "platform/winusb.h"

namespace platform::real {

HANDLE CreateFileW(LPCWSTR fileName, DWORD desiredAccess, DWORD shareMode,
                   LPSECURITY_ATTRIBUTES security, DWORD creationDisposition,
                   DWORD flagsAndAttributes, HANDLE templateFile);
HANDLE CreateFileA(LPCSTR fileName, DWORD desiredAccess, DWORD shareMode,
                   LPSECURITY_ATTRIBUTES security, DWORD creationDisposition,
                   DWORD flagsAndAttributes, HANDLE templateFile);
DWORD GetFileType(HANDLE file);
BOOL GetFileInformationByHandle(HANDLE file, LPBY_HANDLE_FILE_INFORMATION information);
BOOL GetFileSizeEx(HANDLE file, PLARGE_INTEGER size);
BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead,
              LPOVERLAPPED overlapped);
BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD bytesToWrite, LPDWORD bytesWritten,
               LPOVERLAPPED overlapped);

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

CONFIGRET CM_Get_Device_Interface_List_SizeW(PULONG length, LPGUID interfaceClass,
                                             DEVINSTID_W deviceId, ULONG flags);
CONFIGRET CM_Get_Device_Interface_ListW(LPGUID interfaceClass, DEVINSTID_W deviceId, PZZWSTR buffer,
                                        ULONG bufferLength, ULONG flags);
CONFIGRET RegisterInterfaceNotification(PCM_NOTIFY_FILTER filter, PVOID context,
                                        PCM_NOTIFY_CALLBACK callback,
                                        PHCMNOTIFICATION notification);
CONFIGRET UnregisterInterfaceNotification(HCMNOTIFICATION notification);

HANDLE CreateEventW(LPSECURITY_ATTRIBUTES attributes, BOOL manualReset, BOOL initialState,
                    LPCWSTR name);
BOOL SetEvent(HANDLE event);
BOOL ResetEvent(HANDLE event);
DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds);
BOOL CloseHandle(HANDLE handle);
void Sleep(DWORD milliseconds);
ULONGLONG GetTickCount64();

LSTATUS RegCreateKeyExW(HKEY key, LPCWSTR subKey, DWORD reserved, LPWSTR keyClass, DWORD options,
                        REGSAM desired, LPSECURITY_ATTRIBUTES security, PHKEY result,
                        LPDWORD disposition);
LSTATUS RegSetValueExW(HKEY key, LPCWSTR valueName, DWORD reserved, DWORD type, const BYTE* data,
                       DWORD size);
LSTATUS RegCloseKey(HKEY key);

HRESULT CoInitializeEx(void* reserved, DWORD coInit);
HRESULT MFStartup(ULONG version, DWORD flags);
HRESULT MFShutdown();
HRESULT MFCreateAttributes(IMFAttributes** attributes, UINT32 initialSize);
HRESULT MFEnumDeviceSources(IMFAttributes* attributes, IMFActivate*** sources, UINT32* count);
HRESULT MFCreateDeviceSourceActivate(IMFAttributes* attributes, IMFActivate** activate);

HWND GetConsoleWindow();
BOOL SetWindowPos(HWND window, HWND insertAfter, int x, int y, int cx, int cy, UINT flags);
void InitConsole();
void RestoreConsole();
bool ReadConsoleLine(std::string& line);
bool ConsoleInputEnded();
void ClearConsole();
void PauseConsole();
bool StreamIsTerminal(bool standardError);

void HoldInterrupts();
void ReleaseInterrupts();
bool InterruptKeptBack();
void EndByKeptBackInterrupt();

}  // namespace platform::real
