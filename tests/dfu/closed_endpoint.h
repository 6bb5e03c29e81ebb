// SPDX-License-Identifier: Apache-2.0
// A run of the engine on a typed image path, over an endpoint that is already closed: a run
// that got as far as the endpoint has read the image, and stops there without a request.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>

#include "dfu/dfu_command.h"

namespace {

struct ClosedEndpoint final : usb_core::IUsbControlEndpoint {
    HRESULT Transfer(WINUSB_SETUP_PACKET&, PUCHAR, std::uint64_t) override { return E_FAIL; }
    bool IsConnected() override { return false; }
    void Disconnect() override {}
    std::uint16_t GetMaxTransferSize() override { return 64; }
};

// The run's log: empty when the image was read, and then the endpoint's E_ACCESSDENIED.
std::string ReadImage(const std::string& typed) {
    std::ostringstream log;
    const HRESULT status =
        dfu::DfuCommand(&log, std::make_shared<ClosedEndpoint>()).ExecuteFile(typed.c_str());
    EXPECT_EQ(status, log.str().empty() ? E_ACCESSDENIED : E_FAIL);
    return log.str();
}

}  // namespace
