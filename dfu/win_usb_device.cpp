#include "dfu/win_usb_device.h"

#include <algorithm>
#include <cstring>

#include "platform/sync.h"

namespace dfu {
namespace {

constexpr UCHAR kDeviceDescriptorType = 1;
constexpr UCHAR kConfigurationDescriptorType = 2;
constexpr UCHAR kDfuFunctionalDescriptorType = 0x21;
constexpr UCHAR kApplicationSpecificClass = 0xFE;
constexpr std::size_t kDfuFunctionalDescriptorLength = 9;
constexpr ULONG kConfigurationBufferLength = 1024;
constexpr HRESULT kBadLength = static_cast<HRESULT>(0x80070018u);
// WinUsb_ControlTransfer: "The length of this buffer must not exceed 4KB." DFU 1.1 lets a
// host send blocks shorter than wTransferSize, so a larger transfer size is simply not used
// whole. usbfs on older kernels has the same page-sized limit.
constexpr std::uint16_t kLargestControlDataStage = 4096;

// A failed call that leaves no error behind, or a read that came back short, must still
// fail: otherwise the device would count as open with no DFU interface chosen.
HRESULT LastErrorStatus() {
    const HRESULT status = platform::HResultFromError(GetLastError());
    return status < 0 ? status : E_FAIL;
}

bool IsHandle(HANDLE handle) {
    return handle != nullptr && handle != INVALID_HANDLE_VALUE;
}

}  // namespace

std::optional<std::size_t> FindDfuFunctionalDescriptor(const std::uint8_t* bytes,
                                                       std::size_t length) {
    std::size_t offset = 0;
    while (offset + 1 < length) {
        const std::size_t descriptorLength = bytes[offset];
        if (descriptorLength == 0) return std::nullopt;
        if (descriptorLength == kDfuFunctionalDescriptorLength &&
            bytes[offset + 1] == kDfuFunctionalDescriptorType &&
            length - offset >= kDfuFunctionalDescriptorLength) {
            return offset;
        }
        offset += descriptorLength;
    }
    return std::nullopt;
}

WinUsbControlEndpoint::WinUsbControlEndpoint(std::uint8_t interfaceNumber,
                                             std::uint16_t transferSize, WinUsbDevice* device)
    : connected(true),
      interfaceNumber(interfaceNumber),
      transferSize(transferSize),
      device(device) {}

HRESULT WinUsbControlEndpoint::Transfer(WINUSB_SETUP_PACKET& packet, PUCHAR buffer,
                                        std::uint64_t length) {
    if (!IsConnected()) return E_HANDLE;
    if (length > transferSize) return kBadLength;
    packet.Index = interfaceNumber;
    ULONG transferred = 0;
    // WinUsb_ControlTransfer: "To specify the recipient of a control request as the entire
    // device or the first interface, use the handle returned by WinUsb_Initialize. For all
    // other interfaces, obtain the handle to the target interface by calling
    // WinUsb_GetAssociatedInterface". Every DFU request is addressed to the DFU interface.
    if (WinUsb_ControlTransfer(device->dfuInterfaceHandle, packet, buffer,
                               static_cast<ULONG>(length), &transferred, nullptr)) {
        return S_OK;
    }
    return LastErrorStatus();
}

bool WinUsbControlEndpoint::IsConnected() {
    return connected;
}

void WinUsbControlEndpoint::Disconnect() {
    connected = false;
}

std::uint16_t WinUsbControlEndpoint::GetMaxTransferSize() {
    return transferSize;
}

WinUsbDevice::WinUsbDevice(std::wstring link) : symbolicLink(std::move(link)) {
    fileHandle = CreateFileW(symbolicLink.c_str(), GENERIC_READ | GENERIC_WRITE,
                             FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                             FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OVERLAPPED, nullptr);
    if (fileHandle == INVALID_HANDLE_VALUE) return;

    if (!WinUsb_Initialize(fileHandle, &winUsbHandle)) {
        winUsbHandle = nullptr;
        CloseHandle(fileHandle);
        fileHandle = nullptr;
        return;
    }

    if (SelectDfuInterface() < 0) {
        WinUsb_Free(winUsbHandle);
        winUsbHandle = nullptr;
        CloseHandle(fileHandle);
        fileHandle = nullptr;
        return;
    }
    open = true;
}

WinUsbDevice::~WinUsbDevice() {
    Close();
}

void WinUsbDevice::ReleaseDfuInterfaceHandle() {
    if (dfuInterfaceHandle != nullptr && dfuInterfaceHandle != winUsbHandle) {
        WinUsb_Free(dfuInterfaceHandle);
    }
    dfuInterfaceHandle = nullptr;
}

HRESULT WinUsbDevice::SelectDfuInterface() {
    ULONG transferred = 0;
    if (!WinUsb_GetDescriptor(winUsbHandle, kDeviceDescriptorType, 0, 0, deviceDescriptor,
                              sizeof deviceDescriptor, &transferred)) {
        return LastErrorStatus();
    }
    if (transferred != sizeof deviceDescriptor) return E_FAIL;

    transferred = 0;
    if (!WinUsb_GetDescriptor(winUsbHandle, kConfigurationDescriptorType, 0, 0, configurationHeader,
                              sizeof configurationHeader, &transferred)) {
        return LastErrorStatus();
    }
    if (transferred != sizeof configurationHeader) return E_FAIL;

    const unsigned interfaceCount = configurationHeader[4];  // bNumInterfaces
    if (interfaceCount == 0) return E_NOINTERFACE;

    WINUSB_INTERFACE_HANDLE handle = winUsbHandle;
    for (unsigned k = 0;; ++k) {
        USB_INTERFACE_DESCRIPTOR descriptor{};
        if (!WinUsb_QueryInterfaceSettings(handle, 0, &descriptor)) {
            const HRESULT status = LastErrorStatus();
            if (handle != winUsbHandle) WinUsb_Free(handle);
            return status;
        }
        if (descriptor.bInterfaceClass == kApplicationSpecificClass) {
            dfuInterfaceNumber = descriptor.bInterfaceNumber;
            dfuAlternateSetting = descriptor.bAlternateSetting;
            dfuInterfaceHandle = handle;
            break;
        }
        if (handle != winUsbHandle) WinUsb_Free(handle);
        if (k + 1 >= interfaceCount) return E_NOINTERFACE;
        handle = nullptr;
        if (!WinUsb_GetAssociatedInterface(winUsbHandle, static_cast<UCHAR>(k), &handle)) {
            return LastErrorStatus();
        }
    }

    std::vector<UCHAR> configuration(kConfigurationBufferLength, 0);
    transferred = 0;
    if (!WinUsb_GetDescriptor(winUsbHandle, kConfigurationDescriptorType, 0, 0,
                              configuration.data(), kConfigurationBufferLength, &transferred)) {
        const HRESULT status = LastErrorStatus();
        ReleaseDfuInterfaceHandle();
        return status;
    }
    const std::size_t readLength = std::min<std::size_t>(transferred, configuration.size());
    const auto found = FindDfuFunctionalDescriptor(configuration.data(), readLength);
    if (!found) {
        ReleaseDfuInterfaceHandle();
        return E_NOINTERFACE;
    }
    std::memcpy(dfuFunctionalDescriptor, configuration.data() + *found,
                sizeof dfuFunctionalDescriptor);

    if (!WinUsb_SetCurrentAlternateSetting(dfuInterfaceHandle, dfuAlternateSetting)) {
        const HRESULT status = LastErrorStatus();
        ReleaseDfuInterfaceHandle();
        return status;
    }
    // The handle stays for the endpoints: it is the one their requests must go through.
    return S_OK;
}

std::shared_ptr<usb_core::IUsbControlEndpoint> WinUsbDevice::AcquireControlEndpoint() {
    const auto wTransferSize =
        static_cast<std::uint16_t>(dfuFunctionalDescriptor[5] | (dfuFunctionalDescriptor[6] << 8));
    const std::uint16_t transferSize = std::min(wTransferSize, kLargestControlDataStage);
    auto endpoint = std::make_shared<WinUsbControlEndpoint>(dfuInterfaceNumber, transferSize, this);
    endpoints.push_back(endpoint);
    return endpoint;
}

void WinUsbDevice::Close() {
    open = false;
    // An associated interface's handle came from the first interface's: it goes first.
    ReleaseDfuInterfaceHandle();
    if (IsHandle(winUsbHandle)) WinUsb_Free(winUsbHandle);
    winUsbHandle = nullptr;
    if (IsHandle(fileHandle)) CloseHandle(fileHandle);
    fileHandle = nullptr;
    for (const auto& endpoint : endpoints) endpoint->Disconnect();
}

}  // namespace dfu
