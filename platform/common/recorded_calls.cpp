// SPDX-License-Identifier: Apache-2.0
// The calls as the program makes them, on every target: each names itself and its arguments
// to the recording seam, then runs the target's own call (platform/common/real_calls.h) or
// takes a recorded answer.
#include <memory>
#include <mutex>
#include <string>

#include "platform/common/call_record.h"
#include "platform/common/real_calls.h"
#include "platform/common/wide_stream.h"
#include "platform/console.h"
#include "platform/interrupts.h"

// The functions of the system's own DLLs (kernel32, advapi32, ole32, user32). On POSIX they
// are the stand-ins' names. On Windows the program's calls of them reach these through the
// linker (--wrap, platform/win32/CMakeLists.txt), and the system's function, found in the DLL
// itself, is platform::real's; the names Windows leaves to the program (WinUSB, the
// configuration manager, Media Foundation) are defined here as they are on POSIX.
#ifdef _WIN32
#define SYSTEM_CALL(Return, name) extern "C" Return WINAPI __wrap_##name
#else
#define SYSTEM_CALL(Return, name) Return name
#endif

namespace real = platform::real;
using platform::rec::Call;

SYSTEM_CALL(HANDLE, CreateFileW)
(LPCWSTR fileName, DWORD desiredAccess, DWORD shareMode, LPSECURITY_ATTRIBUTES security,
 DWORD creationDisposition, DWORD flagsAndAttributes, HANDLE templateFile) {
    Call call("CreateFileW");
    call.Wide("name", fileName).Int("access", desiredAccess).Int("share", shareMode);
    call.Int("disposition", creationDisposition).Int("flags", flagsAndAttributes);
    return call.Run([&] {
        return real::CreateFileW(fileName, desiredAccess, shareMode, security, creationDisposition,
                                 flagsAndAttributes, templateFile);
    });
}

SYSTEM_CALL(HANDLE, CreateFileA)
(LPCSTR fileName, DWORD desiredAccess, DWORD shareMode, LPSECURITY_ATTRIBUTES security,
 DWORD creationDisposition, DWORD flagsAndAttributes, HANDLE templateFile) {
    Call call("CreateFileA");
    call.Text("name", fileName ? fileName : "")
        .Int("access", desiredAccess)
        .Int("share", shareMode);
    call.Int("disposition", creationDisposition).Int("flags", flagsAndAttributes);
    return call.Run([&] {
        return real::CreateFileA(fileName, desiredAccess, shareMode, security, creationDisposition,
                                 flagsAndAttributes, templateFile);
    });
}

SYSTEM_CALL(DWORD, GetFileType)(HANDLE file) {
    Call call("GetFileType");
    call.Handle("file", file);
    return call.Run([&] { return real::GetFileType(file); });
}

SYSTEM_CALL(BOOL, GetFileInformationByHandle)
(HANDLE file, LPBY_HANDLE_FILE_INFORMATION information) {
    Call call("GetFileInformationByHandle");
    call.Handle("file", file).OutBytes("information", information, sizeof *information);
    return call.Run([&] { return real::GetFileInformationByHandle(file, information); });
}

SYSTEM_CALL(BOOL, GetFileSizeEx)(HANDLE file, PLARGE_INTEGER size) {
    Call call("GetFileSizeEx");
    call.Handle("file", file).OutInt("size", size ? &size->QuadPart : nullptr);
    return call.Run([&] { return real::GetFileSizeEx(file, size); });
}

SYSTEM_CALL(BOOL, ReadFile)
(HANDLE file, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead, LPOVERLAPPED overlapped) {
    Call call("ReadFile");
    call.Handle("file", file).Int("length", bytesToRead);
    call.OutBytes("data", buffer, bytesToRead, bytesRead).OutInt("read", bytesRead);
    return call.Run(
        [&] { return real::ReadFile(file, buffer, bytesToRead, bytesRead, overlapped); });
}

SYSTEM_CALL(BOOL, WriteFile)
(HANDLE file, LPCVOID buffer, DWORD bytesToWrite, LPDWORD bytesWritten, LPOVERLAPPED overlapped) {
    Call call("WriteFile");
    call.Handle("file", file).Bytes("data", buffer, bytesToWrite).OutInt("written", bytesWritten);
    return call.Run(
        [&] { return real::WriteFile(file, buffer, bytesToWrite, bytesWritten, overlapped); });
}

