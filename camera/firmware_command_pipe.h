// SPDX-License-Identifier: Apache-2.0
// Firmware commands to a camera through one control of its extension unit: a command frame
// written with SET, the firmware's reply read back with GET.
#pragma once

#include <cstddef>
#include <cstdint>

#include "camera/extension_unit_ks_control.h"
#include "platform/com.h"
#include "platform/ks.h"

// Reads the device information block, which holds the firmware version.
constexpr std::uint32_t kDeviceInfoCommand = 0x10;
constexpr std::size_t kDeviceInfoSize = 230;
// Restarts the camera in DFU mode (first parameter 1).
constexpr std::uint32_t kSwitchToDfuCommand = 0x1E;

// Frame: length (16 bits), magic 0xAB 0xCD, opcode, four parameters, then the data.
constexpr std::size_t kCommandFrameSize = 1024;
constexpr std::size_t kCommandHeaderSize = 24;
constexpr std::size_t kMaxCommandDataSize = kCommandFrameSize - kCommandHeaderSize;
// A reply begins with the 4-byte echo of the opcode.
constexpr std::size_t kMaxResponseDataSize = kCommandFrameSize - 4;
// The firmware needs this long to prepare a reply that carries data.
constexpr DWORD kResponseDelayMs = 100;

class IFirmwareCommandPipe {
  public:
    // Sends a command and checks that its reply echoes the opcode. More than 1000 bytes of
    // data do not fit into a frame: std::invalid_argument.
    virtual HRESULT SendCommand(std::uint32_t opcode, const std::uint8_t* data,
                                std::size_t dataLength, std::uint32_t parameter1,
                                std::uint32_t parameter2, std::uint32_t parameter3,
                                std::uint32_t parameter4) = 0;
    // Sends a command without data and copies `length` bytes of its reply data to `out`.
    virtual HRESULT ReadResponse(std::uint8_t* out, std::uint32_t opcode, std::size_t length,
                                 std::uint32_t parameter1, std::uint32_t parameter2,
                                 std::uint32_t parameter3, std::uint32_t parameter4) = 0;
    virtual ~IFirmwareCommandPipe() = default;
};

class FirmwareCommandPipe final : public IFirmwareCommandPipe {
  public:
    FirmwareCommandPipe(Microsoft::WRL::ComPtr<IKsControl> control, const GUID& propertySet,
                        ULONG controlSelector);

    HRESULT SendCommand(std::uint32_t opcode, const std::uint8_t* data, std::size_t dataLength,
                        std::uint32_t parameter1, std::uint32_t parameter2,
                        std::uint32_t parameter3, std::uint32_t parameter4) override;
    HRESULT ReadResponse(std::uint8_t* out, std::uint32_t opcode, std::size_t length,
                         std::uint32_t parameter1, std::uint32_t parameter2,
                         std::uint32_t parameter3, std::uint32_t parameter4) override;

  private:
    // One SET or GET of the whole frame; *returned gets the bytes the control delivered.
    HRESULT Transfer(ULONG flags, std::uint8_t* frame, ULONG* returned);

    UvcCommand command;
};
