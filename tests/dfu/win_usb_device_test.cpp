// SPDX-License-Identifier: Apache-2.0
// Opening a DFU-mode device through the WinUSB calls of the POSIX platform layer: which
// interface is chosen, which handles are taken and given back, and the endpoint's bounds.
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "dfu/win_usb_device.h"
#include "named_row.h"
#include "platform/posix/device_backend.h"
#include "platform/sync.h"

namespace {

const std::wstring kLink =
    L"\\\\?\\USB#VID_3C5E&PID_0F1C#5&1f2e3d4c&0&1#{a5dcbf10-6530-11d2-901f-00c04fb951ed}";

using Bytes = std::vector<std::uint8_t>;

Bytes Iface(std::uint8_t number, std::uint8_t interfaceClass) {
    return {9, 4, number, 0, 0, interfaceClass, 0, 0, 0};
}
Bytes Functional(std::uint16_t size) {
    const auto low = static_cast<std::uint8_t>(size), high = static_cast<std::uint8_t>(size >> 8);
    return {9, 0x21, 1, 0xE8, 3, low, high, 0x10, 1};
}
Bytes Config(std::uint8_t interfaces, std::initializer_list<Bytes> parts) {
    Bytes bytes = {9, 2, 0, 0, interfaces, 1, 0, 0x80, 50};
    for (const auto& part : parts) bytes.insert(bytes.end(), part.begin(), part.end());
    bytes[2] = static_cast<std::uint8_t>(bytes.size());
    return bytes;
}

// A USB device with fixed descriptors that notes what the host asks of it.
struct FakeDevice final : platform::UsbDeviceConnection {
    Bytes configuration;
    std::uint32_t deviceDescriptorLength = 18;
    platform::ErrorCode alternateSettingError = ERROR_SUCCESS;
    std::string* calls;
    std::vector<std::uint16_t>* indexes;

