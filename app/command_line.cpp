// SPDX-License-Identifier: Apache-2.0
#include "app/command_line.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "app/line_stream.h"
#include "app/main_loop.h"
#include "app/report.h"
#include "app/version.h"
#include "camera/camera_devices_factory.h"
#include "dfu/dfu_devices_factory.h"
#include "dfu/image_path.h"
#include "platform/com.h"
#include "platform/common/wide_stream.h"
#include "platform/console.h"
#include "platform/interrupts.h"
#include "platform/mf.h"
#include "platform/recording.h"
#include "platform/sync.h"
#include "updatable/lynx_updatable_device.h"

namespace {

// How long a command waits for the family's DFU-mode devices to leave the bus before it
// switches the next camera, and for an updated camera to come back with its version.
constexpr ULONGLONG kSettleLimitMs = 30000;
constexpr DWORD kPollMs = 250;

struct Options {
    std::string command;
    std::optional<std::string> image;
    std::vector<std::string> cameras;
    bool all = false;
    std::optional<std::string> expectVersion;
    bool json = false;
    std::optional<std::string> report;
};

// A refusal: the problem, then the usage, on standard error.
struct Refusal {
    std::string problem;
};

bool IsVersion(const std::string& text) {
    int parts = 0;
    std::size_t at = 0;
    while (true) {
        std::size_t end = at;
        while (end < text.size() && text[end] >= '0' && text[end] <= '9') ++end;
        if (end == at || end - at > 3 || std::stoi(text.substr(at, end - at)) > 255) return false;
        ++parts;
        if (end == text.size()) return parts == 4;
        if (text[end] != '.' || parts == 4) return false;
        at = end + 1;
    }
}

Options Parse(const std::vector<std::string>& args) {
    Options options;
    options.command = args.front();
    if (options.command != "list" && options.command != "update" && options.command != "recover") {
        throw Refusal{"unknown command '" + options.command + "'"};
    }
    const bool takesImage = options.command != "list";
    const bool isUpdate = options.command == "update";
    for (std::size_t i = 1; i < args.size(); ++i) {
        const std::string& arg = args[i];
        // --name VALUE or --name=VALUE.
        const auto value = [&](const std::string& name) -> std::optional<std::string> {
            if (arg == name) {
                if (i + 1 >= args.size() || args[i + 1].empty()) {
                    throw Refusal{"option '" + name + "' needs a value"};
                }
                return args[++i];
            }
            if (arg.starts_with(name + "=")) {
                if (arg.size() == name.size() + 1) {
                    throw Refusal{"option '" + name + "' needs a value"};
                }
                return arg.substr(name.size() + 1);
            }
            return std::nullopt;
        };
        const auto once = [&](bool given, const std::string& name) {
            if (given) throw Refusal{"option '" + name + "' given twice"};
        };
        if (arg == "--json") {
            once(options.json, arg);
            options.json = true;
        } else if (auto report = value("--report")) {
            once(options.report.has_value(), "--report");
            options.report = *report;
        } else if (isUpdate && arg == "--all") {
            once(options.all, arg);
            options.all = true;
        } else if (auto camera = isUpdate ? value("--camera") : std::nullopt) {
            if (std::find(options.cameras.begin(), options.cameras.end(), *camera) !=
                options.cameras.end()) {
                throw Refusal{"camera '" + *camera + "' given twice"};
            }
            options.cameras.push_back(*camera);
        } else if (auto version = isUpdate ? value("--expect-version") : std::nullopt) {
            once(options.expectVersion.has_value(), "--expect-version");
            if (!IsVersion(*version)) {
                throw Refusal{"'" + *version +
                              "' is not a version A.B.C.D of four numbers 0 to 255"};
            }
            options.expectVersion = *version;
        } else if (arg.starts_with("-") && arg != "-") {
            throw Refusal{"unknown option '" + arg + "' for " + options.command};
        } else if (takesImage && !options.image) {
            options.image = arg;
        } else {
            throw Refusal{"unexpected argument '" + arg + "'"};
        }
    }
    if (takesImage && !options.image) throw Refusal{"missing IMAGE for " + options.command};
    if (options.all && !options.cameras.empty()) {
        throw Refusal{"--camera and --all exclude each other"};
    }
    return options;
}

// The image as key 1 checks it before a camera is switched: a file on disk, never a device
// (NUL, /dev/zero), a pipe or a folder.
bool IsImageFile(const std::string& typed) {
    return dfu::IsReadableImage(typed);
}

std::string Utf8(const std::wstring& text) {
    return platform::WideToUtf8(text);
}

// The updatable cameras, each once: a camera both enumerations report is one camera here.
std::vector<std::shared_ptr<ICameraDevice>> UpdatableCameras(std::ostream& log) {
    CameraDevicesFactory enumerator(&log);
    std::vector<std::shared_ptr<ICameraDevice>> cameras;
    std::set<std::wstring> seen;
    for (auto& device : enumerator.GetDevices()) {
        if (device->IsUpdatable() && seen.insert(device->GetSymbolicLink()).second) {
            cameras.push_back(std::move(device));
        }
    }
    return cameras;
}

std::vector<std::shared_ptr<IDfuDevice>> DfuDevices(std::ostream& log) {
    return CreateDfuDevicesFactory(&log)->GetDfuDevices(0);
}

// Polls `done` every kPollMs until it holds or kSettleLimitMs have passed.
bool Within(const std::function<bool()>& done) {
    const ULONGLONG start = GetTickCount64();
    while (!done()) {
        if (GetTickCount64() - start >= kSettleLimitMs) return false;
        Sleep(kPollMs);
    }
    return true;
}

class Command {
  public:
    Command(const std::string& program, Options options)
        : options(std::move(options)),
          out(this->options.json ? std::cerr : std::cout,
              platform::StreamIsTerminal(this->options.json)) {
        report.program = program + " " + ProjectVersion();
        report.command = this->options.command;
        report.image = this->options.image;
        report.expectVersion = this->options.expectVersion;
    }

