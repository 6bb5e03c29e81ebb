// SPDX-License-Identifier: Apache-2.0
// A USB device in DFU mode opened through WinUSB, and the control endpoints it hands out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/usb_descriptors.h"
#include "platform/winusb.h"
#include "usb_core/usb_control_endpoint.h"

namespace dfu {

class WinUsbDevice;

class WinUsbControlEndpoint : public usb_core::IUsbControlEndpoint {
  public:
    WinUsbControlEndpoint(std::uint8_t interfaceNumber, std::uint16_t transferSize,
                          WinUsbDevice* device);

    HRESULT Transfer(WINUSB_SETUP_PACKET& packet, PUCHAR buffer, std::uint64_t length) override;
    bool IsConnected() override;
    void Disconnect() override;
    std::uint16_t GetMaxTransferSize() override;

  private:
    bool connected;
    std::uint8_t interfaceNumber;
    std::uint16_t transferSize;
    WinUsbDevice* device;
};

// Finds the first DFU functional descriptor (length 9, type 0x21) that lies whole within the
// bytes of a configuration descriptor. Stops at a zero length byte or the end of the bytes.
std::optional<std::size_t> FindDfuFunctionalDescriptor(const std::uint8_t* bytes,
                                                       std::size_t length);

class WinUsbDevice {
  public:
    explicit WinUsbDevice(std::wstring symbolicLink);
    ~WinUsbDevice();
    WinUsbDevice(const WinUsbDevice&) = delete;
    WinUsbDevice& operator=(const WinUsbDevice&) = delete;

    bool IsOpen() const { return open; }
    std::shared_ptr<usb_core::IUsbControlEndpoint> AcquireControlEndpoint();
    void Close();

  private:
    friend class WinUsbControlEndpoint;

    HRESULT SelectDfuInterface();
    // The first descriptor of a type, which must fill the buffer.
    template <std::size_t N>
    HRESULT ReadWholeDescriptor(UCHAR type, UCHAR (&buffer)[N]);
    void ReleaseDfuInterfaceHandle();

    bool open = false;
    std::vector<std::shared_ptr<WinUsbControlEndpoint>> endpoints;
    // The DFU interface's own handle (the WinUSB handle itself when it is the first
    // interface), held from its selection until Close; every DFU request goes through it.
    WINUSB_INTERFACE_HANDLE dfuInterfaceHandle = nullptr;
    std::uint8_t dfuInterfaceNumber = 0;
    std::uint8_t dfuAlternateSetting = 0;
    WINUSB_INTERFACE_HANDLE winUsbHandle = nullptr;
    HANDLE fileHandle = nullptr;
    usb::usb_dfu_functional_descriptor dfuFunctional;
    std::wstring symbolicLink;
};

}  // namespace dfu
