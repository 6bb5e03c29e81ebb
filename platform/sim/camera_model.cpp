// SPDX-License-Identifier: Apache-2.0
// The cameras of the lab: plain webcams and cameras of the family with their extension unit.
//
// What sits here is the camera's side of the wire: its kernel-streaming topology as the
// driver reports it, and the firmware behind control 1 of the family's extension unit, which
// takes a 1024-byte command frame with SET and hands back its answer with GET.
#include <algorithm>
#include <array>
#include <string>

#include "platform/ks.h"
#include "platform/sim/sim_world.h"
#include "platform/usb_descriptors.h"

namespace sim {
namespace {

constexpr std::uint32_t kFrameSize = 1024;
constexpr std::uint32_t kHeaderLength = 20;  // opcode and four parameters
constexpr std::uint32_t kDeviceInfoCommand = 0x10;
constexpr std::uint32_t kSwitchToDfuCommand = 0x1E;
constexpr std::size_t kDeviceInfoSize = 230;
constexpr std::uint64_t kInfoPauseMs = 100;
constexpr std::uint32_t kRestartUnreadMs = 1000;

using usb::Le32;

HRESULT Error(DWORD code) {
    return platform::HResultFromError(code);
}

// A handle on one camera as the driver gives it out; it dies when the camera leaves.
class SimVideoConnection final : public platform::VideoDeviceConnection {
  public:
    SimVideoConnection(SimWorld& world, int index, std::uint32_t generation)
        : world_(world), index_(index), generation_(generation) {}

    HRESULT GetNodeCount(std::uint32_t* count) override {
        return WithCamera([&](SimCamera& camera) {
            *count = camera.NodeCount();
            return S_OK;
        });
    }

    HRESULT GetNodeType(std::uint32_t node, GUID* type) override {
        return WithCamera([&](SimCamera& camera) {
            if (node >= camera.NodeCount()) return Error(ERROR_NOT_FOUND);
            *type = camera.NodeType(node);
            return S_OK;
        });
    }

    HRESULT OpenNode(std::uint32_t node) override {
        return WithCamera([&](SimCamera& camera) {
            return node < camera.NodeCount() ? S_OK : Error(ERROR_NOT_FOUND);
        });
    }

    HRESULT NodeProperty(std::uint32_t node, const GUID& propertySet, std::uint32_t id,
                         std::uint32_t flags, std::uint8_t* data, std::uint32_t length,
                         std::uint32_t* returned) override {
        *returned = 0;
        return WithCamera([&](SimCamera& camera) {
            return camera.NodeProperty(node, propertySet, id, flags, data, length, returned);
        });
    }

  private:
    // Runs `call` on the camera under the world's lock, while it is the camera this handle
    // was given for.
    template <typename Call>
    HRESULT WithCamera(Call call) {
        std::lock_guard lock(world_.Lock());
        SimCamera& camera = *world_.Cameras()[static_cast<std::size_t>(index_)];
        if (!camera.present || camera.Generation() != generation_) {
            return Error(ERROR_DEVICE_NOT_CONNECTED);
        }
        return call(camera);
    }

