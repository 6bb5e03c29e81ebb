// SPDX-License-Identifier: Apache-2.0
// Recording what the program asks of the system and what it answers, so that a run on a
// machine far away (a camera in the field) can be replayed in the lab. What a recording holds
// and how it is replayed: docs/recordings.md.
#pragma once

#include <string>
#include <vector>

namespace platform {

// From now on, every platform call the program makes, and what it writes to standard output
// and error, goes to `path` as JSON lines, after a header naming `program`, its `version`,
// the platform and `arguments`. `platformName` empty: the target's own ("linux",
// "windows"). False, with `problem` set, when the file cannot be made.
bool StartRecording(const std::string& path, const std::string& program, const std::string& version,
                    const std::vector<std::string>& arguments, const std::string& platformName,
                    std::string& problem);

}  // namespace platform
