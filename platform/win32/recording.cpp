// SPDX-License-Identifier: Apache-2.0
// The recording's file. The program runs elevated, and the name comes from the command line
// of an operator who may be writing into a folder that other users can write too: the file
// must be the operator's own, a file on disk, and never something else the name leads to.
#include "platform/recording.h"

#include <windows.h>

#include <sddl.h>

#include <algorithm>
#include <memory>
#include <string>

#include "platform/common/call_record.h"
#include "platform/common/real_calls.h"
#include "platform/common/wide_stream.h"

namespace {

// The security descriptor of a new recording: the operator's account alone, nothing inherited
// from the folder (a recording holds device paths, serial numbers and every answer typed).
// Null, with the folder's rules, when the account cannot be read.
PSECURITY_DESCRIPTOR OperatorOnly() {
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) return nullptr;
    alignas(TOKEN_USER) unsigned char buffer[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
    DWORD size = 0;
    const bool known = GetTokenInformation(token, TokenUser, buffer, sizeof buffer, &size);
    platform::real::CloseHandle(token);
    if (!known) return nullptr;
    LPWSTR sid = nullptr;
    if (!ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid, &sid))
        return nullptr;
    // "D:P": a protected DACL, which inherits no entry; FA: all access to the file.
    const std::wstring text = L"D:P(A;;FA;;;" + std::wstring(sid) + L")";
    LocalFree(sid);
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(text.c_str(), SDDL_REVISION_1,
                                                              &descriptor, nullptr)) {
        return nullptr;
    }
    return descriptor;
}

// Opens the recording for writing, empty, created if it was not there. Refused: anything but
// a file on disk, and a reparse point (a symbolic link or a junction another user planted
// under that name), which is never followed.
HANDLE OpenRecording(const std::wstring& name, std::string& problem) {
    // A new file first. CREATE_NEW: "Creates a new file, only if it does not already exist.
    // If the specified file exists, the function fails": whatever already bears the name,
    // a link included, is left alone, and nothing is followed.
    SECURITY_ATTRIBUTES security{sizeof security, OperatorOnly(), FALSE};
    // No sharing for writing: FILE_SHARE_READ alone lets the operator watch the file grow,
    // and no other process write into it.
    HANDLE file =
        platform::real::CreateFileW(name.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &security,
                                    CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (security.lpSecurityDescriptor != nullptr) LocalFree(security.lpSecurityDescriptor);
    if (file == INVALID_HANDLE_VALUE && GetLastError() == ERROR_FILE_EXISTS) {
        // CREATE_ALWAYS would overwrite what is there, but through a link it overwrites the
        // link's target: "If FILE_FLAG_OPEN_REPARSE_POINT is not specified ... If
        // CREATE_ALWAYS, TRUNCATE_EXISTING, or FILE_FLAG_DELETE_ON_CLOSE are specified, the
        // file affected is the target" (Symbolic Link Effects on File Systems Functions), and
        // FILE_FLAG_OPEN_REPARSE_POINT "cannot be used with the CREATE_ALWAYS flag"
        // (CreateFileW). So the name itself is opened, never what it points to ("Normal
        // reparse point processing will not occur; CreateFile will attempt to open the
        // reparse point"), checked, and only then emptied.
        file = platform::real::CreateFileW(name.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                           OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    }
    if (file == INVALID_HANDLE_VALUE) {
        problem = "cannot create the file (error " + std::to_string(GetLastError()) + ")";
        return INVALID_HANDLE_VALUE;
    }
    // GetFileType: FILE_TYPE_DISK, "The specified file is a disk file"; a device (NUL, CON,
    // COM1) or a pipe opened by its name is refused.
    if (platform::real::GetFileType(file) != FILE_TYPE_DISK) {
        platform::real::CloseHandle(file);
        problem = "not a file on disk";
        return INVALID_HANDLE_VALUE;
    }
    BY_HANDLE_FILE_INFORMATION information{};
    if (!platform::real::GetFileInformationByHandle(file, &information)) {
        problem = "cannot tell what the file is (error " + std::to_string(GetLastError()) + ")";
        platform::real::CloseHandle(file);
        return INVALID_HANDLE_VALUE;
    }
    if ((information.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        platform::real::CloseHandle(file);
        problem = "a link or other reparse point, not a file";
        return INVALID_HANDLE_VALUE;
    }
    if (!SetEndOfFile(file)) {
        problem = "cannot empty the file (error " + std::to_string(GetLastError()) + ")";
        platform::real::CloseHandle(file);
        return INVALID_HANDLE_VALUE;
    }
    return file;
}

}  // namespace

namespace platform {

bool StartRecording(const std::string& path, const std::string& program, const std::string& version,
                    const std::vector<std::string>& arguments, const std::string& platformName,
                    std::string& problem) {
    const HANDLE file = OpenRecording(Utf8ToWide(path), problem);
    if (file == INVALID_HANDLE_VALUE) return false;
    // Closed with the recorder, once the last line is written. The system's WriteFile itself:
    // the recorded one would record the recording.
    const std::shared_ptr<void> owned(file, [](HANDLE handle) { real::CloseHandle(handle); });
    auto sink = [owned, file](std::string_view line) {
        while (!line.empty()) {
            DWORD written = 0;
            const auto size = static_cast<DWORD>(std::min<std::size_t>(line.size(), 1u << 20));
            if (!real::WriteFile(file, line.data(), size, &written, nullptr) || written == 0) {
                return;  // a full disk ends the recording, not the program
            }
            line.remove_prefix(written);
        }
    };
    rec::InstallTap(rec::MakeRecorder(sink, program, version,
                                      platformName.empty() ? "windows" : platformName, arguments));
    rec::TapStandardStreams();
    return true;
}

}  // namespace platform
