// SPDX-License-Identifier: Apache-2.0
// The registry's stand-in on Linux: one directory per key and one file per value under a
// root-only directory (/var/lib/lynx-dfu), so that a service on the machine can read the
// DFU auto mode with nothing more than a file read. REG_SZ values are stored as UTF-8 text.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/posix/device_backend.h"

namespace platform::linux_hw {

class SettingsStore {
  public:
    explicit SettingsStore(std::string root) : root_(std::move(root)) {}

    ErrorCode CreateKey(const std::wstring& keyPath);
    ErrorCode SetValue(const std::wstring& keyPath, const std::wstring& valueName,
                       std::uint32_t type, const std::uint8_t* data, std::uint32_t size);

    // The directory of a key; nothing for a path that would leave the store.
    std::optional<std::string> KeyDirectory(const std::wstring& keyPath) const;

  private:
    std::string root_;
};

}  // namespace platform::linux_hw
