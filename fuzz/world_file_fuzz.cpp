// SPDX-License-Identifier: Apache-2.0
// A world file is the lab user's text: anything but a usable world must end in a WorldError,
// which the lab turns into one line and exit status 2. Any other exception would abort it.
#include <cstdint>
#include <string>

#include "platform/sim/world_spec.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        sim::ParseWorld(std::string(data, data + size));
    } catch (const sim::WorldError&) {
    }
    return 0;
}
