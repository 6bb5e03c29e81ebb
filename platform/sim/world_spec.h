// SPDX-License-Identifier: Apache-2.0
// The lab's world file: what is plugged in, how each device behaves, the registry.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/common/wide_stream.h"
#include "platform/linux/uvc_descriptors.h"

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

// The DFU 1.1 requests by bRequest: DETACH 0 ... ABORT 6.
enum class DfuRequest : std::uint8_t {
    kDetach = 0,
    kDnload = 1,
    kUpload = 2,
    kGetStatus = 3,
    kClrStatus = 4,
    kGetState = 5,
    kAbort = 6,
};

// The n-th request of a kind (counting from 1) and the `count` after it fail on the wire with
// `error` (a Windows error number) before the device sees them.
struct RequestFailure {
    DfuRequest request = DfuRequest::kGetStatus;
    std::uint32_t occurrence = 1;
    std::uint32_t count = 1;
    std::uint32_t error = 31;  // ERROR_GEN_FAILURE: what WinUSB reports for a stall
};

// The first GETSTATUS after a data block answers with this status and state.
struct StatusAfterBlock {
    std::uint32_t block = 0;
    std::uint8_t bStatus = 0;
    std::uint8_t bState = 10;
};

// When the device leaves the bus on its own: a world time after it is on the bus, once a
// listing of the bus has shown it a number of times, or when a request of a kind arrives.
struct UnplugSpec {
    std::optional<std::uint32_t> atMs;
    std::optional<std::uint32_t> afterListings;
    std::optional<DfuRequest> atRequest;
    std::uint32_t occurrence = 1;
};

struct DfuDeviceSpec {
    std::wstring link;
    std::uint16_t transferSize = 1024;
    std::vector<std::uint8_t> interfaces{254};
    std::uint32_t busyPolls = 0;
    std::uint32_t manifestPolls = 1;
    std::uint8_t stateAfterDetach = 2;  // dfuIDLE
    std::optional<DfuFault> fault;
    std::uint8_t initialState = 2;  // dfuIDLE
    std::uint32_t pollTimeoutMs = 50;
    bool canUpload = false;
    std::vector<RequestFailure> requestFailures;
    std::optional<StatusAfterBlock> statusAfterBlock;
    std::optional<UnplugSpec> unplug;
    // Back to dfuIDLE after manifestation instead of waiting for a reset.
    bool manifestationTolerant = false;
    // After manifestation, it restarts by itself this long after reaching
    // dfuMANIFEST_WAIT_RESET, unless the host's last GETSTATUS came first.
    std::uint32_t resetAfterManifestMs = 1000;
};

using FirmwareVersion = std::array<std::uint8_t, 4>;  // as written: a.b.c.d

enum class CommandFaultKind { kSetFails, kGetFails, kShortReply, kWrongEcho };

// A firmware command the camera mishandles: the first `times` exchanges of it (absent: all).
struct CommandFault {
    std::uint32_t opcode = 0;
    CommandFaultKind kind = CommandFaultKind::kGetFails;
    std::optional<std::uint32_t> times;
};

// A node for each unit and terminal, numbered in the order the descriptors list them.
using Topology = std::vector<platform::linux_hw::UvcEntity>;
// The family's camera as camera_description.h describes it, seen as the driver sees it.
Topology DescribedTopology();
// The extension unit of another vendor that many webcams carry: the search for the family's
// unit has to pass over it.
inline constexpr GUID kForeignUnitSet = {
    0x0F3F95DC, 0x2632, 0x4C4E, {0x92, 0xC9, 0xA0, 0x47, 0x82, 0xF4, 0x3B, 0xC8}};

struct CameraSpec {
    std::wstring name;
    std::wstring link;
    std::vector<int> enumerations{2};
    bool lynx = false;
    FirmwareVersion firmware{0, 0, 0, 0};
    std::uint32_t infoFailures = 0;
    // Its kernel-streaming topology: the family's camera as described, unless the world varies it.
    Topology topology = DescribedTopology();
    std::optional<DfuDeviceSpec> dfu;
    std::uint32_t dfuDelayMs = 300;
    FirmwareVersion firmwareAfterUpdate{0, 0, 0, 0};
    std::vector<CommandFault> commandFaults;
    // It starts off the bus, as its DFU device (which is on the bus from the start).
    bool inDfuMode = false;

    // The DFU device it becomes; std::logic_error without one. None is put in DFU mode then:
    // the world's check refuses inDfuMode, and the camera refuses the switch command.
    const DfuDeviceSpec& DfuSide() const;
};

struct RegistrySpec {
    bool writable = true;
    std::optional<std::wstring> dfuAutoMode;
    // Windows error numbers that opening the key, or setting the value, fails with.
    std::optional<std::uint32_t> openError;
    std::optional<std::uint32_t> setError;
};

struct WorldSpec {
    std::vector<CameraSpec> cameras;
    std::vector<DfuDeviceSpec> dfuDevices;
    RegistrySpec registry;
    std::uint32_t speedup = 1;
};

// The eleven DFU 1.1 state names, by value.
const char* DfuStateName(std::uint8_t state);
// "DETACH", "DNLOAD", ... as DFU 1.1 names the requests.
const char* DfuRequestName(DfuRequest request);

// Parses and validates a world given as JSON text. Throws WorldError.
WorldSpec ParseWorld(const std::string& jsonText);
// Reads and parses a world file. Throws WorldError naming the file.
WorldSpec LoadWorldFile(const std::string& path);
// The world without a file: one camera of the family and one plain webcam.
WorldSpec DefaultWorld();

std::string FormatVersion(const FirmwareVersion& version);
// "a.b.c.d" with parts 0 to 255; throws WorldError naming `where` otherwise.
FirmwareVersion ParseVersion(const std::string& text, const std::string& where);
// Links, registry keys and value names compare without regard to case, as Windows compares
// them: each unit through the C library's wide lower-casing.
std::wstring Lower(std::wstring text);
bool SameLink(const std::wstring& a, const std::wstring& b);
// Names and links travel as UTF-8 in world files and state dumps.
using platform::Utf8ToWide;
using platform::WideToUtf8;

}  // namespace sim
