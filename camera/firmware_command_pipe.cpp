// SPDX-License-Identifier: Apache-2.0
#include "camera/firmware_command_pipe.h"

#include <array>
#include <cstring>
#include <stdexcept>

#include "platform/sync.h"
#include "platform/usb_descriptors.h"

namespace {

using Frame = std::array<std::uint8_t, kCommandFrameSize>;

using usb::Le32;
// The header of a frame; the bytes after the header and data stay zero.
void FillHeader(Frame& frame, std::size_t dataLength, std::uint32_t opcode,
                std::uint32_t parameter1, std::uint32_t parameter2, std::uint32_t parameter3,
                std::uint32_t parameter4) {
    usb::StoreLe(frame.data(), static_cast<std::uint16_t>(20 + dataLength));
    frame[2] = 0xAB;
    frame[3] = 0xCD;
    usb::StoreLe(&frame[4], opcode, parameter1, parameter2, parameter3, parameter4);
}

}  // namespace

FirmwareCommandPipe::FirmwareCommandPipe(Microsoft::WRL::ComPtr<IKsControl> control,
                                         const GUID& propertySet, ULONG controlSelector)
    : command(std::move(control), propertySet, controlSelector) {}

HRESULT FirmwareCommandPipe::Transfer(ULONG flags, std::uint8_t* frame, ULONG* returned) {
    *returned = 0;
    if (!command.control) return E_FAIL;
    KSPROPERTY property{};
    property.Set = command.propertySet;
    property.Id = command.controlSelector;
    property.Flags = flags;
    return command.control->KsProperty(&property, sizeof(property), frame,
                                       static_cast<ULONG>(kCommandFrameSize), returned);
}

HRESULT FirmwareCommandPipe::SendCommand(std::uint32_t opcode, const std::uint8_t* data,
                                         std::size_t dataLength, std::uint32_t parameter1,
                                         std::uint32_t parameter2, std::uint32_t parameter3,
                                         std::uint32_t parameter4) {
    if (dataLength > kMaxCommandDataSize) throw std::invalid_argument("failed to copy data");
    if (data == nullptr && dataLength != 0) return E_POINTER;
    Frame frame{};
    FillHeader(frame, dataLength, opcode, parameter1, parameter2, parameter3, parameter4);
    if (dataLength != 0) std::memcpy(&frame[kCommandHeaderSize], data, dataLength);

    ULONG returned = 0;
    HRESULT status = Transfer(KSPROPERTY_TYPE_SET, frame.data(), &returned);
    if (status != S_OK) return status;

    Frame reply{};
    status = Transfer(KSPROPERTY_TYPE_GET, reply.data(), &returned);
    if (status != S_OK) return status;
    if (returned < 4 || Le32(reply.data()) != opcode) return E_FAIL;
    return S_OK;
}

HRESULT FirmwareCommandPipe::ReadResponse(std::uint8_t* out, std::uint32_t opcode,
                                          std::size_t length, std::uint32_t parameter1,
                                          std::uint32_t parameter2, std::uint32_t parameter3,
                                          std::uint32_t parameter4) {
    if (length > kMaxResponseDataSize) return E_INVALIDARG;
    if (out == nullptr && length != 0) return E_POINTER;
    Frame frame{};
    FillHeader(frame, 0, opcode, parameter1, parameter2, parameter3, parameter4);

    ULONG returned = 0;
    HRESULT status = Transfer(KSPROPERTY_TYPE_SET, frame.data(), &returned);
    if (status != S_OK) return status;

    Sleep(kResponseDelayMs);

    Frame reply{};
    status = Transfer(KSPROPERTY_TYPE_GET, reply.data(), &returned);
    if (status != S_OK) return status;
    if (returned < length + 4 || Le32(reply.data()) != opcode) return E_FAIL;
    if (length != 0) std::memcpy(out, &reply[4], length);
    return S_OK;
}
