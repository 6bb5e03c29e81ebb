// SPDX-License-Identifier: Apache-2.0
#include "dfu/win_usb_device.h"

#include <algorithm>

#include "platform/sync.h"

namespace dfu {
namespace {

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
    std::optional<std::size_t> found;
    usb::WalkDescriptors(bytes, length, [&](const usb::usb_descriptor_header& d) {
        if (d.bLength != usb::usb_dfu_functional_descriptor::bLength ||
            d.bDescriptorType != usb::USB_DT_DFU_FUNCTIONAL) {
            return true;
        }
        found = static_cast<std::size_t>(d.bytes - bytes);
        return false;
    });
    return found;
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

template <std::size_t N>
HRESULT WinUsbDevice::ReadWholeDescriptor(UCHAR type, UCHAR (&buffer)[N]) {
    ULONG transferred = 0;
    if (!WinUsb_GetDescriptor(winUsbHandle, type, 0, 0, buffer, N, &transferred)) {
        return LastErrorStatus();
    }
    return transferred == N ? S_OK : E_FAIL;
}

HRESULT WinUsbDevice::SelectDfuInterface() {
    UCHAR deviceDescriptor[usb::usb_device_descriptor::bLength] = {};
    UCHAR configurationHeader[usb::usb_config_descriptor::bLength] = {};
    HRESULT read = ReadWholeDescriptor(usb::USB_DT_DEVICE, deviceDescriptor);
    if (read == S_OK) read = ReadWholeDescriptor(usb::USB_DT_CONFIG, configurationHeader);
    if (read != S_OK) return read;

    const unsigned interfaceCount =
        usb::usb_config_descriptor::Read(configurationHeader).bNumInterfaces;
    if (interfaceCount == 0) return E_NOINTERFACE;

    WINUSB_INTERFACE_HANDLE handle = winUsbHandle;
    for (unsigned k = 0;; ++k) {
        USB_INTERFACE_DESCRIPTOR descriptor{};
        if (!WinUsb_QueryInterfaceSettings(handle, 0, &descriptor)) {
            const HRESULT status = LastErrorStatus();
            if (handle != winUsbHandle) WinUsb_Free(handle);
            return status;
        }
        if (descriptor.bInterfaceClass == usb::USB_CLASS_APP_SPEC) {
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
    ULONG transferred = 0;
    if (!WinUsb_GetDescriptor(winUsbHandle, usb::USB_DT_CONFIG, 0, 0, configuration.data(),
                              kConfigurationBufferLength, &transferred)) {
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
    dfuFunctional = usb::usb_dfu_functional_descriptor::Read(configuration.data() + *found);

    if (!WinUsb_SetCurrentAlternateSetting(dfuInterfaceHandle, dfuAlternateSetting)) {
        const HRESULT status = LastErrorStatus();
        ReleaseDfuInterfaceHandle();
        return status;
    }
    // The handle stays for the endpoints: it is the one their requests must go through.
    return S_OK;
}

std::shared_ptr<usb_core::IUsbControlEndpoint> WinUsbDevice::AcquireControlEndpoint() {
    const std::uint16_t transferSize =
        std::min(dfuFunctional.wTransferSize, kLargestControlDataStage);
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
