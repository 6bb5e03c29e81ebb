// SPDX-License-Identifier: Apache-2.0
#include "dfu/image_path.h"

#include <algorithm>
#include <new>
#include <string>
#include <utility>

#include "platform/common/wide_stream.h"
#include "platform/files.h"
#include "platform/sync.h"

namespace dfu {
namespace {

// Small enough for one ReadFile, whose count is a DWORD.
constexpr DWORD kReadChunk = 1u << 20;

bool IsUtf8(std::string_view bytes) {
    return platform::WideToUtf8(platform::Utf8ToWide(bytes)) == bytes;
}

// UTF-8 opens by its UTF-16 name, so that every name an operator can type opens whatever the
// code pages. Bytes that are no UTF-8 cannot have come as text: they open as the C runtime's
// narrow calls would open them, through the ANSI code page.
HANDLE OpenByTypedName(std::string_view typed, DWORD access, DWORD share, DWORD disposition) {
    const std::string name(typed);
    if (name.find('\0') != std::string::npos) return INVALID_HANDLE_VALUE;
    if (IsUtf8(name)) {
        const std::wstring wide = platform::Utf8ToWide(name);
        return CreateFileW(wide.c_str(), access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL,
                           nullptr);
    }
    return CreateFileA(name.c_str(), access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL,
                       nullptr);
}

// A file on disk, judged by what the handle reaches and not by its name: NUL, CON, COM1 and
// \\.\ names open as devices, and a directory does not open at all without
// FILE_FLAG_BACKUP_SEMANTICS ("You must set this flag to obtain a handle to a directory").
FileHandle OnlyDiskFile(FileHandle file) {
    if (!file.IsOpen() || GetFileType(file.Get()) != FILE_TYPE_DISK) return {};
    BY_HANDLE_FILE_INFORMATION information{};
    if (!GetFileInformationByHandle(file.Get(), &information) ||
        (information.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        return {};
    }
    return file;
}

}  // namespace

FileHandle::~FileHandle() {
    if (IsOpen()) CloseHandle(handle_);
}

FileHandle::FileHandle(FileHandle&& other) noexcept
    : handle_(std::exchange(other.handle_, INVALID_HANDLE_VALUE)) {}

FileHandle& FileHandle::operator=(FileHandle&& other) noexcept {
    if (this != &other) {
        if (IsOpen()) CloseHandle(handle_);
        handle_ = std::exchange(other.handle_, INVALID_HANDLE_VALUE);
    }
    return *this;
}

FileHandle OpenImageFile(std::string_view typed) {
    if (typed.empty()) return {};
    // Other programs may go on reading and writing the image meanwhile, as the C runtime's
    // fopen lets them: a file that a sync client or a viewer holds open still opens.
    return OnlyDiskFile(FileHandle(
        OpenByTypedName(typed, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING)));
}

FileHandle CreateReportFile(std::string_view typed) {
    if (typed.empty()) return {};
    return OnlyDiskFile(
        FileHandle(OpenByTypedName(typed, GENERIC_WRITE, FILE_SHARE_READ, CREATE_ALWAYS)));
}

bool IsReadableImage(std::string_view typed) {
    return OpenImageFile(typed).IsOpen();
}

bool ReadImage(const FileHandle& file, ImageBytes* image) {
    LARGE_INTEGER size{};
    if (!GetFileSizeEx(file.Get(), &size) || size.QuadPart < 0) return false;
    const auto length = static_cast<std::uint64_t>(size.QuadPart);
    if (length > SIZE_MAX) return false;
    // However large the file, a refusal of memory is a failed read, never an exception.
    std::unique_ptr<BYTE[]> data(new (std::nothrow) BYTE[static_cast<std::size_t>(length)]);
    if (!data) return false;
    std::uint64_t done = 0;
    while (done < length) {
        const auto chunk = static_cast<DWORD>(std::min<std::uint64_t>(length - done, kReadChunk));
        DWORD got = 0;
        if (!ReadFile(file.Get(), data.get() + done, chunk, &got, nullptr) || got == 0) {
            return false;
        }
        done += got;
    }
    image->data = std::move(data);
    image->size = length;
    return true;
}

bool WriteAll(const FileHandle& file, std::string_view bytes) {
    while (!bytes.empty()) {
        const auto chunk = static_cast<DWORD>(std::min<std::size_t>(bytes.size(), kReadChunk));
        DWORD put = 0;
        if (!WriteFile(file.Get(), bytes.data(), chunk, &put, nullptr) || put == 0) return false;
        bytes.remove_prefix(put);
    }
    return true;
}

}  // namespace dfu
