// SPDX-License-Identifier: Apache-2.0
// The files an operator names: images to read, and the report a command writes.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "platform/types.h"

namespace dfu {

// An open file, closed when it goes.
class FileHandle {
  public:
    FileHandle() = default;
    explicit FileHandle(HANDLE handle) : handle_(handle) {}
    ~FileHandle();
    FileHandle(FileHandle&& other) noexcept;
    FileHandle& operator=(FileHandle&& other) noexcept;
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;

    bool IsOpen() const { return handle_ != INVALID_HANDLE_VALUE && handle_ != nullptr; }
    HANDLE Get() const { return handle_; }

  private:
    HANDLE handle_ = INVALID_HANDLE_VALUE;
};

// The file named by a typed path, opened only if it is a file on disk: a device, a pipe, a
// socket or a folder is not opened, whatever its name. The path is what the operator typed:
// UTF-8 text opens by its UTF-16 name, other bytes as the system's narrow calls read them.
FileHandle OpenImageFile(std::string_view typed);
// The same file for writing, created or emptied.
FileHandle CreateReportFile(std::string_view typed);

// Whether a typed path names an image that can be opened for reading.
bool IsReadableImage(std::string_view typed);

// A whole image in memory.
struct ImageBytes {
    std::unique_ptr<BYTE[]> data;
    std::uint64_t size = 0;
};

// Reads the whole of an open image; false when memory for it cannot be had or the file
// cannot be read to its end.
bool ReadImage(const FileHandle& file, ImageBytes* image);

// Writes all of the bytes; false when the file takes fewer.
bool WriteAll(const FileHandle& file, std::string_view bytes);

}  // namespace dfu
