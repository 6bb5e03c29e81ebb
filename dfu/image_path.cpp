// SPDX-License-Identifier: Apache-2.0
#include "dfu/image_path.h"

#include <fstream>
#include <string>
#include <system_error>

namespace dfu {

std::filesystem::path ImageFilePath(std::string_view utf8) {
    return std::filesystem::path(std::u8string(utf8.begin(), utf8.end()));
}

bool IsReadableImage(const std::filesystem::path& path) {
    std::error_code error;
    if (path.empty() || std::filesystem::is_directory(path, error)) return false;
    std::ifstream file(path, std::ios::in | std::ios::binary);
    return file.is_open();
}

}  // namespace dfu
