// SPDX-License-Identifier: Apache-2.0
// A device of the family in DFU mode, known by its device interface path.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "diag/dfu_logger.h"
#include "platform/types.h"

class IDfuDevice {
  public:
    virtual ~IDfuDevice() = default;
    // Writes an image file into the device; 0 when it was written and manifested.
    virtual HRESULT Burn(const char* imagePath) = 0;
    virtual std::wstring GetSymbolicLink() const = 0;
    virtual std::wstring GetName() const = 0;
    // Reserved for the devices of other families; the family's devices answer 0.
    virtual HRESULT Reserved() { return 0; }
    // 0 when the device's interface path is present within about the time limit.
    virtual HRESULT WaitForConnection(std::uint32_t timeLimitMs) = 0;
};

class LynxDfuDevice : public IDfuDevice, public DfuLogger {
  public:
    LynxDfuDevice(std::wstring symbolicLink, std::ostream* log);

    HRESULT Burn(const char* imagePath) override;
    std::wstring GetSymbolicLink() const override { return symbolicLink; }
    std::wstring GetName() const override { return L"Lynx DFU " + symbolicLink; }
    HRESULT WaitForConnection(std::uint32_t timeLimitMs) override;

  private:
    std::wstring symbolicLink;
};

// The watcher and tokens of the family's DFU-mode devices.
extern const wchar_t* const kDfuWatcherName;
extern const wchar_t* const kLynxVendorToken;
extern const wchar_t* const kLynxDfuProductToken;