    SimWorld& world_;
    int index_;
    std::uint32_t generation_;
};

}  // namespace

SimCamera::SimCamera(SimWorld& world, CameraSpec spec, int index)
    : firmware(spec.firmware), world_(world), spec_(std::move(spec)), index_(index) {}

GUID SimCamera::NodeType(std::uint32_t node) const {
    const auto& entity = spec_.topology[node];
    // A camera without the family's unit has a processing unit in its place.
    const bool family = entity.kind == platform::linux_hw::UvcEntityKind::kExtensionUnit &&
                        entity.extensionCode != kForeignUnitSet;
    return family && !spec_.lynx ? KSNODETYPE_VIDEO_PROCESSING
                                 : platform::linux_hw::NodeTypeOf(entity);
}

HRESULT SimCamera::NodeProperty(std::uint32_t node, const GUID& propertySet, std::uint32_t id,
                                std::uint32_t flags, std::uint8_t* data, std::uint32_t length,
                                std::uint32_t* returned) {
    *returned = 0;
    if (node >= NodeCount()) return Error(ERROR_NOT_FOUND);
    // Without the topology flag the driver would take the request for the whole filter.
    if (!(flags & KSPROPERTY_TYPE_TOPOLOGY)) return Error(ERROR_SET_NOT_FOUND);
    if (NodeType(node) != KSNODETYPE_DEV_SPECIFIC ||
        spec_.topology[node].extensionCode != propertySet) {
        return Error(ERROR_SET_NOT_FOUND);
    }
    // Each unit has one control, the one with selector 1.
    if (id != 1) return Error(ERROR_NOT_FOUND);

    const std::uint32_t request = flags & ~KSPROPERTY_TYPE_TOPOLOGY;
    // A support query carries no data: the driver refuses one with a buffer.
    if (request == KSPROPERTY_TYPE_SETSUPPORT) {
        return data == nullptr && length == 0 ? S_OK : Error(ERROR_INVALID_PARAMETER);
    }
    // Another vendor's unit: its control exists, but its protocol is not this lab's business.
    if (propertySet == kForeignUnitSet) return Error(ERROR_GEN_FAILURE);
    // The driver turns a property request into the unit's UVC requests: it asks the
    // control's length and sends or reads exactly that many bytes.
    std::uint8_t lengthBytes[2] = {};
    std::uint32_t got = 0;
    UnitRequest(usb::UVC_GET_LEN, static_cast<std::uint8_t>(id), lengthBytes, 2, &got);
    const std::uint32_t controlLength = usb::Le16(lengthBytes);
    if (request == KSPROPERTY_TYPE_SET) {
        if (data == nullptr || length != controlLength) return Error(ERROR_INVALID_PARAMETER);
        if (!UnitRequest(usb::UVC_SET_CUR, static_cast<std::uint8_t>(id), data, length, returned)) {
            return Error(ERROR_GEN_FAILURE);
        }
        return S_OK;
    }
    if (request == KSPROPERTY_TYPE_GET) {
        if (data == nullptr || length < controlLength) {
            *returned = controlLength;
            return Error(ERROR_INSUFFICIENT_BUFFER);
        }
        return UnitRequest(usb::UVC_GET_CUR, static_cast<std::uint8_t>(id), data, controlLength,
                           returned)
                   ? S_OK
                   : Error(ERROR_GEN_FAILURE);
    }
    return Error(ERROR_NOT_SUPPORTED);
}

bool SimCamera::UnitRequest(std::uint8_t request, std::uint8_t selector, std::uint8_t* data,
                            std::uint32_t length, std::uint32_t* returned) {
    *returned = 0;
    if (!spec_.lynx || selector != 1) return false;
    switch (request) {
        case usb::UVC_GET_INFO:  // supports GET and SET
            if (length != 1) return false;
            data[0] = 0x03;
            *returned = 1;
            return true;
        case usb::UVC_GET_LEN:
            if (length != 2) return false;
            data[0] = kFrameSize & 0xFF;
            data[1] = kFrameSize >> 8;
            *returned = 2;
            return true;
        case usb::UVC_SET_CUR:
            // The control is exactly one frame long; the device stalls anything else.
            if (length != kFrameSize || !RunCommand(data)) return false;
            *returned = kFrameSize;
            return true;
        case usb::UVC_GET_CUR:
            return length == kFrameSize && ReadReply(data, returned);
        default:
            return false;
    }
}

bool SimCamera::ReadReply(std::uint8_t* data, std::uint32_t* returned) {
    // Nothing to answer, or the answer is not ready yet: the device stalls the request.
    if (reply_.empty() || world_.NowMs() < replyReadyMs_) return false;
    const auto fault = replyFault_;
    if (fault == CommandFaultKind::kGetFails) {
        reply_.clear();
        if (leaveAfterReply_) LeaveForDfu();
        return false;
    }
    if (fault == CommandFaultKind::kWrongEcho) reply_[0] ^= 0xFF;
    std::fill(data, data + kFrameSize, 0);
    std::copy(reply_.begin(), reply_.end(), data);
    // A whole answer fills the control; a short one stops a byte before its end.
    *returned = fault == CommandFaultKind::kShortReply
                    ? static_cast<std::uint32_t>(reply_.size() - 1)
                    : kFrameSize;
    reply_.clear();
    if (leaveAfterReply_) LeaveForDfu();
    return true;
}

void SimCamera::LeaveForDfu() {
    if (!leaveAfterReply_) return;
    // The camera drops off the bus; its boot loader enumerates a little later.
    LeaveBus();
    world_.PlugAt(spec_.dfuDelayMs,
                  std::make_shared<SimDfuDevice>(world_, spec_.DfuSide(), index_));
}

void SimCamera::LeaveBus() {
    present = false;
    ++generation_;
    leaveAfterReply_ = false;
    reply_.clear();
    failedInfoExchanges_ = 0;
}

bool SimCamera::RunCommand(const std::uint8_t* frame) {
    const std::uint32_t opcode = Le32(frame + 4);
    const std::uint32_t exchange = ++exchanges_[opcode];
    std::optional<CommandFaultKind> fault;
    for (const CommandFault& candidate : spec_.commandFaults) {
        if (candidate.opcode == opcode && (!candidate.times || exchange <= *candidate.times)) {
            fault = candidate.kind;
        }
    }
    if (fault == CommandFaultKind::kSetFails) return false;

    // A new command discards an answer nobody read.
    reply_.clear();
    replyFault_ = fault;
    // The commands it knows carry no data, so their length is the header's and their
    // parameters are fixed; the bytes after the data mean nothing to it. Anything else is not
    // a command of this firmware, and it answers nothing.
    const std::uint32_t length = usb::Le16(frame);
    const std::uint32_t parameters[4] = {Le32(frame + 8), Le32(frame + 12), Le32(frame + 16),
                                         Le32(frame + 20)};
    if (frame[2] != 0xAB || frame[3] != 0xCD || length != kHeaderLength || parameters[1] != 0 ||
        parameters[2] != 0 || parameters[3] != 0) {
        return true;
    }

    if (opcode == kDeviceInfoCommand && parameters[0] == 0) {
        if (failedInfoExchanges_ < spec_.infoFailures) {
            ++failedInfoExchanges_;
            return true;
        }
        usb::AppendLe(reply_, opcode);
        // The block's other fields carry non-zero values, so that a version read from the
        // wrong place shows.
        std::array<std::uint8_t, kDeviceInfoSize> info{};
        for (std::size_t i = 0; i < info.size(); ++i) info[i] = static_cast<std::uint8_t>(0xA0 + i);
        info[12] = firmware[3];
        info[13] = firmware[2];
        info[14] = firmware[1];
        info[15] = firmware[0];
        reply_.insert(reply_.end(), info.begin(), info.end());
        // The firmware gathers the block before it can answer.
        replyReadyMs_ = world_.NowMs() + kInfoPauseMs;
        return true;
    }

    if (opcode == kSwitchToDfuCommand && parameters[0] == 1 && spec_.dfu) {
        // It answers at once and restarts after its answer is read, or after a second
        // when nobody reads it.
        usb::AppendLe(reply_, opcode);
        replyReadyMs_ = 0;
        leaveAfterReply_ = true;
        const std::uint32_t generation = generation_;
        world_.Schedule(kRestartUnreadMs, [this, generation] {
            if (generation_ == generation) LeaveForDfu();
        });
    }
    return true;
}

nlohmann::json SimCamera::Dump() const {
    nlohmann::json commands = nlohmann::json::object();
    for (const auto& [opcode, count] : exchanges_) commands[std::to_string(opcode)] = count;
    return {{"name", WideToUtf8(spec_.name)},
            {"firmware", FormatVersion(firmware)},
            {"present", present},
            {"commands", commands}};
}

}  // namespace sim

HRESULT sim::SimWorld::OpenVideoDevice(
    const std::wstring& symbolicLink,
    std::unique_ptr<platform::VideoDeviceConnection>* connection) {
    std::lock_guard lock(mutex_);
    for (const auto& camera : cameras_) {
        if (camera->present && SameLink(camera->Spec().link, symbolicLink)) {
            *connection =
                std::make_unique<SimVideoConnection>(*this, camera->Index(), camera->Generation());
            return S_OK;
        }
    }
    return platform::HResultFromError(ERROR_FILE_NOT_FOUND);
}
