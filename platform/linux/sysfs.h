// SPDX-License-Identifier: Apache-2.0
// Small readers for sysfs and the mapping of errno values to the Windows errors the logic
// above the seam expects.
#pragma once

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/posix/device_backend.h"

namespace platform::linux_hw {

// Moves all `length` bytes with `io` (::read or ::write), again after a signal; false with
// errno set once a call fails or makes no progress (an end of file reads as EIO).
template <typename Byte, typename Io>
bool WholeTransfer(int fd, Byte* buffer, std::size_t length, Io io) {
    for (std::size_t done = 0; done < length;) {
        const auto n = io(fd, buffer + done, length - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// What the Windows call would have failed with for this errno.
ErrorCode ErrorFromErrno(int error);

// The whole file, or nothing when it cannot be read.
std::optional<std::string> ReadWholeFile(const std::string& path);
// A sysfs attribute without its trailing newline.
std::optional<std::string> ReadAttribute(const std::string& path);
std::optional<unsigned> ReadNumberAttribute(const std::string& path, int base);
// A whole non-empty text as a number in `base`; false for anything else, or one too large.
template <typename T>
bool ParseNumber(std::string_view text, int base, T* value) {
    if (text.empty()) return false;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value, base);
    return error == std::errc() && end == text.data() + text.size();
}
std::vector<std::string> ListDirectory(const std::string& path);

// The USB devices (not root hubs, not interfaces) under a sysfs root such as
// /sys/bus/usb/devices, by name.
std::vector<std::string> ListUsbDeviceNames(const std::string& devicesDir);

}  // namespace platform::linux_hw
