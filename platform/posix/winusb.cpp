// SPDX-License-Identifier: Apache-2.0
// CreateFileW and the WinUSB calls over the backend's USB devices.
//
// As with the real driver, an interface handle is tied to the file handle it came from:
// the device stays open until the file handle and every interface handle are released.
#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/common/real_calls.h"
#include "platform/common/wide_stream.h"
#include "platform/files.h"
#include "platform/posix/device_backend.h"
#include "platform/posix/kernel_object.h"
#include "platform/usb_descriptors.h"
#include "platform/winusb.h"

namespace {

constexpr std::uint32_t kConfigurationReadLength = 4096;
// WinUsb_ControlTransfer: "The length of this buffer must not exceed 4KB."
constexpr ULONG kLargestControlBuffer = 4096;
constexpr UCHAR kRecipientMask = 0x1F;
constexpr UCHAR kRecipientInterface = 1;

class UsbFileObject final : public platform::posix::KernelObject {
  public:
    explicit UsbFileObject(std::unique_ptr<platform::UsbDeviceConnection> connection)
        : connection(std::move(connection)) {}
    std::unique_ptr<platform::UsbDeviceConnection> connection;
    // Interfaces with a handle out; WinUSB hands out one handle per interface.
    std::set<std::uint8_t> handedOut;
};

// What a WINUSB_INTERFACE_HANDLE points at. The tag lets a stray pointer be refused
// instead of being used.
struct UsbInterfaceObject {
    static constexpr std::uint32_t kTag = 0x57555342;  // "WUSB"
    std::uint32_t tag = kTag;
    UsbFileObject* file = nullptr;  // holds a reference
    std::uint8_t interfaceNumber = 0;
    bool first = false;
};

BOOL Fail(DWORD error) {
    SetLastError(error);
    return FALSE;
}

UsbInterfaceObject* FromInterfaceHandle(WINUSB_INTERFACE_HANDLE handle) {
    auto* object = static_cast<UsbInterfaceObject*>(handle);
    if (object == nullptr || object->tag != UsbInterfaceObject::kTag) return nullptr;
    return object;
}

// The interface descriptors of the active configuration, in the order they appear.
platform::ErrorCode ReadInterfaceDescriptors(platform::UsbDeviceConnection& connection,
                                             std::vector<USB_INTERFACE_DESCRIPTOR>* interfaces) {
    std::vector<std::uint8_t> bytes(kConfigurationReadLength, 0);
    std::uint32_t transferred = 0;
    const platform::ErrorCode error =
        connection.GetDescriptor(usb::USB_DT_CONFIG, 0, 0, bytes.data(),
                                 static_cast<std::uint32_t>(bytes.size()), &transferred);
    if (error != ERROR_SUCCESS) return error;
    const std::size_t length = std::min<std::size_t>(transferred, bytes.size());
    usb::WalkDescriptors(bytes.data(), length, [&](const usb::usb_descriptor_header& d) {
        if (d.bDescriptorType == usb::USB_DT_INTERFACE &&
            d.bLength >= sizeof(USB_INTERFACE_DESCRIPTOR)) {
            USB_INTERFACE_DESCRIPTOR descriptor;
            std::copy_n(d.bytes, sizeof descriptor, reinterpret_cast<std::uint8_t*>(&descriptor));
            interfaces->push_back(descriptor);
        }
        return true;
    });
    return ERROR_SUCCESS;
}

// Interface numbers in order of first appearance.
std::vector<std::uint8_t> InterfaceNumbers(const std::vector<USB_INTERFACE_DESCRIPTOR>& all) {
    std::vector<std::uint8_t> numbers;
    for (const auto& descriptor : all) {
        if (std::find(numbers.begin(), numbers.end(), descriptor.bInterfaceNumber) ==
            numbers.end()) {
            numbers.push_back(descriptor.bInterfaceNumber);
        }
    }
    return numbers;
}

BOOL NewInterface(UsbFileObject* file, std::uint8_t interfaceNumber, bool first,
                  PWINUSB_INTERFACE_HANDLE result) {
    // WinUsb_GetAssociatedInterface: "If the caller attempts to retrieve more than one handle
    // for the same interface, the routine will fail with an error of ERROR_ALREADY_EXISTS."
    if (file->handedOut.contains(interfaceNumber)) return Fail(ERROR_ALREADY_EXISTS);
    const platform::ErrorCode error = file->connection->ClaimInterface(interfaceNumber);
    if (error != ERROR_SUCCESS) return Fail(error);
    file->handedOut.insert(interfaceNumber);
    file->Ref();
    auto* object = new UsbInterfaceObject;
    object->file = file;
    object->interfaceNumber = interfaceNumber;
    object->first = first;
    *result = object;
    return TRUE;
}

}  // namespace