    int Run() {
        if (options.command == "list") {
            List();
        } else if (options.command == "update") {
            Update();
        } else {
            Recover();
        }
        return report.exitStatus;
    }

    const Report& Result() const { return report; }
    LineStream& Lines() { return out; }

  private:
    void List() {
        for (const auto& camera : UpdatableCameras(out)) {
            DeviceReport& entry = Add("camera", camera->GetSymbolicLink(), camera->GetName());
            entry.firmwareBefore = Utf8(camera->GetFirmwareVersion());
            entry.result = "listed";
            out << "Camera " << entry.link << ": " << entry.name << ", firmware "
                << *entry.firmwareBefore << '\n';
        }
        for (const auto& device : DfuDevices(out)) {
            DeviceReport& entry = Add("dfu", device->GetSymbolicLink(), device->GetName());
            entry.result = "listed";
            out << "DFU device " << entry.link << ": " << entry.name << '\n';
        }
    }

    void Update() {
        auto cameras = UpdatableCameras(out);
        for (const auto& camera : cameras) known.insert(Utf8(camera->GetSymbolicLink()));
        if (cameras.empty()) {
            out << "There are no updatable devices\n";
            report.exitStatus = kExitFailed;
            return;
        }
        // The refusals that only the devices can tell come before any camera is touched.
        std::vector<std::shared_ptr<ICameraDevice>> chosen;
        if (options.all) {
            chosen = cameras;
        } else if (options.cameras.empty()) {
            if (cameras.size() > 1) {
                throw Refusal{std::to_string(cameras.size()) +
                              " updatable cameras: choose with --camera LINK or --all"};
            }
            chosen = cameras;
        } else {
            for (const auto& link : options.cameras) {
                const auto found = std::find_if(cameras.begin(), cameras.end(), [&](auto& c) {
                    return Utf8(c->GetSymbolicLink()) == link;
                });
                if (found == cameras.end()) {
                    throw Refusal{"no updatable camera has the link '" + link + "'"};
                }
                chosen.push_back(*found);
            }
        }
        int updated = 0, failed = 0;
        for (const auto& camera : chosen) {
            DeviceReport& entry = Add("camera", camera->GetSymbolicLink(), camera->GetName());
            if (NotStarted(entry)) continue;
            UpdateOne(*camera, entry);
            ++(entry.result == "updated" ? updated : failed);
        }
        out << updated << " updated, " << failed << " failed\n";
        if (failed > 0 || updated < static_cast<int>(chosen.size())) {
            report.exitStatus = kExitFailed;
        }
    }

