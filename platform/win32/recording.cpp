// SPDX-License-Identifier: Apache-2.0
#include "platform/recording.h"

namespace platform {

bool StartRecording(const std::string&, const std::string&, const std::string&,
                    const std::vector<std::string>&, const std::string&, std::string& problem) {
    problem = "this build of the Windows program does not record yet";
    return false;
}

}  // namespace platform