// Names in the device namespace reach the backend's USB devices; every other name is a file
// of this machine, which the same call opens on Windows.
HANDLE platform::real::CreateFileW(LPCWSTR fileName, DWORD desiredAccess, DWORD,
                                   LPSECURITY_ATTRIBUTES, DWORD creationDisposition, DWORD,
                                   HANDLE) {
    if (fileName == nullptr || *fileName == L'\0') {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    const std::wstring_view name(fileName);
    if (!name.starts_with(LR"(\\?\)") && !name.starts_with(LR"(\\.\)")) {
        return platform::posix::OpenLocalFile(platform::WideToUtf8(name).c_str(), desiredAccess,
                                              creationDisposition);
    }
    std::unique_ptr<platform::UsbDeviceConnection> connection;
    const platform::ErrorCode error = platform::Backend().OpenUsbDevice(fileName, &connection);
    if (error != ERROR_SUCCESS || !connection) {
        SetLastError(error != ERROR_SUCCESS ? error : ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    return platform::posix::ToHandle(new UsbFileObject(std::move(connection)));
}

BOOL platform::real::WinUsb_Initialize(HANDLE deviceHandle,
                                       PWINUSB_INTERFACE_HANDLE interfaceHandle) {
    if (interfaceHandle == nullptr) return Fail(ERROR_INVALID_PARAMETER);
    *interfaceHandle = nullptr;
    auto* file = dynamic_cast<UsbFileObject*>(platform::posix::FromHandle(deviceHandle));
    if (file == nullptr) return Fail(ERROR_INVALID_HANDLE);
    std::vector<USB_INTERFACE_DESCRIPTOR> interfaces;
    const platform::ErrorCode error = ReadInterfaceDescriptors(*file->connection, &interfaces);
    if (error != ERROR_SUCCESS) return Fail(error);
    const auto numbers = InterfaceNumbers(interfaces);
    if (numbers.empty()) return Fail(ERROR_NOT_SUPPORTED);
    return NewInterface(file, numbers.front(), true, interfaceHandle);
}

BOOL platform::real::WinUsb_Free(WINUSB_INTERFACE_HANDLE interfaceHandle) {
    auto* object = FromInterfaceHandle(interfaceHandle);
    if (object == nullptr) return Fail(ERROR_INVALID_HANDLE);
    object->file->connection->ReleaseInterface(object->interfaceNumber);
    object->file->handedOut.erase(object->interfaceNumber);
    object->file->Unref();
    object->tag = 0;
    delete object;
    return TRUE;
}

BOOL platform::real::WinUsb_GetDescriptor(WINUSB_INTERFACE_HANDLE interfaceHandle,
                                          UCHAR descriptorType, UCHAR index, USHORT languageId,
                                          PUCHAR buffer, ULONG bufferLength,
                                          PULONG lengthTransferred) {
    auto* object = FromInterfaceHandle(interfaceHandle);
    if (object == nullptr) return Fail(ERROR_INVALID_HANDLE);
    if (lengthTransferred == nullptr || (buffer == nullptr && bufferLength > 0)) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    std::uint32_t transferred = 0;
    const platform::ErrorCode error = object->file->connection->GetDescriptor(
        descriptorType, index, languageId, buffer, bufferLength, &transferred);
    *lengthTransferred = std::min<ULONG>(transferred, bufferLength);
    if (error != ERROR_SUCCESS) return Fail(error);
    return TRUE;
}

BOOL platform::real::WinUsb_QueryInterfaceSettings(WINUSB_INTERFACE_HANDLE interfaceHandle,
                                                   UCHAR alternateInterfaceNumber,
                                                   PUSB_INTERFACE_DESCRIPTOR descriptor) {
    auto* object = FromInterfaceHandle(interfaceHandle);
    if (object == nullptr) return Fail(ERROR_INVALID_HANDLE);
    if (descriptor == nullptr) return Fail(ERROR_INVALID_PARAMETER);
    std::vector<USB_INTERFACE_DESCRIPTOR> interfaces;
    const platform::ErrorCode error =
        ReadInterfaceDescriptors(*object->file->connection, &interfaces);
    if (error != ERROR_SUCCESS) return Fail(error);
    for (const auto& candidate : interfaces) {
        if (candidate.bInterfaceNumber == object->interfaceNumber &&
            candidate.bAlternateSetting == alternateInterfaceNumber) {
            *descriptor = candidate;
            return TRUE;
        }
    }
    return Fail(ERROR_NO_MORE_ITEMS);
}

BOOL platform::real::WinUsb_GetAssociatedInterface(WINUSB_INTERFACE_HANDLE interfaceHandle,
                                                   UCHAR associatedInterfaceIndex,
                                                   PWINUSB_INTERFACE_HANDLE associatedHandle) {
    auto* object = FromInterfaceHandle(interfaceHandle);
    if (object == nullptr || !object->first) return Fail(ERROR_INVALID_HANDLE);
    if (associatedHandle == nullptr) return Fail(ERROR_INVALID_PARAMETER);
    *associatedHandle = nullptr;
    std::vector<USB_INTERFACE_DESCRIPTOR> interfaces;
    const platform::ErrorCode error =
        ReadInterfaceDescriptors(*object->file->connection, &interfaces);
    if (error != ERROR_SUCCESS) return Fail(error);
    const auto numbers = InterfaceNumbers(interfaces);
    const std::size_t position = std::size_t{associatedInterfaceIndex} + 1;
    if (position >= numbers.size()) return Fail(ERROR_NO_MORE_ITEMS);
    return NewInterface(object->file, numbers[position], false, associatedHandle);
}

BOOL platform::real::WinUsb_SetCurrentAlternateSetting(WINUSB_INTERFACE_HANDLE interfaceHandle,
                                                       UCHAR settingNumber) {
    auto* object = FromInterfaceHandle(interfaceHandle);
    if (object == nullptr) return Fail(ERROR_INVALID_HANDLE);
    const platform::ErrorCode error =
        object->file->connection->SetAlternateSetting(object->interfaceNumber, settingNumber);
    if (error != ERROR_SUCCESS) return Fail(error);
    return TRUE;
}

BOOL platform::real::WinUsb_ControlTransfer(WINUSB_INTERFACE_HANDLE interfaceHandle,
                                            WINUSB_SETUP_PACKET setupPacket, PUCHAR buffer,
                                            ULONG bufferLength, PULONG lengthTransferred,
                                            LPOVERLAPPED overlapped) {
    auto* object = FromInterfaceHandle(interfaceHandle);
    if (object == nullptr) return Fail(ERROR_INVALID_HANDLE);
    // Completion of overlapped transfers is not offered; every caller here waits.
    if (overlapped != nullptr) return Fail(ERROR_NOT_SUPPORTED);
    if (bufferLength < setupPacket.Length || (buffer == nullptr && setupPacket.Length > 0)) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    if (bufferLength > kLargestControlBuffer || setupPacket.Length > kLargestControlBuffer) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    // "To specify the recipient of a control request as the entire device or the first
    // interface, use the handle returned by WinUsb_Initialize. For all other interfaces,
    // obtain the handle to the target interface by calling WinUsb_GetAssociatedInterface".
    if ((setupPacket.RequestType & kRecipientMask) == kRecipientInterface &&
        (setupPacket.Index & 0xFF) != object->interfaceNumber) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    const platform::UsbSetupPacket setup{setupPacket.RequestType, setupPacket.Request,
                                         setupPacket.Value, setupPacket.Index, setupPacket.Length};
    std::uint32_t transferred = 0;
    const platform::ErrorCode error =
        object->file->connection->ControlTransfer(setup, buffer, setupPacket.Length, &transferred);
    if (lengthTransferred != nullptr) *lengthTransferred = transferred;
    if (error != ERROR_SUCCESS) return Fail(error);
    return TRUE;
}
