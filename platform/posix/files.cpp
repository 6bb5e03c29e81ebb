// SPDX-License-Identifier: Apache-2.0
// Files of this machine behind the Windows file calls, with the rules those calls keep.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/common/real_calls.h"
#include "platform/files.h"
#include "platform/posix/kernel_object.h"

namespace {

class LocalFileObject final : public platform::posix::KernelObject {
  public:
    explicit LocalFileObject(int fd) : fd(fd) {}
    ~LocalFileObject() override { ::close(fd); }
    LocalFileObject(const LocalFileObject&) = delete;
    LocalFileObject& operator=(const LocalFileObject&) = delete;
    const int fd;
};

DWORD FileErrorFromErrno(int error) {
    switch (error) {
        case ENOENT:
            return ERROR_FILE_NOT_FOUND;
        case ENOTDIR:
            return ERROR_PATH_NOT_FOUND;
        case EACCES:
        case EPERM:
        case EISDIR:
            return ERROR_ACCESS_DENIED;
        case EROFS:
            return ERROR_WRITE_PROTECT;
        case ENAMETOOLONG:
            return ERROR_FILENAME_EXCED_RANGE;
        case ELOOP:
            return ERROR_CANT_RESOLVE_FILENAME;
        case EMFILE:
        case ENFILE:
            return ERROR_TOO_MANY_OPEN_FILES;
        case ENXIO:
        case ENODEV:
            return ERROR_DEVICE_NOT_CONNECTED;
        case ENOSPC:
        case EDQUOT:
            return ERROR_HANDLE_DISK_FULL;
        case ENOMEM:
            return ERROR_NOT_ENOUGH_MEMORY;
        case EINVAL:
            return ERROR_INVALID_PARAMETER;
        default:
            return ERROR_GEN_FAILURE;
    }
}

template <typename Result>
Result Fail(DWORD error, Result result) {
    SetLastError(error);
    return result;
}

LocalFileObject* FileFromHandle(HANDLE handle) {
    return dynamic_cast<LocalFileObject*>(platform::posix::FromHandle(handle));
}

}  // namespace

namespace platform::posix {

HANDLE OpenLocalFile(const char* name, DWORD desiredAccess, DWORD creationDisposition) {
    if (name == nullptr || *name == '\0') return Fail(ERROR_PATH_NOT_FOUND, INVALID_HANDLE_VALUE);
    const bool reads = (desiredAccess & GENERIC_READ) != 0;
    const bool writes = (desiredAccess & GENERIC_WRITE) != 0;
    int flags = reads && writes ? O_RDWR : writes ? O_WRONLY : O_RDONLY;
    if (creationDisposition == CREATE_ALWAYS) {
        flags |= O_CREAT | O_TRUNC;
    } else if (creationDisposition != OPEN_EXISTING) {
        return Fail(ERROR_NOT_SUPPORTED, INVALID_HANDLE_VALUE);
    }
    // CreateFile returns at once whatever the name reaches; open() would wait for a FIFO's
    // other end, and a terminal opened here must not become the controlling one.
    const int fd = ::open(name, flags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, 0666);
    if (fd < 0) return Fail(FileErrorFromErrno(errno), INVALID_HANDLE_VALUE);
    struct stat status{};
    if (::fstat(fd, &status) != 0) {
        const int error = errno;
        ::close(fd);
        return Fail(FileErrorFromErrno(error), INVALID_HANDLE_VALUE);
    }
    // CreateFile: "You must set this flag [FILE_FLAG_BACKUP_SEMANTICS] to obtain a handle to
    // a directory"; without it a directory is refused with ERROR_ACCESS_DENIED.
    if (S_ISDIR(status.st_mode)) {
        ::close(fd);
        return Fail(ERROR_ACCESS_DENIED, INVALID_HANDLE_VALUE);
    }
    return ToHandle(new LocalFileObject(fd));
}

}  // namespace platform::posix

HANDLE platform::real::CreateFileA(LPCSTR fileName, DWORD desiredAccess, DWORD,
                                   LPSECURITY_ATTRIBUTES, DWORD creationDisposition, DWORD,
                                   HANDLE) {
    return platform::posix::OpenLocalFile(fileName, desiredAccess, creationDisposition);
}