    platform::ErrorCode GetDescriptor(std::uint8_t type, std::uint8_t, std::uint16_t,
                                      std::uint8_t* buffer, std::uint32_t length,
                                      std::uint32_t* done) override {
        const Bytes source = type == 1 ? Bytes(deviceDescriptorLength) : configuration;
        *done = std::min<std::uint32_t>(length, source.size());
        std::copy_n(source.begin(), *done, buffer);
        return ERROR_SUCCESS;
    }
    platform::ErrorCode ClaimInterface(std::uint8_t n) override {
        *calls += " claim" + std::to_string(n);
        return ERROR_SUCCESS;
    }
    platform::ErrorCode ReleaseInterface(std::uint8_t n) override {
        *calls += " release" + std::to_string(n);
        return ERROR_SUCCESS;
    }
    platform::ErrorCode SetAlternateSetting(std::uint8_t n, std::uint8_t alt) override {
        *calls += " alt" + std::to_string(n) + "/" + std::to_string(alt);
        return alternateSettingError;
    }
    platform::ErrorCode ControlTransfer(const platform::UsbSetupPacket& setup, std::uint8_t*,
                                        std::uint32_t length, std::uint32_t* done) override {
        indexes->push_back(setup.wIndex);
        *done = length;
        return ERROR_SUCCESS;
    }
};

// Serves FakeDevice copies at kLink.
struct FakeBackend final : platform::EmptyDeviceBackend {
    FakeDevice device;
    std::vector<std::wstring> ListUsbDeviceInterfaces() override { return {kLink}; }
    platform::ErrorCode OpenUsbDevice(
        const std::wstring& path, std::unique_ptr<platform::UsbDeviceConnection>* out) override {
        if (path != kLink) return ERROR_FILE_NOT_FOUND;
        *out = std::make_unique<FakeDevice>(device);
        return ERROR_SUCCESS;
    }
};

struct SelectionCase {
    const char* name;
    Bytes configuration;
    platform::ErrorCode alternateSettingError;
    std::string callsWhileOpening;
    int dfuInterface;  // -1: not open
    std::uint16_t transferSize;
    std::uint32_t deviceDescriptorLength = 18;
};

class InterfaceSelection : public testing::TestWithParam<SelectionCase> {};

TEST_P(InterfaceSelection, ChoosesTheFirstDfuInterfaceAndGivesBackEveryOtherHandle) {
    const auto& c = GetParam();
    auto backend = std::make_shared<FakeBackend>();
    std::string calls;
    std::vector<std::uint16_t> indexes;
    backend->device.configuration = c.configuration;
    backend->device.deviceDescriptorLength = c.deviceDescriptorLength;
    backend->device.alternateSettingError = c.alternateSettingError;
    backend->device.calls = &calls;
    backend->device.indexes = &indexes;
    platform::InstallBackend(backend);

    auto device = std::make_unique<dfu::WinUsbDevice>(kLink);
    EXPECT_EQ(device->IsOpen(), c.dfuInterface >= 0);
    EXPECT_EQ(calls, c.callsWhileOpening);
    if (c.dfuInterface >= 0) {
        auto endpoint = device->AcquireControlEndpoint();
        EXPECT_EQ(endpoint->GetMaxTransferSize(), c.transferSize);
        Bytes buffer(c.transferSize + 1u);
        WINUSB_SETUP_PACKET packet{0x21, 1, 0, 0x77, c.transferSize};
        EXPECT_EQ(endpoint->Transfer(packet, buffer.data(), c.transferSize), S_OK);
        EXPECT_EQ(packet.Index, c.dfuInterface);
        packet.Length++;
        EXPECT_EQ(endpoint->Transfer(packet, buffer.data(), c.transferSize + 1u),
                  static_cast<HRESULT>(0x80070018u));
        EXPECT_EQ(indexes, std::vector<std::uint16_t>{static_cast<std::uint16_t>(c.dfuInterface)})
            << "only the first transfer may reach the bus";

        auto second = device->AcquireControlEndpoint();
        device->Close();
        device->Close();
        // The DFU interface's handle is held until Close, and given back before the first's.
        const std::string dfuRelease =
            c.dfuInterface > 0 ? " release" + std::to_string(c.dfuInterface) : "";
        EXPECT_EQ(calls, c.callsWhileOpening + dfuRelease + " release0");
        device.reset();  // the endpoints outlive their device and must not touch it
        for (const auto& e : {endpoint, second}) {
            EXPECT_FALSE(e->IsConnected());
            EXPECT_EQ(e->Transfer(packet, buffer.data(), 1), E_HANDLE);
        }
        EXPECT_EQ(indexes.size(), 1u);
    }
    platform::InstallBackend(nullptr);
}

const Bytes kPlainDfu = Config(1, {Iface(0, 0xFE), Functional(64)});
const Bytes kThirdDfu = Config(3, {Iface(0, 14), Iface(1, 14), Iface(2, 0xFE), Functional(1024)});

INSTANTIATE_TEST_SUITE_P(
    Cases, InterfaceSelection,
    testing::Values(
        SelectionCase{"DfuOnInterface0", Config(1, {Iface(0, 0xFE), Functional(512)}),
                      ERROR_SUCCESS, " claim0 alt0/0", 0, 512},
        SelectionCase{"DfuOnThirdInterface", kThirdDfu, ERROR_SUCCESS,
                      " claim0 claim1 release1 claim2 alt2/0", 2, 1024},
        // WinUSB takes no data stage above 4 KB; DFU lets blocks be shorter than wTransferSize.
        SelectionCase{"TransferSizeAbove4K",
                      Config(2, {Iface(0, 14), Iface(1, 0xFE), Functional(8192)}), ERROR_SUCCESS,
                      " claim0 claim1 alt1/0", 1, 4096},
        // The first functional descriptor of the configuration counts, wherever it is.
        SelectionCase{"FunctionalDescriptorOfAnotherInterface",
                      Config(2, {Iface(0, 14), Functional(256), Iface(1, 0xFE), Functional(4096)}),
                      ERROR_SUCCESS, " claim0 claim1 alt1/0", 1, 256},
        SelectionCase{"NoDfuInterface", Config(2, {Iface(0, 14), Functional(64), Iface(1, 14)}),
                      ERROR_SUCCESS, " claim0 claim1 release1 release0", -1, 0},
        SelectionCase{"NoFunctionalDescriptor", Config(1, {Iface(0, 0xFE)}), ERROR_SUCCESS,
                      " claim0 release0", -1, 0},
        SelectionCase{"FunctionalDescriptorCutShort", Bytes(kPlainDfu.begin(), kPlainDfu.end() - 2),
                      ERROR_SUCCESS, " claim0 release0", -1, 0},
        SelectionCase{"ShortDeviceDescriptor", kPlainDfu, ERROR_SUCCESS, " claim0 release0", -1, 0,
                      10},
        SelectionCase{"AlternateSettingStalls", kPlainDfu, ERROR_GEN_FAILURE,
                      " claim0 alt0/0 release0", -1, 0},
        SelectionCase{"AlternateSettingOfThirdInterfaceStalls", kThirdDfu, ERROR_GEN_FAILURE,
                      " claim0 claim1 release1 claim2 alt2/0 release2 release0", -1, 0}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
