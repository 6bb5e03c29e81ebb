// SPDX-License-Identifier: Apache-2.0
// lynx-dfu-lab: the tool's own console program over a simulated world.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/command_line.h"
#include "app/main_loop.h"
#include "app/version.h"
#include "platform/common/call_record.h"
#include "platform/interrupts.h"
#include "platform/posix/device_backend.h"
#include "platform/recording.h"
#include "platform/sim/replay.h"
#include "platform/sim/sim_world.h"

namespace {

constexpr const char* kUsage =
    "usage: lynx-dfu-lab [--help] [--version] [--world FILE] [--dump-state FILE] [--record FILE]\n"
    "                    [COMMAND ...]\n"
    "       lynx-dfu-lab --replay FILE";

constexpr const char* kLabOptions = "[--world FILE] [--dump-state FILE]";

constexpr const char* kHelp =
    "\n"
    "Runs lynx-dfu over a simulated world of cameras and DFU devices: the same menus,\n"
    "answers on standard input, one line per prompt and one (empty) line per pause.\n"
    "\n"
    "  -h, --help               print this help and exit\n"
    "  --version                print the version and the licence, and exit\n"
    "  --world FILE             the world to simulate (JSON); without it, the built-in\n"
    "                           default world: one camera of the family and one webcam\n"
    "  --dump-state FILE        on exit, write the world's final state to FILE as JSON\n"
    "  --record FILE            write every platform call of the run to FILE (JSON lines)\n"
    "  --replay FILE            run a recording made with --record by lynx-dfu, lynx-dfu.exe\n"
    "                           or lynx-dfu-lab, answering from it: no world; exit status 3\n"
    "                           where the program departs from it\n"
    "\n"
    "The options also take the form --world=FILE. After them, a command of lynx-dfu\n"
    "(list, update, recover; man lynx-dfu) runs over the world instead of the menus.\n"
    "Sample worlds and a sample image: /usr/share/lynx-dfu/ when installed, lab/ in the\n"
    "source tree. The world file and the state dump: the manual page (man lynx-dfu-lab),\n"
    "and docs/lab.md and docs/world-file.md, installed in /usr/share/doc/lynx-dfu/.\n";

struct Options {
    std::string worldPath;
    std::string dumpPath;
    std::string recordPath;
    std::string replayPath;
    bool help = false;
    bool version = false;
    std::vector<std::string> command;  // empty: the menus
};

int Refuse(const std::string& problem) {
    std::cerr << "lynx-dfu-lab: " << problem << "\n" << kUsage << "\n";
    return 2;
}

// Parses the command line; a refusal has already been reported and carries the exit status.
std::optional<int> Parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "-h" || argument == "--help") {
            options.help = true;
            continue;
        }
        if (argument == "--version") {
            options.version = true;
            continue;
        }
        bool known = false;
        for (auto [name, target] : {std::pair{std::string_view("--world"), &options.worldPath},
                                    std::pair{std::string_view("--dump-state"), &options.dumpPath},
                                    std::pair{std::string_view("--record"), &options.recordPath},
                                    std::pair{std::string_view("--replay"), &options.replayPath}}) {
            if (argument == name) {
                // The next word is taken as the value unless it is missing, empty or
                // itself an option, which is far likelier a forgotten value than a file.
                if (i + 1 >= argc || argv[i + 1][0] == '\0' ||
                    std::string_view(argv[i + 1]).starts_with("--")) {
                    return Refuse("option '" + std::string(name) + "' needs a file name");
                }
                *target = argv[++i];
            } else if (argument.starts_with(name) && argument.size() > name.size() &&
                       argument[name.size()] == '=') {
                if (argument.size() == name.size() + 1) {
                    return Refuse("option '" + std::string(name) + "' needs a file name");
                }
                *target = std::string(argument.substr(name.size() + 1));
            } else {
                continue;
            }
            known = true;
            break;
        }
        if (!known && !argument.starts_with("-")) {
            options.command.assign(argv + i, argv + argc);
            break;
        }
        if (!known) return Refuse("unexpected argument '" + std::string(argument) + "'");
    }
    return std::nullopt;
}

