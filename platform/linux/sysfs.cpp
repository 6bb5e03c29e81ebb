// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/sysfs.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <sstream>

namespace platform::linux_hw {
ErrorCode ErrorFromErrno(int error) {
    switch (error) {
        case 0:
            return ERROR_SUCCESS;
        case EACCES:
        case EPERM:
            return ERROR_ACCESS_DENIED;
        case ENOENT:
            return ERROR_FILE_NOT_FOUND;
        case ENODEV:
        case ENXIO:
        case ESHUTDOWN:
            return ERROR_DEVICE_NOT_CONNECTED;
        case EPIPE:  // a stall
        case EPROTO:
        case EILSEQ:
        case EIO:
        case EBADRQC:
            return ERROR_GEN_FAILURE;
        case ETIMEDOUT:
            return ERROR_SEM_TIMEOUT;
        case EOVERFLOW:
        case ENOBUFS:
        case ERANGE:
            return ERROR_INSUFFICIENT_BUFFER;
        case EINVAL:
        case ENOTTY:
            return ERROR_INVALID_PARAMETER;
        case EBUSY:
            return ERROR_BUSY;
        case ENOMEM:
            return ERROR_NOT_ENOUGH_MEMORY;
        case ENOSYS:
        case EOPNOTSUPP:
            return ERROR_NOT_SUPPORTED;
        case ENODATA:
            return ERROR_NOT_FOUND;
        default:
            return ERROR_GEN_FAILURE;
    }
}

std::optional<std::string> ReadWholeFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return std::nullopt;
    std::ostringstream content;
    content << file.rdbuf();
    if (file.bad()) return std::nullopt;
    return content.str();
}

std::optional<std::string> ReadAttribute(const std::string& path) {
    auto text = ReadWholeFile(path);
    if (!text) return std::nullopt;
    while (!text->empty() && (text->back() == '\n' || text->back() == '\r')) text->pop_back();
    return text;
}

std::optional<unsigned> ReadNumberAttribute(const std::string& path, int base) {
    const auto text = ReadAttribute(path);
    if (!text || text->empty()) return std::nullopt;
    std::string_view number = *text;
    number.remove_prefix(std::min(number.find_first_not_of(' '), number.size()));
    unsigned value = 0;
    if (!ParseNumber(number, base, &value)) return std::nullopt;
    return value;
}

std::vector<std::string> ListDirectory(const std::string& path) {
    std::vector<std::string> names;
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) return names;
    while (const dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> ListUsbDeviceNames(const std::string& devicesDir) {
    std::vector<std::string> names;
    for (const std::string& name : ListDirectory(devicesDir)) {
        // "usbN" are root hubs and "1-1:1.0" interfaces; devices are "<bus>-<ports>".
        if (name.find(':') != std::string::npos || name.rfind("usb", 0) == 0) continue;
        if (name.find('-') == std::string::npos) continue;
        names.push_back(name);
    }
    return names;
}

}  // namespace platform::linux_hw
