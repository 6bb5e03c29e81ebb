// SPDX-License-Identifier: Apache-2.0
// Whatever a device sends as its configuration descriptor, the walk stays within the bytes
// read and hands back only a whole functional descriptor.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "dfu/win_usb_device.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // An exact-size copy, so that AddressSanitizer flags a read one byte past the end.
    std::vector<std::uint8_t> bytes(data, data + size);
    const auto found = dfu::FindDfuFunctionalDescriptor(bytes.data(), bytes.size());
    if (found) {
        if (*found + 9 > bytes.size() || bytes[*found] != 9 || bytes[*found + 1] != 0x21) {
            std::abort();
        }
    }
    return 0;
}