// Runs the recorded program over the recording's answers instead of a world.
int Replay(const Options& options) {
    if (!options.worldPath.empty() || !options.dumpPath.empty() || !options.recordPath.empty() ||
        !options.command.empty()) {
        std::cerr << "lynx-dfu-lab: --replay takes the devices, the answers and the command "
                     "from the recording: nothing else beside it\n";
        return 2;
    }
    sim::RecordingHeader header;
    std::unique_ptr<platform::rec::Tap> tap;
    try {
        tap = sim::LoadReplay(options.replayPath, header);
    } catch (const sim::ReplayError& error) {
        std::cerr << "lynx-dfu-lab: recording " << options.replayPath << ": " << error.what()
                  << "\n";
        return 2;
    }
    platform::rec::InstallTap(std::move(tap));
    platform::rec::TapStandardStreams();
    int status = 0;
    if (header.program == "lynx-dfu-lab") {
        status = header.arguments.empty()
                     ? RunLynxDfu()
                     : RunCommand("lynx-dfu-lab", header.arguments, kLabOptions);
    } else {
        status = RunProgram(header.program, header.arguments);
    }
    std::cout.flush();
    platform::EndByKeptBackInterrupt();
    sim::FinishReplay();
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    // A reader that goes away (a pager, `head`) must not end the session before the state
    // dump is written: failed writes are simply lost, as on a closed console.
    std::signal(SIGPIPE, SIG_IGN);

    Options options;
    if (const auto refused = Parse(argc, argv, options)) return *refused;
    if (options.help) {
        std::cout << kUsage << "\n" << kHelp;
        std::cout.flush();
        return 0;
    }
    if (options.version) {
        std::cout << VersionText("lynx-dfu-lab") << std::flush;
        return 0;
    }
    if (!options.replayPath.empty()) return Replay(options);

    sim::WorldSpec spec;
    try {
        spec =
            options.worldPath.empty() ? sim::DefaultWorld() : sim::LoadWorldFile(options.worldPath);
    } catch (const sim::WorldError& error) {
        std::cerr << "lynx-dfu-lab: world " << error.what() << "\n";
        return 2;
    }

    // Opened before the first menu, so that a path that cannot be written is refused before
    // the operator has given a single answer.
    std::ofstream dump;
    if (!options.dumpPath.empty()) {
        dump.open(options.dumpPath, std::ios::binary | std::ios::trunc);
        if (!dump) {
            const int error = errno;
            std::cerr << "lynx-dfu-lab: cannot write the state dump " << options.dumpPath << ": "
                      << std::strerror(error) << "\n";
            return 2;
        }
    }

    if (!options.recordPath.empty()) {
        std::string problem;
        if (!platform::StartRecording(options.recordPath, "lynx-dfu-lab", ProjectVersion(),
                                      options.command, "lab", problem)) {
            return Refuse("cannot write the recording " + options.recordPath + ": " + problem);
        }
    }

    auto world = std::make_shared<sim::SimWorld>(std::move(spec));
    platform::InstallBackend(world);
    const int status = options.command.empty()
                           ? RunLynxDfu()
                           : RunCommand("lynx-dfu-lab", options.command, kLabOptions);
    std::cout.flush();
    platform::InstallBackend(nullptr);

    if (dump.is_open()) {
        dump << world->DumpState().dump(2) << "\n";
        dump.close();
        if (!dump) {
            std::cerr << "lynx-dfu-lab: cannot write the state dump " << options.dumpPath << "\n";
            return 1;
        }
    }
    // An interrupt kept back during a download ends the lab once the state is written.
    platform::EndByKeptBackInterrupt();
    return status;
}
