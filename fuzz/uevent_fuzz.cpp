// SPDX-License-Identifier: Apache-2.0
// Kernel uevents and the interface paths the Linux backend makes of them. A device taken
// from a uevent must come back unchanged from the path that names it, and a path or video
// link that parses must be the one its parts build again (in any case).
#include <cstdint>
#include <cstdlib>
#include <cwctype>
#include <string>

#include "platform/linux/usb_paths.h"

namespace {
std::wstring Lower(std::wstring text) {
    for (auto& c : text) c = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(c)));
    return text;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace platform::linux_hw;
    if (const auto event = ParseUsbUevent(reinterpret_cast<const char*>(data), size)) {
        const auto back = ParseUsbInterfacePath(BuildUsbInterfacePath(event->address));
        if (!back || back->sysName != event->address.sysName ||
            back->vendorId != event->address.vendorId ||
            back->productId != event->address.productId ||
            back->deviceNumber != event->address.deviceNumber % 1000) {
            std::abort();
        }
    }
    const std::wstring text(data, data + size);
    if (const auto address = ParseUsbInterfacePath(text)) {
        if (Lower(BuildUsbInterfacePath(*address)) != Lower(text)) std::abort();
    }
    if (const auto link = ParseVideoLink(text)) {
        if (Lower(BuildVideoLink(link->address, link->interfaceNumber, link->nodeName)) !=
            Lower(text)) {
            std::abort();
        }
    }
    return 0;
}