BOOL WinUsb_Initialize(HANDLE deviceHandle, PWINUSB_INTERFACE_HANDLE interfaceHandle) {
    Call call("WinUsb_Initialize");
    call.Handle("device", deviceHandle).OutHandle("interface", interfaceHandle);
    return call.Run([&] { return real::WinUsb_Initialize(deviceHandle, interfaceHandle); });
}

BOOL WinUsb_Free(WINUSB_INTERFACE_HANDLE interfaceHandle) {
    Call call("WinUsb_Free");
    call.Handle("interface", interfaceHandle);
    return call.Run([&] { return real::WinUsb_Free(interfaceHandle); });
}

BOOL WinUsb_GetDescriptor(WINUSB_INTERFACE_HANDLE interfaceHandle, UCHAR descriptorType,
                          UCHAR index, USHORT languageId, PUCHAR buffer, ULONG bufferLength,
                          PULONG lengthTransferred) {
    Call call("WinUsb_GetDescriptor");
    call.Handle("interface", interfaceHandle).Int("type", descriptorType).Int("index", index);
    call.Int("language", languageId).Int("length", bufferLength);
    call.OutBytes("data", buffer, bufferLength, lengthTransferred);
    call.OutInt("transferred", lengthTransferred);
    return call.Run([&] {
        return real::WinUsb_GetDescriptor(interfaceHandle, descriptorType, index, languageId,
                                          buffer, bufferLength, lengthTransferred);
    });
}

BOOL WinUsb_QueryInterfaceSettings(WINUSB_INTERFACE_HANDLE interfaceHandle,
                                   UCHAR alternateInterfaceNumber,
                                   PUSB_INTERFACE_DESCRIPTOR descriptor) {
    Call call("WinUsb_QueryInterfaceSettings");
    call.Handle("interface", interfaceHandle).Int("alternate", alternateInterfaceNumber);
    call.OutBytes("descriptor", descriptor, sizeof *descriptor);
    return call.Run([&] {
        return real::WinUsb_QueryInterfaceSettings(interfaceHandle, alternateInterfaceNumber,
                                                   descriptor);
    });
}

BOOL WinUsb_GetAssociatedInterface(WINUSB_INTERFACE_HANDLE interfaceHandle,
                                   UCHAR associatedInterfaceIndex,
                                   PWINUSB_INTERFACE_HANDLE associatedHandle) {
    Call call("WinUsb_GetAssociatedInterface");
    call.Handle("interface", interfaceHandle).Int("index", associatedInterfaceIndex);
    call.OutHandle("associated", associatedHandle);
    return call.Run([&] {
        return real::WinUsb_GetAssociatedInterface(interfaceHandle, associatedInterfaceIndex,
                                                   associatedHandle);
    });
}

BOOL WinUsb_SetCurrentAlternateSetting(WINUSB_INTERFACE_HANDLE interfaceHandle,
                                       UCHAR settingNumber) {
    Call call("WinUsb_SetCurrentAlternateSetting");
    call.Handle("interface", interfaceHandle).Int("setting", settingNumber);
    return call.Run(
        [&] { return real::WinUsb_SetCurrentAlternateSetting(interfaceHandle, settingNumber); });
}

BOOL WinUsb_ControlTransfer(WINUSB_INTERFACE_HANDLE interfaceHandle,
                            WINUSB_SETUP_PACKET setupPacket, PUCHAR buffer, ULONG bufferLength,
                            PULONG lengthTransferred, LPOVERLAPPED overlapped) {
    Call call("WinUsb_ControlTransfer");
    call.Handle("interface", interfaceHandle).Bytes("setup", &setupPacket, sizeof setupPacket);
    const bool toHost = (setupPacket.RequestType & 0x80) != 0;
    if (toHost) {
        call.Int("length", bufferLength).OutBytes("data", buffer, bufferLength, lengthTransferred);
    } else {
        call.Bytes("data", buffer, bufferLength);
    }
    call.OutInt("transferred", lengthTransferred);
    return call.Run([&] {
        return real::WinUsb_ControlTransfer(interfaceHandle, setupPacket, buffer, bufferLength,
                                            lengthTransferred, overlapped);
    });
}

