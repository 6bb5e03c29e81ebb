// The DFU 1.1 device model of the lab.
#include "platform/sim/sim_world.h"

namespace sim {

SimDfuDevice::SimDfuDevice(SimWorld& world, DfuDeviceSpec spec, int cameraIndex)
    : world_(world), spec_(std::move(spec)), cameraIndex_(cameraIndex) {}

platform::ErrorCode SimDfuDevice::GetDescriptor(std::uint8_t, std::uint8_t, std::uint8_t*,
                                                std::uint32_t, std::uint32_t* transferred) {
    *transferred = 0;
    return ERROR_GEN_FAILURE;
}

platform::ErrorCode SimDfuDevice::SetAlternateSetting(std::uint8_t, std::uint8_t) {
    return ERROR_GEN_FAILURE;
}

platform::ErrorCode SimDfuDevice::ControlTransfer(const platform::UsbSetupPacket&, std::uint8_t*,
                                                  std::uint32_t, std::uint32_t* transferred) {
    *transferred = 0;
    return ERROR_GEN_FAILURE;
}

}  // namespace sim