    void UpdateOne(ICameraDevice& camera, DeviceReport& entry) {
        const ULONGLONG start = GetTickCount64();
        entry.firmwareBefore = Utf8(camera.GetFirmwareVersion());
        const auto fail = [&](const std::string& line, std::optional<long> hresult) {
            entry.result = "failed";
            entry.failure = line;
            entry.hresult = hresult;
            entry.milliseconds = GetTickCount64() - start;
            out << "Camera " << entry.link << ": failed: " << line << '\n';
        };
        // A camera still manifesting, or one left in DFU mode, would be burned with this one.
        if (!Within([&] { return DfuDevices(quiet).empty(); })) {
            fail(
                "a device in DFU mode is still present after 30 s, so this camera was not "
                "switched",
                std::nullopt);
            return;
        }
        out.TakeLastLine();
        HRESULT status = S_OK;
        {
            const platform::InterruptHold hold;
            status = camera.UpdateFirmware(options.image.value_or("").c_str());
        }
        if (const auto* lynx = dynamic_cast<const LynxUpdatableDevice*>(&camera)) {
            for (const auto& link : lynx->BurnedDfuDevices()) {
                entry.dfuDevicesBurned.push_back(Utf8(link));
            }
        }
        if (status != 0) {
            const std::string line = out.TakeLastLine();
            out << "Failed to burn firmware\n";
            fail(line, status);
            return;
        }
        // Back in normal operation, the camera answers with its new version: under its own
        // link, or, where the system names a device anew at each arrival (Linux numbers USB
        // devices on), as the one camera whose link was not there before.
        std::optional<std::string> after;
        std::string linkAfter;
        Within([&] {
            std::vector<std::pair<std::string, std::string>> arrived;
            for (const auto& back : UpdatableCameras(quiet)) {
                const std::string link = Utf8(back->GetSymbolicLink());
                const std::string version = Utf8(back->GetFirmwareVersion());
                if (version == "0.0.0.0") continue;  // its information not read (yet)
                if (link == entry.link) {
                    arrived = {{link, version}};
                    break;
                }
                if (!known.contains(link)) arrived.emplace_back(link, version);
            }
            if (arrived.size() == 1) std::tie(linkAfter, after) = arrived.front();
            return after.has_value();
        });
        if (after) {
            known.insert(linkAfter);
            if (linkAfter != entry.link) entry.linkAfter = linkAfter;
        }
        entry.firmwareAfter = after;
        if (!after) {
            fail("the camera did not come back within 30 s", std::nullopt);
        } else if (options.expectVersion && *after != *options.expectVersion) {
            fail("the camera reports firmware " + *after + ", not the expected " +
                     *options.expectVersion,
                 std::nullopt);
        } else {
            entry.result = "updated";
            entry.milliseconds = GetTickCount64() - start;
            out << "Camera " << entry.link << ": updated from " << *entry.firmwareBefore << " to "
                << *after << '\n';
        }
    }

    void Recover() {
        const auto devices = DfuDevices(out);
        if (devices.empty()) {
            out << "No devices are stuck in DFU mode\n";
            return;
        }
        int recovered = 0, failed = 0;
        for (const auto& device : devices) {
            DeviceReport& entry = Add("dfu", device->GetSymbolicLink(), device->GetName());
            if (NotStarted(entry)) continue;
            const ULONGLONG start = GetTickCount64();
            out.TakeLastLine();
            HRESULT status = S_OK;
            {
                const platform::InterruptHold hold;
                status = device->Burn(options.image.value_or("").c_str());
            }
            entry.milliseconds = GetTickCount64() - start;
            if (status == 0) {
                entry.result = "recovered";
                ++recovered;
                out << "DFU device " << entry.link << ": recovered\n";
            } else {
                entry.result = "failed";
                entry.failure = out.TakeLastLine();
                entry.hresult = status;
                ++failed;
                out << "DFU device " << entry.link << ": failed: " << *entry.failure << '\n';
            }
        }
        out << recovered << " recovered, " << failed << " failed\n";
        if (recovered < static_cast<int>(devices.size())) report.exitStatus = kExitFailed;
    }

    // After an interrupt held during a write, no further device is started.
    static bool NotStarted(DeviceReport& entry) {
        if (!platform::InterruptKeptBack()) return false;
        entry.result = "not started";
        return true;
    }

    DeviceReport& Add(const char* kind, const std::wstring& link, const std::wstring& name) {
        DeviceReport& entry = report.devices.emplace_back();
        entry.kind = kind;
        entry.link = Utf8(link);
        entry.name = Utf8(name);
        return entry;
    }

