// A lab world with DFU-mode devices on its bus, installed as the platform's backend for one
// test, and a way to plug and unplug devices while the test runs.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/posix/device_backend.h"
#include "platform/sim/sim_world.h"

namespace discovery_test {

inline const std::wstring kClass = L"#{a5dcbf10-6530-11d2-901f-00c04fb951ed}";
// As the platform lists them: upper case in the hardware part.
inline const std::wstring kFirst = L"\\\\?\\USB#VID_3C5E&PID_0F1C#5&1f2e3d4c&0&1" + kClass;
inline const std::wstring kSecond = L"\\\\?\\USB#VID_3C5E&PID_0F1C#5&1f2e3d4c&0&2" + kClass;
inline const std::wstring kOtherProduct = L"\\\\?\\USB#VID_3C5E&PID_0B64#5&77aa0011&0&3" + kClass;
inline const std::wstring kOtherVendor = L"\\\\?\\USB#VID_0C45&PID_0F1C#5&77aa0011&0&4" + kClass;

inline std::wstring Lower(std::wstring text) {
    for (auto& unit : text) {
        if (unit >= L'A' && unit <= L'Z') unit = static_cast<wchar_t>(unit - L'A' + L'a');
    }
    return text;
}

struct LabBus {
    explicit LabBus(std::vector<std::wstring> present, std::uint32_t speedup = 1) {
        sim::WorldSpec spec;
        for (auto& link : present) {
            sim::DfuDeviceSpec device;
            device.link = std::move(link);
            spec.dfuDevices.push_back(device);
        }
        spec.speedup = speedup;
        world = std::make_shared<sim::SimWorld>(spec);
        platform::InstallBackend(world);
    }
    ~LabBus() { platform::InstallBackend(nullptr); }
    LabBus(const LabBus&) = delete;
    LabBus& operator=(const LabBus&) = delete;

    // A device that is not on the bus yet.
    std::shared_ptr<sim::SimDfuDevice> MakeDevice(const std::wstring& link) {
        sim::DfuDeviceSpec device;
        device.link = link;
        return std::make_shared<sim::SimDfuDevice>(*world, device, -1);
    }
    void Plug(const std::shared_ptr<sim::SimDfuDevice>& device) {
        std::lock_guard lock(world->Lock());
        world->Plug(device);
    }
    void Unplug(sim::SimDfuDevice& device) {
        std::lock_guard lock(world->Lock());
        world->Unplug(device);
    }
    // Plugs a device after a delay in world milliseconds, from the world's event thread.
    void PlugLater(std::uint32_t delayMs, std::shared_ptr<sim::SimDfuDevice> device) {
        std::lock_guard lock(world->Lock());
        world->Schedule(delayMs, [this, device] { world->Plug(device); });
    }

    std::shared_ptr<sim::SimWorld> world;
};

}  // namespace discovery_test
