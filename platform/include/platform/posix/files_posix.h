// SPDX-License-Identifier: Apache-2.0
// Stand-ins for the file calls. A name in the device namespace (\\?\ or \\.\) is one of the
// backend's USB devices; any other name is a file of this machine, opened as the Windows
// call would open it.
#pragma once

#include <cstdint>

#include "platform/posix/win_types.h"

using LONGLONG = std::int64_t;
using LPCSTR = const char*;
using LPDWORD = DWORD*;
using LPCVOID = const void*;

union LARGE_INTEGER {
    struct {
        DWORD LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
};
using PLARGE_INTEGER = LARGE_INTEGER*;

struct FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
};

struct BY_HANDLE_FILE_INFORMATION {
    DWORD dwFileAttributes;
    FILETIME ftCreationTime;
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    DWORD dwVolumeSerialNumber;
    DWORD nFileSizeHigh;
    DWORD nFileSizeLow;
    DWORD nNumberOfLinks;
    DWORD nFileIndexHigh;
    DWORD nFileIndexLow;
};
using LPBY_HANDLE_FILE_INFORMATION = BY_HANDLE_FILE_INFORMATION*;

constexpr DWORD GENERIC_READ = 0x80000000u;
constexpr DWORD GENERIC_WRITE = 0x40000000u;
constexpr DWORD FILE_SHARE_READ = 0x1;
constexpr DWORD FILE_SHARE_WRITE = 0x2;
constexpr DWORD CREATE_ALWAYS = 2;
constexpr DWORD OPEN_EXISTING = 3;
constexpr DWORD FILE_ATTRIBUTE_DIRECTORY = 0x10;
constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x80;
constexpr DWORD FILE_FLAG_OVERLAPPED = 0x40000000u;
constexpr DWORD FILE_FLAG_BACKUP_SEMANTICS = 0x02000000u;

constexpr DWORD FILE_TYPE_UNKNOWN = 0;
constexpr DWORD FILE_TYPE_DISK = 1;
constexpr DWORD FILE_TYPE_CHAR = 2;
constexpr DWORD FILE_TYPE_PIPE = 3;

constexpr DWORD NO_ERROR = 0;
constexpr DWORD ERROR_INVALID_FUNCTION = 1;
constexpr DWORD ERROR_TOO_MANY_OPEN_FILES = 4;
constexpr DWORD ERROR_WRITE_PROTECT = 19;
constexpr DWORD ERROR_HANDLE_DISK_FULL = 39;
constexpr DWORD ERROR_FILENAME_EXCED_RANGE = 206;
constexpr DWORD ERROR_CANT_RESOLVE_FILENAME = 1921;

HANDLE CreateFileW(LPCWSTR fileName, DWORD desiredAccess, DWORD shareMode,
                   LPSECURITY_ATTRIBUTES security, DWORD creationDisposition,
                   DWORD flagsAndAttributes, HANDLE templateFile);
// The name's bytes as they are: this system's file names are bytes.
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

namespace platform::posix {

// Opens a file of this machine by its bytes, as CreateFile opens a file: never waits for
// another program (no pipe writer, no terminal), refuses a folder, maps errno to the error
// codes.
HANDLE OpenLocalFile(const char* name, DWORD desiredAccess, DWORD creationDisposition);

}  // namespace platform::posix
