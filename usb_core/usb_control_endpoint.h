// SPDX-License-Identifier: Apache-2.0
// The control endpoint the DFU engine is written against; the WinUSB endpoint implements it.
#pragma once

#include <cstdint>

#include "platform/winusb.h"

namespace usb_core {

class IUsbControlEndpoint {
  public:
    virtual ~IUsbControlEndpoint() = default;

    // One control transfer. The endpoint may rewrite the packet (it owns wIndex); buffer may
    // be null when there is no data stage. Returns 0 or a result code.
    virtual HRESULT Transfer(WINUSB_SETUP_PACKET& packet, PUCHAR buffer, std::uint64_t length) = 0;
    virtual bool IsConnected() = 0;
    virtual void Disconnect() = 0;
    // The largest data stage the device accepts, in bytes.
    virtual std::uint16_t GetMaxTransferSize() = 0;
};

}  // namespace usb_core
