// SPDX-License-Identifier: Apache-2.0
// The system's own kernel32, advapi32, ole32 and user32 functions behind the recorded calls.
// The program's calls of these names reach platform/common/recorded_calls.cpp instead (the
// linker's --wrap, CMakeLists.txt), so the functions themselves are taken from their DLLs
// here, as the DLLs the program does not import are (system_library.cpp): all four are
// KnownDLLs, mapped from the system's copy whatever lies beside the program.
#include <windows.h>

#include "platform/common/real_calls.h"
#include "platform/win32/system_library.h"

namespace {

constexpr const wchar_t* kKernel32 = L"kernel32.dll";
constexpr const wchar_t* kAdvapi32 = L"advapi32.dll";
constexpr const wchar_t* kOle32 = L"ole32.dll";
constexpr const wchar_t* kUser32 = L"user32.dll";

// Calls `function`, or fails as the call fails when the system lacks it: `missing`, with
// ERROR_PROC_NOT_FOUND for GetLastError.
template <typename Function, typename Result, typename... Arguments>
Result Forward(Function function, Result missing, Arguments... arguments) {
    if (function != nullptr) return function(arguments...);
    SetLastError(ERROR_PROC_NOT_FOUND);
    return missing;
}

template <typename Function>
Function Find(const wchar_t* library, const char* name) {
    return platform::win32::SystemFunction<Function>(library, name);
}

}  // namespace

namespace platform::real {

HANDLE CreateFileW(LPCWSTR fileName, DWORD desiredAccess, DWORD shareMode,
                   LPSECURITY_ATTRIBUTES security, DWORD creationDisposition,
                   DWORD flagsAndAttributes, HANDLE templateFile) {
    static const auto function = Find<decltype(&::CreateFileW)>(kKernel32, "CreateFileW");
    return Forward(function, INVALID_HANDLE_VALUE, fileName, desiredAccess, shareMode, security,
                   creationDisposition, flagsAndAttributes, templateFile);
}

HANDLE CreateFileA(LPCSTR fileName, DWORD desiredAccess, DWORD shareMode,
                   LPSECURITY_ATTRIBUTES security, DWORD creationDisposition,
                   DWORD flagsAndAttributes, HANDLE templateFile) {
    static const auto function = Find<decltype(&::CreateFileA)>(kKernel32, "CreateFileA");
    return Forward(function, INVALID_HANDLE_VALUE, fileName, desiredAccess, shareMode, security,
                   creationDisposition, flagsAndAttributes, templateFile);
}

DWORD GetFileType(HANDLE file) {
    static const auto function = Find<decltype(&::GetFileType)>(kKernel32, "GetFileType");
    return Forward(function, DWORD{FILE_TYPE_UNKNOWN}, file);
}

BOOL GetFileInformationByHandle(HANDLE file, LPBY_HANDLE_FILE_INFORMATION information) {
    static const auto function =
        Find<decltype(&::GetFileInformationByHandle)>(kKernel32, "GetFileInformationByHandle");
    return Forward(function, BOOL{FALSE}, file, information);
}

BOOL GetFileSizeEx(HANDLE file, PLARGE_INTEGER size) {
    static const auto function = Find<decltype(&::GetFileSizeEx)>(kKernel32, "GetFileSizeEx");
    return Forward(function, BOOL{FALSE}, file, size);
}

BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead,
              LPOVERLAPPED overlapped) {
    static const auto function = Find<decltype(&::ReadFile)>(kKernel32, "ReadFile");
    return Forward(function, BOOL{FALSE}, file, buffer, bytesToRead, bytesRead, overlapped);
}

BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD bytesToWrite, LPDWORD bytesWritten,
               LPOVERLAPPED overlapped) {
    static const auto function = Find<decltype(&::WriteFile)>(kKernel32, "WriteFile");
    return Forward(function, BOOL{FALSE}, file, buffer, bytesToWrite, bytesWritten, overlapped);
}

BOOL CloseHandle(HANDLE handle) {
    static const auto function = Find<decltype(&::CloseHandle)>(kKernel32, "CloseHandle");
    return Forward(function, BOOL{FALSE}, handle);
}

HANDLE CreateEventW(LPSECURITY_ATTRIBUTES attributes, BOOL manualReset, BOOL initialState,
                    LPCWSTR name) {
    static const auto function = Find<decltype(&::CreateEventW)>(kKernel32, "CreateEventW");
    return Forward(function, HANDLE{nullptr}, attributes, manualReset, initialState, name);
}

BOOL SetEvent(HANDLE event) {
    static const auto function = Find<decltype(&::SetEvent)>(kKernel32, "SetEvent");
    return Forward(function, BOOL{FALSE}, event);
}

BOOL ResetEvent(HANDLE event) {
    static const auto function = Find<decltype(&::ResetEvent)>(kKernel32, "ResetEvent");
    return Forward(function, BOOL{FALSE}, event);
}

DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
    static const auto function =
        Find<decltype(&::WaitForSingleObject)>(kKernel32, "WaitForSingleObject");
    return Forward(function, WAIT_FAILED, handle, milliseconds);
}

void Sleep(DWORD milliseconds) {
    static const auto function = Find<decltype(&::Sleep)>(kKernel32, "Sleep");
    if (function != nullptr) function(milliseconds);
}

ULONGLONG GetTickCount64() {
    static const auto function = Find<decltype(&::GetTickCount64)>(kKernel32, "GetTickCount64");
    return Forward(function, ULONGLONG{0});
}

HWND GetConsoleWindow() {
    static const auto function = Find<decltype(&::GetConsoleWindow)>(kKernel32, "GetConsoleWindow");
    return Forward(function, HWND{nullptr});
}

LSTATUS RegCreateKeyExW(HKEY key, LPCWSTR subKey, DWORD reserved, LPWSTR keyClass, DWORD options,
                        REGSAM desired, LPSECURITY_ATTRIBUTES security, PHKEY result,
                        LPDWORD disposition) {
    static const auto function = Find<decltype(&::RegCreateKeyExW)>(kAdvapi32, "RegCreateKeyExW");
    return Forward(function, LSTATUS{ERROR_PROC_NOT_FOUND}, key, subKey, reserved, keyClass,
                   options, desired, security, result, disposition);
}

LSTATUS RegSetValueExW(HKEY key, LPCWSTR valueName, DWORD reserved, DWORD type, const BYTE* data,
                       DWORD size) {
    static const auto function = Find<decltype(&::RegSetValueExW)>(kAdvapi32, "RegSetValueExW");
    return Forward(function, LSTATUS{ERROR_PROC_NOT_FOUND}, key, valueName, reserved, type, data,
                   size);
}

LSTATUS RegCloseKey(HKEY key) {
    static const auto function = Find<decltype(&::RegCloseKey)>(kAdvapi32, "RegCloseKey");
    return Forward(function, LSTATUS{ERROR_PROC_NOT_FOUND}, key);
}

HRESULT CoInitializeEx(void* reserved, DWORD coInit) {
    static const auto function = Find<decltype(&::CoInitializeEx)>(kOle32, "CoInitializeEx");
    return Forward(function, HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND), reserved, coInit);
}

BOOL SetWindowPos(HWND window, HWND insertAfter, int x, int y, int cx, int cy, UINT flags) {
    static const auto function = Find<decltype(&::SetWindowPos)>(kUser32, "SetWindowPos");
    return Forward(function, BOOL{FALSE}, window, insertAfter, x, y, cx, cy, flags);
}

}  // namespace platform::real
