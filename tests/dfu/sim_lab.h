// A lab world with one DFU device, installed as the platform's backend for one test.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "platform/posix/device_backend.h"
#include "platform/sim/sim_world.h"

namespace dfu_test {

inline const std::wstring kLink =
    L"\\\\?\\USB#VID_3C5E&PID_0F1C#5&1f2e3d4c&0&1#{a5dcbf10-6530-11d2-901f-00c04fb951ed}";

struct SimLab {
    explicit SimLab(sim::DfuDeviceSpec device, std::uint32_t speedup = 1) {
        sim::WorldSpec spec;
        device.link = kLink;
        spec.dfuDevices = {device};
        spec.speedup = speedup;
        world = std::make_shared<sim::SimWorld>(spec);
        platform::InstallBackend(world);
    }
    ~SimLab() { platform::InstallBackend(nullptr); }
    nlohmann::json Downloads() const { return world->DumpState()["downloads"]; }
    nlohmann::json Device() const { return world->DumpState()["dfuDevices"][0]; }

    std::shared_ptr<sim::SimWorld> world;
};

inline std::string Crc32Text(const std::vector<std::uint8_t>& bytes) {
    char text[9];
    std::snprintf(text, sizeof text, "%08x", sim::Crc32(0, bytes.data(), bytes.size()));
    return text;
}

inline std::vector<std::uint8_t> Pattern(std::size_t size) {
    std::vector<std::uint8_t> bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
    return bytes;
}

}  // namespace dfu_test
