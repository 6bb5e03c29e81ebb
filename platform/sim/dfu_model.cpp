// SPDX-License-Identifier: Apache-2.0
// The DFU 1.1 device model of the lab: a device in DFU mode as it looks on the bus, strict
// about the order of requests, with the faults a world file can ask for.
#include <algorithm>
#include <utility>

#include "platform/sim/sim_world.h"
#include "platform/usb_descriptors.h"

namespace sim {
namespace {

enum : std::uint8_t {
    kAppIdle = 0,
    kAppDetach = 1,
    kDfuIdle = 2,
    kDnloadSync = 3,
    kDnBusy = 4,
    kDnloadIdle = 5,
    kManifestSync = 6,
    kManifest = 7,
    kManifestWaitReset = 8,
    kUploadIdle = 9,
    kDfuError = 10,
};

constexpr std::uint8_t kStatusOk = 0x00;
constexpr std::uint8_t kErrWrite = 0x03;
constexpr std::uint8_t kErrStalledPacket = 0x0F;
constexpr std::uint16_t kVendorId = 0x3C5E;
constexpr std::uint16_t kDfuProductId = 0x0F1C;
constexpr std::uint16_t kDetachTimeoutMs = 1000;
// What a host sees of a device that does not answer at all: WinUSB's time-out.

constexpr std::uint8_t Bit(DfuRequest request) {
    return static_cast<std::uint8_t>(1u << static_cast<unsigned>(request));
}
constexpr std::uint8_t kDetach = Bit(DfuRequest::kDetach), kDnload = Bit(DfuRequest::kDnload),
                       kUpload = Bit(DfuRequest::kUpload), kStatus = Bit(DfuRequest::kGetStatus),
                       kClear = Bit(DfuRequest::kClrStatus), kState = Bit(DfuRequest::kGetState),
                       kAbort = Bit(DfuRequest::kAbort);

// The class requests each state takes, as DFU 1.1's state tables list them; any other stalls.
// Two departures that the host's own sequence relies on: DETACH is taken in dfuIDLE (it is
// sent to a device already in DFU mode), and GETSTATUS is answered in
// dfuMANIFEST_WAIT_RESET (the host waits to read that state, then asks once more).
const std::uint8_t kTakenInState[11] = {
    kDetach | kStatus | kState,                               // appIDLE
    kStatus | kState,                                         // appDETACH
    kDetach | kDnload | kUpload | kStatus | kState | kAbort,  // dfuIDLE
    kStatus | kState,                                         // dfuDNLOAD_SYNC
    0,                                                        // dfuDNBUSY
    kDnload | kStatus | kState | kAbort,                      // dfuDNLOAD_IDLE
    kStatus | kState,                                         // dfuMANIFEST_SYNC
    0,                                                        // dfuMANIFEST
    kStatus,                                                  // dfuMANIFEST_WAIT_RESET
    kUpload | kStatus | kState | kAbort,                      // dfuUPLOAD_IDLE
    kStatus | kClear | kState,                                // dfuERROR
};

}  // namespace

SimDfuDevice::SimDfuDevice(SimWorld& world, DfuDeviceSpec spec, int cameraIndex)
    : world_(world),
      spec_(std::move(spec)),
      cameraIndex_(cameraIndex),
      boot_(cameraIndex < 0 ? 0
                            : world.Cameras()[static_cast<std::size_t>(cameraIndex)]->Generation()),
      state_(spec_.initialState) {
    usb::usb_device_descriptor{.idVendor = kVendorId, .idProduct = kDfuProductId}.Append(
        deviceDescriptor_);
    const auto interfaces = static_cast<std::uint8_t>(spec_.interfaces.size());
    usb::usb_config_descriptor{.bNumInterfaces = interfaces, .bMaxPower = 50}.Append(
        configuration_);
    for (std::size_t i = 0; i < spec_.interfaces.size(); ++i) {
        const bool isDfu = spec_.interfaces[i] == usb::USB_CLASS_APP_SPEC;
        // A DFU interface: subclass device firmware upgrade, protocol DFU mode.
        usb::usb_interface_descriptor{
            .bInterfaceNumber = static_cast<std::uint8_t>(i),
            .bInterfaceClass = spec_.interfaces[i],
            .bInterfaceSubClass = isDfu,
            .bInterfaceProtocol = static_cast<std::uint8_t>(isDfu ? 2 : 0)}
            .Append(configuration_);
        if (isDfu && dfuInterface_ < 0) {
            dfuInterface_ = static_cast<int>(i);
            // bmAttributes: download capable; upload capable and manifestation tolerant when
            // the world says so.
            const unsigned attributes =
                1u | (spec_.canUpload ? 2u : 0u) | (spec_.manifestationTolerant ? 4u : 0u);
            usb::usb_dfu_functional_descriptor{
                .bmAttributes = static_cast<std::uint8_t>(attributes),
                .wDetachTimeOut = kDetachTimeoutMs,
                .wTransferSize = spec_.transferSize}
                .Append(configuration_);
        }
    }
    usb::usb_config_descriptor::SetTotalLength(configuration_);
}

platform::ErrorCode SimDfuDevice::GetDescriptor(std::uint8_t type, std::uint8_t index,
                                                std::uint8_t* buffer, std::uint32_t length,
                                                std::uint32_t* transferred) {
    *transferred = 0;
    const std::vector<std::uint8_t>* descriptor = nullptr;
    if (type == usb::USB_DT_DEVICE && index == 0) descriptor = &deviceDescriptor_;
    if (type == usb::USB_DT_CONFIG && index == 0) descriptor = &configuration_;
    if (descriptor == nullptr) return ERROR_GEN_FAILURE;
    const auto count = std::min<std::uint32_t>(length, descriptor->size());
    if (count > 0 && buffer == nullptr) return ERROR_INVALID_PARAMETER;
    std::copy_n(descriptor->begin(), count, buffer);
    *transferred = count;
    return ERROR_SUCCESS;
}

platform::ErrorCode SimDfuDevice::SetAlternateSetting(std::uint8_t interfaceNumber,
                                                      std::uint8_t alternate) {
    if (interfaceNumber >= spec_.interfaces.size() || alternate != 0) return ERROR_GEN_FAILURE;
    return ERROR_SUCCESS;
}

platform::ErrorCode SimDfuDevice::Stall() {
    // A class request that is not valid in the current state: the device stalls and, in DFU
    // mode, goes to dfuERROR until CLRSTATUS; in appDETACH it gives up the detach. A device
    // waiting for its reset leaves that state only by the reset. While it manifests it does
    // not answer at all (DFU 1.1 allows that in dfuMANIFEST).
    if (state_ == kManifest) return ERROR_SEM_TIMEOUT;
    if (state_ == kAppDetach) {
        state_ = kAppIdle;
    } else if (state_ >= kDfuIdle && state_ != kManifestWaitReset) {
        state_ = kDfuError;
        status_ = kErrStalledPacket;
    }
    return ERROR_GEN_FAILURE;
}

bool SimDfuDevice::Current() const {
    return cameraIndex_ < 0 ||
           world_.Cameras()[static_cast<std::size_t>(cameraIndex_)]->Generation() == boot_;
}

bool SimDfuDevice::Listed() {
    return spec_.unplug && spec_.unplug->afterListings &&
           ++listings_ == *spec_.unplug->afterListings;
}

platform::ErrorCode SimDfuDevice::ControlTransfer(const platform::UsbSetupPacket& setup,
                                                  std::uint8_t* buffer, std::uint32_t length,
                                                  std::uint32_t* transferred) {
    *transferred = 0;
    if (length < setup.wLength || (setup.wLength > 0 && buffer == nullptr)) {
        return ERROR_INVALID_PARAMETER;
    }
    if ((setup.bRequestType & 0x60) == 0) return StandardRequest(setup, buffer, transferred);
    const bool classRequest = (setup.bRequestType & 0x60) == 0x20;
    if (classRequest && setup.bRequest <= static_cast<std::uint8_t>(DfuRequest::kAbort)) {
        const std::uint32_t seen = ++requestsSeen_[setup.bRequest];
        const auto kind = static_cast<DfuRequest>(setup.bRequest);
        for (const RequestFailure& failure : spec_.requestFailures) {
            // Lost on the wire: the device never sees it.
            if (failure.request == kind && seen >= failure.occurrence &&
                seen - failure.occurrence < failure.count) {
                return failure.error;
            }
        }
        if (spec_.unplug && spec_.unplug->atRequest == kind && seen == spec_.unplug->occurrence) {
            world_.Unplug(*this);
            return ERROR_DEVICE_NOT_CONNECTED;
        }
    }
    // On the machine's clock the world's event thread may run a little late; a request that
    // comes after the step was due finds it taken, as on the device.
    TakeDueStep();
    return Request(setup, buffer, transferred);
}

platform::ErrorCode SimDfuDevice::StandardRequest(const platform::UsbSetupPacket& setup,
                                                  std::uint8_t* buffer,
                                                  std::uint32_t* transferred) {
    // Chapter 9 requests leave the DFU state alone; what the device does not support it stalls.
    if (setup.bRequestType == 0x80 && setup.bRequest == usb::USB_REQ_GET_DESCRIPTOR) {
        return GetDescriptor(static_cast<std::uint8_t>(setup.wValue >> 8),
                             static_cast<std::uint8_t>(setup.wValue & 0xFF), buffer, setup.wLength,
                             transferred);
    }
    if (setup.bRequestType == 0x80 && setup.bRequest == 0 && setup.wValue == 0 &&
        setup.wLength == 2) {  // GET_STATUS of the device: bus powered, no remote wake-up
        buffer[0] = 0;
        buffer[1] = 0;
        *transferred = 2;
        return ERROR_SUCCESS;
    }
    return ERROR_GEN_FAILURE;
}

platform::ErrorCode SimDfuDevice::Request(const platform::UsbSetupPacket& setup,
                                          std::uint8_t* buffer, std::uint32_t* transferred) {
    const bool out = setup.bRequestType == 0x21;
    const bool in = setup.bRequestType == 0xA1;
    if ((!out && !in) || dfuInterface_ < 0 || setup.wIndex != dfuInterface_) return Stall();

    if (setup.bRequest > static_cast<std::uint8_t>(DfuRequest::kAbort) ||
        !(kTakenInState[state_] & (1u << setup.bRequest))) {
        return Stall();
    }
    switch (static_cast<DfuRequest>(setup.bRequest)) {
        case DfuRequest::kDetach:
            // wValue is the time the host will take to reset; more than the descriptor's
            // wDetachTimeOut is more than the device waits.
            if (!out || setup.wLength != 0 || setup.wValue > kDetachTimeoutMs) return Stall();
            // The family's devices take DETACH in dfuIDLE without leaving DFU mode.
            state_ = state_ == kDfuIdle ? spec_.stateAfterDetach : std::uint8_t{kAppDetach};
            detachTimeout_ = setup.wValue;
            // A device told to detach waits that long for the bus reset; none comes from this
            // host, so it gives up and goes on with its application.
            if (state_ == kAppDetach) After(setup.wValue, [this] { state_ = kAppIdle; });
            return ERROR_SUCCESS;
        case DfuRequest::kDnload:
            if (!out) return Stall();
            return Download(setup, buffer);
        case DfuRequest::kUpload:
            if (!in || !spec_.canUpload || setup.wLength > spec_.transferSize) return Stall();
            // Nothing to read back: a short (empty) frame ends the upload at once.
            state_ = kDfuIdle;
            return ERROR_SUCCESS;
        case DfuRequest::kGetStatus:
            if (!in || setup.wValue != 0 || setup.wLength != 6 || resetting_) return Stall();
            AnswerStatus(buffer, transferred);
            return ERROR_SUCCESS;
        case DfuRequest::kClrStatus:
            if (!out || setup.wValue != 0 || setup.wLength != 0) return Stall();
            state_ = kDfuIdle;
            status_ = kStatusOk;
            return ERROR_SUCCESS;
        case DfuRequest::kGetState:
            if (!in || setup.wValue != 0 || setup.wLength != 1) return Stall();
            buffer[0] = state_;
            *transferred = 1;
            return ERROR_SUCCESS;
        case DfuRequest::kAbort:
            if (!out || setup.wValue != 0 || setup.wLength != 0) return Stall();
            state_ = kDfuIdle;
            return ERROR_SUCCESS;
        default:
            return Stall();
    }
}

platform::ErrorCode SimDfuDevice::Download(const platform::UsbSetupPacket& setup,
                                           const std::uint8_t* data) {
    // A download begins with data: an empty DNLOAD in dfuIDLE ends no image and starts none.
    if (state_ == kDfuIdle && setup.wLength == 0) return Stall();
    if (state_ == kDfuIdle || download_ < 0) {
        blocks_ = 0;
        world_.Downloads().push_back(DownloadRecord{spec_.link, 0, 0, 0, false});
        download_ = static_cast<int>(world_.Downloads().size()) - 1;
    }
    if (setup.wLength > spec_.transferSize) return Stall();
    const auto expected = static_cast<std::uint16_t>(blocks_ & 0xFFFF);
    if (setup.wValue != expected) return Stall();

    if (setup.wLength == 0) {
        state_ = kManifestSync;
        manifested_ = false;
        return ERROR_SUCCESS;
    }

    if (spec_.fault && spec_.fault->atBlock == blocks_) {
        switch (spec_.fault->kind) {
            case FaultKind::kStall:
                return Stall();
            case FaultKind::kUnplug:
                world_.Unplug(*this);
                return ERROR_DEVICE_NOT_CONNECTED;
            case FaultKind::kError:
                // Taken on the bus, but the write fails: the block is not counted.
                errorPending_ = true;
                state_ = kDnloadSync;
                return ERROR_SUCCESS;
        }
    }

    statusAfterBlockDue_ = spec_.statusAfterBlock && spec_.statusAfterBlock->block == blocks_;
    DownloadRecord& record = world_.Downloads()[static_cast<std::size_t>(download_)];
    record.blocks += 1;
    record.bytes += setup.wLength;
    record.crc32 = Crc32(record.crc32, data, setup.wLength);
    ++blocks_;
    busyLeft_ = spec_.busyPolls;
    state_ = kDnloadSync;
    return ERROR_SUCCESS;
}

void SimDfuDevice::AnswerStatus(std::uint8_t* buffer, std::uint32_t* transferred) {
    bool resetAfterAnswer = false;
    switch (state_) {
        case kDnloadSync:
            if (errorPending_) {
                errorPending_ = false;
                state_ = kDfuError;
                status_ = kErrWrite;
            } else if (statusAfterBlockDue_ && spec_.statusAfterBlock) {
                statusAfterBlockDue_ = false;
                state_ = spec_.statusAfterBlock->bState;
                status_ = spec_.statusAfterBlock->bStatus;
            } else if (busyLeft_ > 0) {
                --busyLeft_;
                state_ = kDnBusy;
            } else {
                state_ = kDnloadIdle;
            }
            break;
        case kManifestSync:
            if (manifested_) {
                // A manifestation-tolerant device is done and back to waiting for requests.
                state_ = kDfuIdle;
            } else {
                // Manifestation starts; it lasts manifestPolls poll time-outs, which the
                // reply announces.
                state_ = kManifest;
            }
            break;
        case kManifestWaitReset:
            resetAfterAnswer = ++waitResetPolls_ >= 2;
            break;
        default:
            break;
    }
    std::uint32_t pollTimeout = 0;
    if (state_ == kDnBusy) pollTimeout = spec_.pollTimeoutMs;
    if (state_ == kManifest) pollTimeout = spec_.manifestPolls * spec_.pollTimeoutMs;
    // bStatus, bwPollTimeout (three bytes), bState, iString.
    usb::StoreLe(buffer, status_, static_cast<std::uint16_t>(pollTimeout),
                 static_cast<std::uint8_t>(pollTimeout >> 16), state_, std::uint8_t{0});
    *transferred = 6;
    // The block is written, or the image put in place, in the time the reply announces,
    // whether or not the host asks again.
    if (state_ == kDnBusy) After(pollTimeout, [this] { state_ = kDnloadSync; });
    if (state_ == kManifest) After(pollTimeout, [this] { EndManifest(); });
    if (resetAfterAnswer) {
        lastStatusBeforeReset_ = true;
        ResetAfterManifest();
    }
}

void SimDfuDevice::After(std::uint32_t ms, std::function<void()> step) {
    next_ = TimedStep{world_.NowMs() + ms, state_, std::move(step)};
    if (ms == 0) {
        TakeDueStep();
        return;
    }
    world_.Schedule(ms, [this] { TakeDueStep(); });
}

void SimDfuDevice::TakeDueStep() {
    // Only the latest step counts, and only while nothing else has moved the device on (a
    // request it stalled, an unplug, a restart of its camera).
    if (!next_ || world_.NowMs() < next_->dueMs) return;
    const TimedStep step = std::move(*next_);
    next_.reset();
    if (step.from == state_ && present && Current()) step.step();
}

void SimDfuDevice::EndManifest() {
    manifested_ = true;
    if (download_ >= 0) world_.Downloads()[static_cast<std::size_t>(download_)].manifested = true;
    if (spec_.manifestationTolerant) {
        state_ = kManifestSync;
        return;
    }
    state_ = kManifestWaitReset;
    waitResetPolls_ = 0;
    // Nothing on the host resets the bus: the device restarts by itself a while after its
    // image is in place, whether or not the host asked for its status once more.
    world_.Schedule(spec_.resetAfterManifestMs, [this] {
        if (!resetting_ && state_ == kManifestWaitReset && Current()) ResetAfterManifest();
    });
}

nlohmann::json SimDfuDevice::Dump() const {
    nlohmann::json entry = {
        {"link", WideToUtf8(Link())}, {"present", present}, {"state", DfuStateName(state_)}};
    if (detachTimeout_) entry["detachTimeoutMs"] = *detachTimeout_;
    nlohmann::json requests = nlohmann::json::object();
    for (std::uint8_t r = 0; r < 7; ++r) {
        requests[DfuRequestName(static_cast<DfuRequest>(r))] = requestsSeen_[r];
    }
    entry["requests"] = requests;
    if (resetting_) entry["lastStatusBeforeReset"] = lastStatusBeforeReset_;
    return entry;
}

void SimDfuDevice::ResetAfterManifest() {
    // The reply has gone out; the device now resets and leaves the bus. Doing it here rather
    // than later keeps the world's state fixed once the host has its answer.
    resetting_ = true;
    world_.Unplug(*this);
    if (cameraIndex_ >= 0 && static_cast<std::size_t>(cameraIndex_) < world_.Cameras().size()) {
        SimCamera& camera = *world_.Cameras()[static_cast<std::size_t>(cameraIndex_)];
        camera.firmware = camera.Spec().firmwareAfterUpdate;
        camera.present = true;
    }
}

}  // namespace sim
