// The lab's world file: what is plugged in, how each device behaves, the registry.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace sim {

// A world file that cannot be used; what() names the problem and the JSON path.
class WorldError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

enum class FaultKind { kStall, kError, kUnplug };

struct DfuFault {
    std::uint32_t atBlock = 0;
    FaultKind kind = FaultKind::kStall;
};

struct DfuDeviceSpec {
    std::wstring link;
    std::uint16_t transferSize = 1024;
    std::vector<std::uint8_t> interfaces{254};
    std::uint32_t busyPolls = 0;
    std::uint32_t manifestPolls = 1;
    std::uint8_t stateAfterDetach = 2;  // dfuIDLE
    std::optional<DfuFault> fault;
};

using FirmwareVersion = std::array<std::uint8_t, 4>;  // as written: a.b.c.d

struct CameraSpec {
    std::wstring name;
    std::wstring link;
    std::vector<int> enumerations{2};
    bool lynx = false;
    FirmwareVersion firmware{0, 0, 0, 0};
    std::uint32_t infoFailures = 0;
    std::optional<DfuDeviceSpec> dfu;
    std::uint32_t dfuDelayMs = 300;
    FirmwareVersion firmwareAfterUpdate{0, 0, 0, 0};
};

struct RegistrySpec {
    bool writable = true;
    std::optional<std::wstring> dfuAutoMode;
};

struct WorldSpec {
    std::vector<CameraSpec> cameras;
    std::vector<DfuDeviceSpec> dfuDevices;
    RegistrySpec registry;
    std::uint32_t speedup = 1;
};

// The eleven DFU 1.1 state names, by value.
const char* DfuStateName(std::uint8_t state);

// Parses and validates a world given as JSON text. Throws WorldError.
WorldSpec ParseWorld(const std::string& jsonText);
// Reads and parses a world file. Throws WorldError naming the file.
WorldSpec LoadWorldFile(const std::string& path);
// The world without a file: one camera of the family and one plain webcam.
WorldSpec DefaultWorld();

std::string FormatVersion(const FirmwareVersion& version);
std::wstring Widen(const std::string& utf8);
std::string Narrow(const std::wstring& wide);

}  // namespace sim
