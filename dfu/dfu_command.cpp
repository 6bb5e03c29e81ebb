// SPDX-License-Identifier: Apache-2.0
#include "dfu/dfu_command.h"

#include <algorithm>
#include <string>
#include <vector>

#include "dfu/image_path.h"
#include "platform/sync.h"

namespace dfu {
namespace {

constexpr UCHAR kHostToDeviceClassInterface = 0x21;
constexpr UCHAR kDeviceToHostClassInterface = 0xA1;
constexpr UCHAR kDfuDetach = 0;
constexpr UCHAR kDfuDnload = 1;
constexpr UCHAR kDfuUpload = 2;
constexpr UCHAR kDfuGetStatus = 3;
constexpr UCHAR kDfuGetState = 5;
constexpr USHORT kDetachTimeoutMs = 1000;
constexpr DWORD kPollIntervalMs = 200;
constexpr UCHAR kErrUnknown = 14;

// wIndex stays 0: the endpoint owns it and writes the DFU interface number there.
WINUSB_SETUP_PACKET Packet(UCHAR requestType, UCHAR request, USHORT value, USHORT length) {
    WINUSB_SETUP_PACKET packet{};
    packet.RequestType = requestType;
    packet.Request = request;
    packet.Value = value;
    packet.Index = 0;
    packet.Length = length;
    return packet;
}

}  // namespace

DfuCommand::DfuCommand(std::ostream* log,
                       std::shared_ptr<usb_core::IUsbControlEndpoint> usbEndpoint,
                       std::uint64_t fwStatusSize)
    : DfuLogger(log), usbEndpoint(std::move(usbEndpoint)), fwStatusSize(fwStatusSize) {}

HRESULT DfuCommand::ExecuteFile(const char* path) {
    std::string filePath = path != nullptr ? path : "";
    if (filePath.size() >= 2 && filePath.front() == '"' && filePath.back() == '"') {
        filePath = filePath.substr(1, filePath.size() - 2);
    } else if (filePath == "\"") {
        filePath.clear();
    }

    const FileHandle file = OpenImageFile(filePath);
    if (!file.IsOpen()) {
        LogLine("Failed to open file ", filePath);
        return E_FAIL;
    }
    ImageBytes image;
    if (!ReadImage(file, &image)) {
        LogLine("Failed to read file");
        return E_FAIL;
    }
    return Execute(image.data.get(), image.size);
}

HRESULT DfuCommand::Execute(const void* firmwareImage, std::uint64_t imageLength) {
    if (!usbEndpoint || !usbEndpoint->IsConnected()) return E_ACCESSDENIED;

    UCHAR state = 0;
    LYNX_CHECK_STEP("GetDfuState(state)", GetDfuState(state));
    LYNX_CHECK_STEP("Detach()", Detach());
    LYNX_CHECK_STEP("AssertState(DFU_STATE::dfuIDLE)", AssertState(DFU_STATE::dfuIDLE));
    LYNX_CHECK_STEP("TestConnection()", TestConnection());
    LYNX_CHECK_STEP("DownloadImage(reinterpret_cast<const BYTE *>(firmwareImage), imageLength)",
                    DownloadImage(reinterpret_cast<const BYTE*>(firmwareImage), imageLength));
    LYNX_CHECK_STEP("ManifestAndReset()", ManifestAndReset());
    return S_OK;
}

HRESULT DfuCommand::GetDfuState(UCHAR& state) {
    state = 0;
    WINUSB_SETUP_PACKET packet = Packet(kDeviceToHostClassInterface, kDfuGetState, 0, 1);
    LYNX_CHECK_STEP(
        "usbEndpoint->Transfer(packet, reinterpret_cast<PUCHAR>(&state), sizeof(UCHAR))",
        usbEndpoint->Transfer(packet, reinterpret_cast<PUCHAR>(&state), sizeof(UCHAR)));
    return S_OK;
}

HRESULT DfuCommand::Detach() {
    WINUSB_SETUP_PACKET packet =
        Packet(kHostToDeviceClassInterface, kDfuDetach, kDetachTimeoutMs, 0);
    LYNX_CHECK_STEP("usbEndpoint->Transfer(packet, nullptr, 0)",
                    usbEndpoint->Transfer(packet, nullptr, 0));
    return S_OK;
}

HRESULT DfuCommand::AssertState(DFU_STATE expected) {
    UCHAR state = 0;
    LYNX_CHECK_STEP("GetDfuState(state)", GetDfuState(state));
    return state == static_cast<UCHAR>(expected) ? S_OK : E_FAIL;
}

HRESULT DfuCommand::TestConnection() {
    if (fwStatusSize == 0) return S_OK;
    std::vector<UCHAR> fwStatus(fwStatusSize, 0);
    WINUSB_SETUP_PACKET packet = Packet(kDeviceToHostClassInterface, kDfuUpload, 0,
                                        static_cast<USHORT>(fwStatusSize & 0xFFFF));
    LYNX_CHECK_STEP(
        "usbEndpoint->Transfer(packet, reinterpret_cast<PUCHAR>(fwStatus.data()), fwStatusSize)",
        usbEndpoint->Transfer(packet, reinterpret_cast<PUCHAR>(fwStatus.data()), fwStatusSize));
    return S_OK;
}

HRESULT DfuCommand::GetStatus(DfuStatus& status) {
    // Bytes the device does not deliver must read as an error.
    status = DfuStatus{kErrUnknown, {0, 0, 0}, static_cast<std::uint8_t>(DFU_STATE::dfuERROR), 0};
    WINUSB_SETUP_PACKET packet =
        Packet(kDeviceToHostClassInterface, kDfuGetStatus, 0, sizeof(DfuStatus));
    return usbEndpoint->Transfer(packet, reinterpret_cast<PUCHAR>(&status), sizeof(DfuStatus));
}

HRESULT DfuCommand::WaitForState(DFU_STATE awaited, std::uint32_t timeLimitMs) {
    const ULONGLONG start = GetTickCount64();
    while (true) {
        DfuStatus status{};
        if (GetStatus(status) == S_OK) {
            if (status.bStatus == 0 && status.bState == static_cast<std::uint8_t>(awaited)) {
                return S_OK;
            }
            if (status.bState == static_cast<std::uint8_t>(DFU_STATE::dfuERROR) ||
                status.bStatus != 0) {
                return E_FAIL;
            }
        }
        // A failed poll is retried: a device may not answer while it writes flash.
        Sleep(kPollIntervalMs);
        if (GetTickCount64() - start >= timeLimitMs) return E_FAIL;
    }
}

HRESULT DfuCommand::DownloadImage(const BYTE* firmwareImage, std::uint64_t imageLength) {
    const std::uint16_t limit = usbEndpoint->GetMaxTransferSize();
    // With no room for data the loop would never advance.
    if (limit == 0) return E_FAIL;

    if (imageLength == 0) {
        WINUSB_SETUP_PACKET closing = Packet(kHostToDeviceClassInterface, kDfuDnload, 0, 0);
        usbEndpoint->Transfer(closing, nullptr, 0);
        return S_OK;
    }

    std::uint16_t blockNumber = 0;
    const BYTE* pBuffer = firmwareImage;
    std::uint64_t remaining = imageLength;
    while (true) {
        const std::uint64_t chunkSize = std::min<std::uint64_t>(limit, remaining);
        WINUSB_SETUP_PACKET downloadPacket = Packet(kHostToDeviceClassInterface, kDfuDnload,
                                                    blockNumber, static_cast<USHORT>(chunkSize));
        // The engine never writes through the image; the endpoint takes a mutable buffer
        // only because the same call also serves reads.
        LYNX_CHECK_STEP(
            "usbEndpoint->Transfer(downloadPacket, pBuffer, chunkSize)",
            usbEndpoint->Transfer(downloadPacket, const_cast<PUCHAR>(pBuffer), chunkSize));
        LYNX_CHECK_STEP("WaitForState(DFU_STATE::dfuDNLOAD_IDLE, 5000)",
                        WaitForState(DFU_STATE::dfuDNLOAD_IDLE, 5000));
        ++blockNumber;
        remaining -= chunkSize;
        pBuffer += chunkSize;
        LogLine("Downloaded ", chunkSize, ", bytes remaining ", remaining);
        if (remaining == 0) {
            WINUSB_SETUP_PACKET closing =
                Packet(kHostToDeviceClassInterface, kDfuDnload, blockNumber, 0);
            usbEndpoint->Transfer(closing, nullptr, 0);
            return S_OK;
        }
    }
}

HRESULT DfuCommand::ManifestAndReset() {
    LYNX_CHECK_STEP("WaitForState(DFU_STATE::dfuMANIFEST_WAIT_RESET, 30000)",
                    WaitForState(DFU_STATE::dfuMANIFEST_WAIT_RESET, 30000));
    DfuStatus status{};
    GetStatus(status);
    return S_OK;
}

}  // namespace dfu
