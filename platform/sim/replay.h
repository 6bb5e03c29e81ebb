// SPDX-License-Identifier: Apache-2.0
// A recording replayed: the platform's calls answered from a file that lynx-dfu,
// lynx-dfu.exe or lynx-dfu-lab wrote with --record.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/common/call_record.h"

namespace sim {

// A recording that cannot be replayed at all (exit status 2).
struct ReplayError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct RecordingHeader {
    std::string program;
    std::string version;
    std::string platform;
    std::vector<std::string> arguments;
};

// Reads the recording at `path`; throws ReplayError naming the line and the problem.
std::unique_ptr<platform::rec::Tap> LoadReplay(const std::string& path, RecordingHeader& header);

// Once the program has returned: ends the process with status 3 when the recording goes on
// (calls or output the program did not make).
void FinishReplay();

}  // namespace sim
