// SPDX-License-Identifier: Apache-2.0
// Where an image file typed by the operator lies.
#pragma once

#include <filesystem>
#include <string_view>

namespace dfu {

// The file named by an answer, which is UTF-8 text. Windows opens it by its UTF-16 name, so
// every path an operator can type or paste opens, whatever the system's code pages.
std::filesystem::path ImageFilePath(std::string_view utf8);

// Whether a path names an image that can be opened for reading: an existing file, not a
// directory (which opens as a stream on some systems but has no meaningful size).
bool IsReadableImage(const std::filesystem::path& path);

}  // namespace dfu
