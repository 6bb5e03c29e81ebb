// lynx-dfu-lab: the tool's own console program over a simulated world.
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>

#include "app/main_loop.h"
#include "platform/posix/device_backend.h"
#include "platform/sim/sim_world.h"

namespace {

constexpr const char* kUsage = "usage: lynx-dfu-lab [--world FILE] [--dump-state FILE]";

}  // namespace

int main(int argc, char** argv) {
    std::string worldPath;
    std::string dumpPath;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if ((argument == "--world" || argument == "--dump-state") && i + 1 < argc) {
            (argument == "--world" ? worldPath : dumpPath) = argv[++i];
        } else {
            std::cerr << "lynx-dfu-lab: unexpected argument '" << argument << "'\n"
                      << kUsage << "\n";
            return 2;
        }
    }

    sim::WorldSpec spec;
    try {
        spec = worldPath.empty() ? sim::DefaultWorld() : sim::LoadWorldFile(worldPath);
    } catch (const sim::WorldError& error) {
        std::cerr << "lynx-dfu-lab: world " << error.what() << "\n";
        return 2;
    }

    auto world = std::make_shared<sim::SimWorld>(std::move(spec));
    platform::InstallBackend(world);
    const int status = RunLynxDfu();
    std::cout.flush();
    platform::InstallBackend(nullptr);

    if (!dumpPath.empty()) {
        std::ofstream dump(dumpPath, std::ios::binary | std::ios::trunc);
        dump << world->DumpState().dump(2) << "\n";
        dump.close();
        if (!dump) {
            std::cerr << "lynx-dfu-lab: cannot write the state dump " << dumpPath << "\n";
            return 1;
        }
    }
    return status;
}