// Only a regular file is a disk file: a device, a FIFO or a socket never is, whatever its
// name.
DWORD platform::real::GetFileType(HANDLE file) {
    auto* object = FileFromHandle(file);
    if (object == nullptr) return Fail(ERROR_INVALID_HANDLE, FILE_TYPE_UNKNOWN);
    struct stat status{};
    if (::fstat(object->fd, &status) != 0) {
        return Fail(FileErrorFromErrno(errno), FILE_TYPE_UNKNOWN);
    }
    SetLastError(NO_ERROR);
    if (S_ISREG(status.st_mode)) return FILE_TYPE_DISK;
    if (S_ISCHR(status.st_mode)) return FILE_TYPE_CHAR;
    if (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode)) return FILE_TYPE_PIPE;
    return FILE_TYPE_UNKNOWN;
}

BOOL platform::real::GetFileInformationByHandle(HANDLE file,
                                                LPBY_HANDLE_FILE_INFORMATION information) {
    auto* object = FileFromHandle(file);
    if (object == nullptr) return Fail(ERROR_INVALID_HANDLE, FALSE);
    if (information == nullptr) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    struct stat status{};
    if (::fstat(object->fd, &status) != 0) return Fail(FileErrorFromErrno(errno), FALSE);
    *information = BY_HANDLE_FILE_INFORMATION{};
    information->dwFileAttributes =
        S_ISDIR(status.st_mode) ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL;
    const auto size = static_cast<std::uint64_t>(status.st_size);
    information->nFileSizeHigh = static_cast<DWORD>(size >> 32);
    information->nFileSizeLow = static_cast<DWORD>(size);
    information->nNumberOfLinks = static_cast<DWORD>(status.st_nlink);
    const auto index = static_cast<std::uint64_t>(status.st_ino);
    information->nFileIndexHigh = static_cast<DWORD>(index >> 32);
    information->nFileIndexLow = static_cast<DWORD>(index);
    information->dwVolumeSerialNumber = static_cast<DWORD>(status.st_dev);
    return TRUE;
}

// Only a file has a size; a device or a pipe has none to give.
BOOL platform::real::GetFileSizeEx(HANDLE file, PLARGE_INTEGER size) {
    auto* object = FileFromHandle(file);
    if (object == nullptr) return Fail(ERROR_INVALID_HANDLE, FALSE);
    if (size == nullptr) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    struct stat status{};
    if (::fstat(object->fd, &status) != 0) return Fail(FileErrorFromErrno(errno), FALSE);
    if (!S_ISREG(status.st_mode)) return Fail(ERROR_INVALID_FUNCTION, FALSE);
    size->QuadPart = static_cast<LONGLONG>(status.st_size);
    return TRUE;
}

namespace {

// One read or write, as ReadFile and WriteFile make it: overlapped I/O is not offered (every
// caller here waits for its bytes), and a signal does not cut the call short.
template <class Call>
BOOL Transfer(HANDLE file, const void* buffer, DWORD count, LPDWORD done, LPOVERLAPPED overlapped,
              Call call) {
    auto* object = FileFromHandle(file);
    if (object == nullptr) return Fail(ERROR_INVALID_HANDLE, FALSE);
    if (overlapped != nullptr || done == nullptr || (buffer == nullptr && count > 0)) {
        return Fail(ERROR_INVALID_PARAMETER, FALSE);
    }
    *done = 0;
    ssize_t moved = 0;
    do {
        moved = call(object->fd);
    } while (moved < 0 && errno == EINTR);
    if (moved < 0) return Fail(FileErrorFromErrno(errno), FALSE);
    *done = static_cast<DWORD>(moved);
    return TRUE;
}

}  // namespace

BOOL platform::real::ReadFile(HANDLE file, LPVOID buffer, DWORD bytesToRead, LPDWORD bytesRead,
                              LPOVERLAPPED overlapped) {
    return Transfer(file, buffer, bytesToRead, bytesRead, overlapped,
                    [&](int fd) { return ::read(fd, buffer, bytesToRead); });
}

BOOL platform::real::WriteFile(HANDLE file, LPCVOID buffer, DWORD bytesToWrite,
                               LPDWORD bytesWritten, LPOVERLAPPED overlapped) {
    return Transfer(file, buffer, bytesToWrite, bytesWritten, overlapped,
                    [&](int fd) { return ::write(fd, buffer, bytesToWrite); });
}