CONFIGRET CM_Get_Device_Interface_List_SizeW(PULONG length, LPGUID interfaceClass,
                                             DEVINSTID_W deviceId, ULONG flags) {
    Call call("CM_Get_Device_Interface_List_SizeW");
    call.Guid("class", interfaceClass).Wide("device", deviceId).Int("flags", flags);
    call.OutInt("length", length);
    return call.Run([&] {
        return real::CM_Get_Device_Interface_List_SizeW(length, interfaceClass, deviceId, flags);
    });
}

CONFIGRET CM_Get_Device_Interface_ListW(LPGUID interfaceClass, DEVINSTID_W deviceId, PZZWSTR buffer,
                                        ULONG bufferLength, ULONG flags) {
    Call call("CM_Get_Device_Interface_ListW");
    call.Guid("class", interfaceClass).Wide("device", deviceId).Int("length", bufferLength);
    call.Int("flags", flags).OutWideList("list", buffer, bufferLength);
    return call.Run([&] {
        return real::CM_Get_Device_Interface_ListW(interfaceClass, deviceId, buffer, bufferLength,
                                                   flags);
    });
}

SYSTEM_CALL(HANDLE, CreateEventW)
(LPSECURITY_ATTRIBUTES attributes, BOOL manualReset, BOOL initialState, LPCWSTR name) {
    Call call("CreateEventW");
    call.Int("manualReset", manualReset).Int("initialState", initialState).Wide("name", name);
    return call.Run(
        [&] { return real::CreateEventW(attributes, manualReset, initialState, name); });
}

SYSTEM_CALL(BOOL, SetEvent)(HANDLE event) {
    Call call("SetEvent");
    call.Handle("event", event);
    return call.Run([&] { return real::SetEvent(event); });
}

SYSTEM_CALL(BOOL, ResetEvent)(HANDLE event) {
    Call call("ResetEvent");
    call.Handle("event", event);
    return call.Run([&] { return real::ResetEvent(event); });
}

SYSTEM_CALL(DWORD, WaitForSingleObject)(HANDLE handle, DWORD milliseconds) {
    Call call("WaitForSingleObject");
    call.Handle("handle", handle).Int("ms", milliseconds);
    return call.Run([&] { return real::WaitForSingleObject(handle, milliseconds); });
}

SYSTEM_CALL(BOOL, CloseHandle)(HANDLE handle) {
    Call call("CloseHandle");
    call.Handle("handle", handle);
    return call.Run([&] { return real::CloseHandle(handle); });
}

SYSTEM_CALL(void, Sleep)(DWORD milliseconds) {
    Call call("Sleep");
    call.Int("ms", milliseconds);
    call.Run([&] { real::Sleep(milliseconds); });
}

SYSTEM_CALL(ULONGLONG, GetTickCount64)() {
    Call call("GetTickCount64");
    return call.Run([] { return real::GetTickCount64(); });
}

SYSTEM_CALL(LSTATUS, RegCreateKeyExW)
(HKEY key, LPCWSTR subKey, DWORD reserved, LPWSTR keyClass, DWORD options, REGSAM desired,
 LPSECURITY_ATTRIBUTES security, PHKEY result, LPDWORD disposition) {
    Call call("RegCreateKeyExW");
    call.Handle("key", key).Wide("subKey", subKey).Int("options", options).Int("desired", desired);
    call.OutHandle("result", reinterpret_cast<void**>(result)).OutInt("disposition", disposition);
    return call.Run([&] {
        return real::RegCreateKeyExW(key, subKey, reserved, keyClass, options, desired, security,
                                     result, disposition);
    });
}

SYSTEM_CALL(LSTATUS, RegSetValueExW)
(HKEY key, LPCWSTR valueName, DWORD reserved, DWORD type, const BYTE* data, DWORD size) {
    Call call("RegSetValueExW");
    call.Handle("key", key).Wide("name", valueName).Int("type", type).Bytes("data", data, size);
    return call.Run(
        [&] { return real::RegSetValueExW(key, valueName, reserved, type, data, size); });
}

