// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/settings_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "platform/common/wide_stream.h"
#include "platform/linux/sysfs.h"
#include "platform/registry.h"

namespace platform::linux_hw {
namespace {

constexpr mode_t kDirectoryMode = 0700;  // the value steers a system service: root only
constexpr mode_t kFileMode = 0600;

// A registry name as one path component: anything but separators and the dot names.
std::optional<std::string> Component(const std::wstring& name) {
    if (name.empty() || name == L"." || name == L"..") return std::nullopt;
    std::string out;
    for (wchar_t c : name) {
        if (c == L'/' || c == L'\0' || c < 0x20 || c > 0x7E) return std::nullopt;
        out.push_back(static_cast<char>(c));
    }
    return out;
}

// Directories above the store (/var/lib on a system that lacks it) are ordinary system
// folders that others must be able to pass through.
constexpr mode_t kParentMode = 0755;

ErrorCode MakeDirectory(const std::string& path, mode_t mode) {
    if (path.empty() || ::mkdir(path.c_str(), mode) == 0 || errno == EEXIST) return ERROR_SUCCESS;
    return ErrorFromErrno(errno);
}

// A rename is durable only once the directory that holds the name is on disk.
int SyncDirectory(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return errno;
    const int error = ::fsync(fd) == 0 ? 0 : errno;
    ::close(fd);
    return error;
}

}  // namespace

std::optional<std::string> SettingsStore::KeyDirectory(const std::wstring& keyPath) const {
    std::string directory = root_;
    std::size_t start = 0;
    while (start <= keyPath.size()) {
        std::size_t end = keyPath.find(L'\\', start);
        if (end == std::wstring::npos) end = keyPath.size();
        const auto component = Component(keyPath.substr(start, end - start));
        if (!component) return std::nullopt;
        directory += "/" + *component;
        start = end + 1;
    }
    return directory;
}

ErrorCode SettingsStore::CreateKey(const std::wstring& keyPath) {
    const auto directory = KeyDirectory(keyPath);
    if (!directory) return ERROR_INVALID_PARAMETER;
    // Every missing level, from the file system's root down, as RegCreateKeyEx creates
    // every missing key of a path.
    for (std::size_t at = directory->find('/', 1); at != std::string::npos;
         at = directory->find('/', at + 1)) {
        const ErrorCode error = MakeDirectory(directory->substr(0, at),
                                              at < root_.size() ? kParentMode : kDirectoryMode);
        if (error != ERROR_SUCCESS) return error;
    }
    const ErrorCode error = MakeDirectory(*directory, kDirectoryMode);
    if (error != ERROR_SUCCESS) return error;
    // An existing key that this user may not write is refused at open, as KEY_WRITE is.
    if (::access(directory->c_str(), W_OK | X_OK) != 0) return ErrorFromErrno(errno);
    return ERROR_SUCCESS;
}

ErrorCode SettingsStore::SetValue(const std::wstring& keyPath, const std::wstring& valueName,
                                  std::uint32_t type, const std::uint8_t* data,
                                  std::uint32_t size) {
    const auto directory = KeyDirectory(keyPath);
    const auto name = Component(valueName);
    if (!directory || !name) return ERROR_INVALID_PARAMETER;
    if (size > 0 && data == nullptr) return ERROR_INVALID_PARAMETER;
    const std::string content = type == REG_SZ
                                    ? Utf16LeToUtf8(data, size)
                                    : std::string(reinterpret_cast<const char*>(data), size);
    // Written aside and renamed, so a reader never sees half a value.
    const std::string target = *directory + "/" + *name;
    const std::string temporary = target + ".new";
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kFileMode);
    if (fd < 0) return ErrorFromErrno(errno);
    int error = WholeTransfer(fd, content.data(), content.size(), ::write) ? 0 : errno;
    if (error == 0 && ::fsync(fd) != 0) error = errno;
    if (::close(fd) != 0 && error == 0) error = errno;
    if (error == 0 && ::rename(temporary.c_str(), target.c_str()) != 0) error = errno;
    if (error != 0) {
        ::unlink(temporary.c_str());
        return ErrorFromErrno(error);
    }
    error = SyncDirectory(*directory);
    return error == 0 ? ERROR_SUCCESS : ErrorFromErrno(error);
}

}  // namespace platform::linux_hw
