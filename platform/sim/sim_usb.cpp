// SPDX-License-Identifier: Apache-2.0
// USB access to the simulated DFU devices.
#include <algorithm>

#include "platform/sim/sim_world.h"

namespace sim {
namespace {

class SimUsbConnection final : public platform::UsbDeviceConnection {
  public:
    SimUsbConnection(SimWorld& world, std::shared_ptr<SimDfuDevice> device)
        : world_(world), device_(std::move(device)) {}

    platform::ErrorCode GetDescriptor(std::uint8_t type, std::uint8_t index, std::uint16_t,
                                      std::uint8_t* buffer, std::uint32_t length,
                                      std::uint32_t* transferred) override {
        std::lock_guard lock(world_.Lock());
        if (!device_->present) return ERROR_DEVICE_NOT_CONNECTED;
        return device_->GetDescriptor(type, index, buffer, length, transferred);
    }

    platform::ErrorCode ClaimInterface(std::uint8_t interfaceNumber) override {
        std::lock_guard lock(world_.Lock());
        if (!device_->present) return ERROR_DEVICE_NOT_CONNECTED;
        return interfaceNumber < device_->Spec().interfaces.size() ? ERROR_SUCCESS
                                                                   : ERROR_NO_MORE_ITEMS;
    }

    platform::ErrorCode ReleaseInterface(std::uint8_t) override { return ERROR_SUCCESS; }

    platform::ErrorCode SetAlternateSetting(std::uint8_t interfaceNumber,
                                            std::uint8_t alternateSetting) override {
        std::lock_guard lock(world_.Lock());
        if (!device_->present) return ERROR_DEVICE_NOT_CONNECTED;
        return device_->SetAlternateSetting(interfaceNumber, alternateSetting);
    }

    platform::ErrorCode ControlTransfer(const platform::UsbSetupPacket& setup, std::uint8_t* buffer,
                                        std::uint32_t length, std::uint32_t* transferred) override {
        std::lock_guard lock(world_.Lock());
        if (!device_->present) return ERROR_DEVICE_NOT_CONNECTED;
        return device_->ControlTransfer(setup, buffer, length, transferred);
    }

  private:
    SimWorld& world_;
    std::shared_ptr<SimDfuDevice> device_;
};

}  // namespace

platform::ErrorCode SimWorld::OpenUsbDevice(
    const std::wstring& interfacePath, std::unique_ptr<platform::UsbDeviceConnection>* connection) {
    std::lock_guard lock(mutex_);
    LeaveAfterListing();
    for (const auto& device : dfuDevices_) {
        if (device->present && SameLink(device->Link(), interfacePath)) {
            *connection = std::make_unique<SimUsbConnection>(*this, device);
            return ERROR_SUCCESS;
        }
    }
    return ERROR_FILE_NOT_FOUND;
}

}  // namespace sim