SYSTEM_CALL(LSTATUS, RegCloseKey)(HKEY key) {
    Call call("RegCloseKey");
    call.Handle("key", key);
    return call.Run([&] { return real::RegCloseKey(key); });
}

SYSTEM_CALL(HRESULT, CoInitializeEx)(void* reserved, DWORD coInit) {
    Call call("CoInitializeEx");
    call.Int("coInit", coInit);
    return call.Run([&] { return real::CoInitializeEx(reserved, coInit); });
}

HRESULT MFStartup(ULONG version, DWORD flags) {
    Call call("MFStartup");
    call.Int("version", version).Int("flags", flags);
    return call.Run([&] { return real::MFStartup(version, flags); });
}

HRESULT MFShutdown() {
    Call call("MFShutdown");
    return call.Run([] { return real::MFShutdown(); });
}

HRESULT MFCreateAttributes(IMFAttributes** attributes, UINT32 initialSize) {
    Call call("MFCreateAttributes");
    call.Int("size", initialSize);
    call.OutObject("attributes", reinterpret_cast<void**>(attributes), IID_IMFAttributes);
    return call.Run([&] { return real::MFCreateAttributes(attributes, initialSize); });
}

HRESULT MFEnumDeviceSources(IMFAttributes* attributes, IMFActivate*** sources, UINT32* count) {
    Call call("MFEnumDeviceSources");
    call.Object("attributes", attributes);
    call.OutObjects("sources", reinterpret_cast<void***>(sources), count, IID_IMFActivate);
    return call.Run([&] { return real::MFEnumDeviceSources(attributes, sources, count); });
}

HRESULT MFCreateDeviceSourceActivate(IMFAttributes* attributes, IMFActivate** activate) {
    Call call("MFCreateDeviceSourceActivate");
    call.Object("attributes", attributes);
    call.OutObject("activate", reinterpret_cast<void**>(activate), IID_IMFActivate);
    return call.Run([&] { return real::MFCreateDeviceSourceActivate(attributes, activate); });
}

SYSTEM_CALL(HWND, GetConsoleWindow)() {
    Call call("GetConsoleWindow");
    return call.Run([] { return real::GetConsoleWindow(); });
}

SYSTEM_CALL(BOOL, SetWindowPos)
(HWND window, HWND insertAfter, int x, int y, int cx, int cy, UINT flags) {
    Call call("SetWindowPos");
    call.Handle("window", window).Handle("insertAfter", insertAfter).Int("x", x).Int("y", y);
    call.Int("cx", cx).Int("cy", cy).Int("flags", flags);
    return call.Run([&] { return real::SetWindowPos(window, insertAfter, x, y, cx, cy, flags); });
}