    Options options;
    Report report;
    LineStream out;
    // The links of the updatable cameras seen so far, so that a camera that comes back under
    // a new one can be told from those that were there.
    std::set<std::string> known;
    // What the waits' own enumerations would say is not the operator's business.
    std::ostream quiet{nullptr};
};

int Refuse(const std::string& program, const std::string& problem,
           const std::string& programOptions = "") {
    std::cerr << program << ": " << problem << '\n' << CommandUsage(program, programOptions);
    std::cerr.flush();
    return kExitUsage;
}

// Media Foundation and COM for as long as a command runs, as the menus hold them.
class Session {
  public:
    Session() {
        platform::InitConsole();
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        mediaFoundation = MFStartup(MF_VERSION, MFSTARTUP_LITE);
    }
    ~Session() {
        if (SUCCEEDED(mediaFoundation)) MFShutdown();
        platform::RestoreConsole();
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

  private:
    HRESULT mediaFoundation = E_FAIL;
};

}  // namespace

std::string CommandUsage(const std::string& program, const std::string& programOptions) {
    const std::string invocation = program + (programOptions.empty() ? "" : " " + programOptions);
    const std::string indent(7, ' ');
    return "usage: " + invocation + " list [--json] [--report FILE]\n" + indent + invocation +
           " update IMAGE (--camera LINK)... | --all [--expect-version A.B.C.D] [--json] "
           "[--report FILE]\n" +
           indent + invocation + " recover IMAGE [--json] [--report FILE]\n" + indent + program +
           " --help | --version\n";
}

int RunCommand(const std::string& program, const std::vector<std::string>& args,
               const std::string& programOptions) {
    Options options;
    dfu::FileHandle reportFile;
    try {
        options = Parse(args);
        if (options.image && !IsImageFile(*options.image)) {
            throw Refusal{"cannot open the image '" + *options.image + "'"};
        }
        if (options.report) {
            // Opened before any device is touched, so that a report that cannot be written
            // is refused while nothing has happened yet.
            reportFile = dfu::CreateReportFile(*options.report);
            if (!reportFile.IsOpen())
                throw Refusal{"cannot write the report '" + *options.report + "'"};
        }
    } catch (const Refusal& refusal) {
        return Refuse(program, refusal.problem, programOptions);
    } catch (const std::exception&) {
        return Refuse(program, "cannot write the report '" + options.report.value_or("") + "'",
                      programOptions);
    }

    const Session session;
    Command command(program, options);
    try {
        command.Run();
    } catch (const Refusal& refusal) {
        command.Lines().flush();
        return Refuse(program, refusal.problem, programOptions);
    }
    command.Lines().flush();
    Report report = command.Result();
    const std::string json = ReportJson(report);
    if (options.json) {
        std::cout << json;
        std::cout.flush();
    }
    if (reportFile.IsOpen()) {
        if (!dfu::WriteAll(reportFile, json)) {
            std::cerr << program << ": cannot write the report '" << options.report.value_or("")
                      << "'\n";
            return kExitFailed;
        }
    }
    return report.exitStatus;
}

std::optional<int> StartRecordingFrom(const std::string& program, std::vector<std::string>& args,
                                      const std::string& platformName) {
    if (args.empty() || !(args[0] == "--record" || args[0].starts_with("--record="))) {
        return std::nullopt;
    }
    std::string path;
    if (args[0] == "--record") {
        if (args.size() < 2 || args[1].empty() || args[1].starts_with("--"))
            return Refuse(program, "option '--record' needs a file name");
        path = args[1];
        args.erase(args.begin(), args.begin() + 2);
    } else {
        path = args[0].substr(std::string_view("--record=").size());
        if (path.empty()) return Refuse(program, "option '--record' needs a file name");
        args.erase(args.begin());
    }
    std::string problem;
    if (!platform::StartRecording(path, program, ProjectVersion(), args, platformName, problem))
        return Refuse(program, "cannot write the recording '" + path + "': " + problem);
    return std::nullopt;
}

int RunProgram(const std::string& program, std::vector<std::string> args) {
    if (const auto refused = StartRecordingFrom(program, args, "")) return *refused;
    if (args.empty()) return RunLynxDfu();
    const bool help = args[0] == "--help" || args[0] == "-h";
    if ((help || args[0] == "--version") && args.size() > 1) {
        return Refuse(program, "unexpected argument '" + args[1] + "'");
    }
    if (args[0] == "--version") {
        std::cout << VersionText(program);
        std::cout.flush();
        return kExitDone;
    }
    if (help) {
        std::cout
            << CommandUsage(program)
            << "\nWithout arguments, the menus. The commands are for scripts: list the cameras\n"
               "and the devices stuck in DFU mode, update cameras by link, recover every device\n"
               "stuck in DFU mode. Exit status: 0 all succeeded, 1 a device failed, 2 bad\n"
               "input (nothing was touched). --record FILE before all else records the run\n"
               "for a replay in the lab (recordings.md). The rest: man lynx-dfu, or\n"
               "commands.md in the documentation.\n";
        std::cout.flush();
        return kExitDone;
    }
    if (args[0].starts_with("-")) {
        return Refuse(program, "unknown option '" + args[0] + "'");
    }
    return RunCommand(program, args);
}
