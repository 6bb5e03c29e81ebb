// SPDX-License-Identifier: Apache-2.0
// Commands for scripts and deployment tools: the menus' work without a question, with an
// exit status and a JSON report.
//
//   list [--json] [--report FILE]
//   update IMAGE (--camera LINK)... | --all [--expect-version A.B.C.D] [--json] [--report FILE]
//   recover IMAGE [--json] [--report FILE]
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

// One exit status for every program of the project.
enum ExitStatus : int {
    kExitDone = 0,      // every device asked for succeeded
    kExitFailed = 1,    // a device failed, or there was none to update
    kExitUsage = 2,     // bad command line or input; nothing was touched
    kExitDiverged = 3,  // kept for a replay that departs from its recording
};

// The usage lines for `program`, each ending in a line end; `programOptions` are the
// program's own options before the command (the lab's world and state dump).
std::string CommandUsage(const std::string& program, const std::string& programOptions = "");

// Runs the command `args` names (args[0] is the command) and returns its exit status. Writes
// its lines to standard output, or to standard error with --json; refusals go to standard
// error as one line naming the problem, then the usage.
int RunCommand(const std::string& program, const std::vector<std::string>& args,
               const std::string& programOptions = "");

// What lynx-dfu does with its arguments, on every platform: none shows the menus (0 when the
// operator quits); --help, --version or a command is answered without them.
// `--record FILE` before them records the run (docs/recordings.md).
int RunProgram(const std::string& program, std::vector<std::string> args);

// Takes a leading `--record FILE` (or --record=FILE) off `args` and starts recording the run
// under `platformName` (empty: the target's own). A refusal has been reported and carries
// the exit status.
std::optional<int> StartRecordingFrom(const std::string& program, std::vector<std::string>& args,
                                      const std::string& platformName);