namespace platform {

namespace {

// A notification as the program registered it, so that the recording sees each callback.
struct Registration {
    PVOID context;
    PCM_NOTIFY_CALLBACK callback;
    std::int64_t id = 0;
};

DWORD CALLBACK RecordedNotification(HCMNOTIFICATION notification, PVOID context,
                                    CM_NOTIFY_ACTION action, PCM_NOTIFY_EVENT_DATA eventData,
                                    DWORD eventDataSize) {
    auto* registration = static_cast<Registration*>(context);
    rec::Tap* tap = rec::CurrentTap();
    if (tap == nullptr || tap->Replays()) {
        return registration->callback(notification, registration->context, action, eventData,
                                      eventDataSize);
    }
    std::string arguments =
        "{\"notification\":" + std::to_string(registration->id) +
        ",\"action\":" + std::to_string(static_cast<int>(action)) + ",\"filterType\":" +
        std::to_string(eventData ? static_cast<int>(eventData->FilterType) : -1) + ",\"class\":\"";
    if (eventData != nullptr) {
        arguments += rec::GuidText(eventData->u.DeviceInterface.ClassGuid) + "\",\"link\":";
        rec::AppendJsonString(arguments, WideToUtf8(eventData->u.DeviceInterface.SymbolicLink));
    } else {
        arguments += "\",\"link\":null";
    }
    arguments += "}";
    DWORD answer = 0;
    rec::CallbackThread counted;
    tap->Event(arguments, [&] {
        answer = registration->callback(notification, registration->context, action, eventData,
                                        eventDataSize);
    });
    return answer;
}

std::mutex registrationLock;
std::vector<std::unique_ptr<Registration>> registrations;

}  // namespace

CONFIGRET RegisterInterfaceNotification(PCM_NOTIFY_FILTER filter, PVOID context,
                                        PCM_NOTIFY_CALLBACK callback,
                                        PHCMNOTIFICATION notification) {
    Call call("RegisterInterfaceNotification");
    call.Int("filterType", filter ? static_cast<int>(filter->FilterType) : -1);
    call.Guid("class", filter ? &filter->u.DeviceInterface.ClassGuid : nullptr);
    call.OutHandle("notification", reinterpret_cast<void**>(notification));
    if (!call.Active())
        return real::RegisterInterfaceNotification(filter, context, callback, notification);
    rec::Tap* tap = rec::CurrentTap();
    if (tap->Replays()) {
        const CONFIGRET result = call.Run([] { return CONFIGRET{}; });
        if (result == CR_SUCCESS && notification != nullptr && *notification != nullptr) {
            tap->Registered(rec::HandleId(*notification, nullptr), context, callback);
        }
        return result;
    }
    auto registration = std::make_unique<Registration>(Registration{context, callback});
    Registration* made = registration.get();
    {
        std::lock_guard lock(registrationLock);
        registrations.push_back(std::move(registration));
    }
    const CONFIGRET result = call.Run([&] {
        return real::RegisterInterfaceNotification(filter, made, &RecordedNotification,
                                                   notification);
    });
    if (notification != nullptr && *notification != nullptr)
        made->id = rec::HandleId(*notification, nullptr);
    return result;
}

CONFIGRET UnregisterInterfaceNotification(HCMNOTIFICATION notification) {
    Call call("UnregisterInterfaceNotification");
    call.Handle("notification", notification);
    const std::int64_t id = rec::HandleId(notification, nullptr);
    const CONFIGRET result =
        call.Run([&] { return real::UnregisterInterfaceNotification(notification); });
    // No callback of it runs once the system's call has returned: its record can go.
    if (call.Active() && !rec::CurrentTap()->Replays() && result == CR_SUCCESS) {
        std::lock_guard lock(registrationLock);
        std::erase_if(registrations, [id](const auto& made) { return made->id == id; });
    }
    return result;
}

void InitConsole() {
    Call call("InitConsole");
    call.Run([] { real::InitConsole(); });
}

void RestoreConsole() {
    Call call("RestoreConsole");
    call.Run([] { real::RestoreConsole(); });
}

bool ReadConsoleLine(std::string& line) {
    Call call("ReadConsoleLine");
    call.OutText("line", &line);
    return call.Run([&] { return real::ReadConsoleLine(line); });
}

bool ConsoleInputEnded() {
    Call call("ConsoleInputEnded");
    return call.Run([] { return real::ConsoleInputEnded(); });
}

void ClearConsole() {
    Call call("ClearConsole");
    call.Run([] { real::ClearConsole(); });
}

void PauseConsole() {
    Call call("PauseConsole");
    call.Run([] { real::PauseConsole(); });
}

bool StreamIsTerminal(bool standardError) {
    Call call("StreamIsTerminal");
    call.Int("standardError", standardError);
    return call.Run([&] { return real::StreamIsTerminal(standardError); });
}

InterruptHold::InterruptHold() {
    Call call("InterruptHold");
    call.Run([] { real::HoldInterrupts(); });
}

InterruptHold::~InterruptHold() {
    Call call("InterruptRelease");
    call.Run([] { real::ReleaseInterrupts(); });
}

bool InterruptKeptBack() {
    Call call("InterruptKeptBack");
    return call.Run([] { return real::InterruptKeptBack(); });
}

void EndByKeptBackInterrupt() {
    // Recorded before it runs: when it ends the process, it does not come back.
    bool replayed = false;
    {
        Call call("EndByKeptBackInterrupt");
        replayed = call.Active() && rec::CurrentTap()->Replays();
        call.Run([] {});
    }
    if (!replayed) real::EndByKeptBackInterrupt();
}

}  // namespace platform
