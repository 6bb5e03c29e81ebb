// SPDX-License-Identifier: Apache-2.0
// The engine against an endpoint double: the exact requests it sends, and answers that
// the lab's device never gives.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <utility>

#include "dfu/dfu_command.h"
#include "platform/sync.h"

namespace {

// Answers like a lenient device (dfuIDLE, then whatever the last download asks for) and
// records every packet it is sent.
struct EndpointDouble final : usb_core::IUsbControlEndpoint {
    explicit EndpointDouble(std::uint16_t transferSize) : transferSize(transferSize) {}
    bool IsConnected() override { return true; }
    void Disconnect() override {}
    std::uint16_t GetMaxTransferSize() override { return transferSize; }

    HRESULT Transfer(WINUSB_SETUP_PACKET& p, PUCHAR buffer, std::uint64_t length) override {
        packets.push_back(p);
        EXPECT_EQ(length, p.Length);
        EXPECT_EQ(buffer != nullptr, p.Length > 0);
        if (p.Request == 5) buffer[0] = 2;
        if (p.Request == 1) state = p.Length == 0 ? 8 : 5;
        if (p.Request == 3) {
            const UCHAR reply[6] = {statusByte, 0, 0, 0, state, 0};
            std::copy_n(reply, std::min<std::uint64_t>(length, delivered), buffer);
        }
        return S_OK;
    }
    std::size_t Count(UCHAR request) const {
        return std::count_if(packets.begin(), packets.end(),
                             [&](const auto& p) { return p.Request == request; });
    }

    std::uint16_t transferSize;
    std::vector<WINUSB_SETUP_PACKET> packets;
    UCHAR state = 2;
    UCHAR statusByte = 0;
    std::uint64_t delivered = 6;
};

// Blocks of the transfer size numbered from zero modulo 65536, a short last block, then the
// empty closing download numbered one past the last block.
TEST(DfuCommandLogic, BlocksNumberedFromZeroThenTheClosingDownload) {
    // Transfer size, image size: empty, a short last block, an exact multiple, numbers wrapping.
    const std::pair<std::uint16_t, std::size_t> rows[] = {{64, 0}, {4, 10}, {8, 24}, {1, 65538}};
    for (const auto& [transferSize, imageSize] : rows) {
        SCOPED_TRACE(imageSize);
        auto endpoint = std::make_shared<EndpointDouble>(transferSize);
        const std::vector<std::uint8_t> image(imageSize, 0x5A);
        ASSERT_EQ(dfu::DfuCommand(nullptr, endpoint).Execute(image.data(), image.size()), S_OK);

        std::size_t sent = 0, blocks = 0, closings = 0, wrongBlocks = 0;
        for (const auto& packet : endpoint->packets) {
            EXPECT_EQ(packet.Index, 0) << "wIndex is the endpoint's to fill in";
            if (packet.Request != 1) continue;
            const std::size_t length = std::min<std::size_t>(transferSize, imageSize - sent);
            wrongBlocks += packet.Value != static_cast<USHORT>(blocks) || packet.Length != length;
            closings += length == 0;
            sent += length;
            ++blocks;
        }
        EXPECT_EQ(wrongBlocks, 0u);
        EXPECT_EQ(sent, imageSize);
        EXPECT_EQ(closings, 1u);
        // One poll per block, the manifestation poll and the last status; no upload.
        EXPECT_EQ(endpoint->Count(3), blocks + 1);
        EXPECT_EQ(endpoint->Count(2), 0u);
    }
}

TEST(DfuCommandLogic, NothingIsSentWithoutATransferSize) {
    const std::uint8_t image[4] = {1, 2, 3, 4};
    auto noRoom = std::make_shared<EndpointDouble>(0);
    std::ostringstream log;
    EXPECT_EQ(dfu::DfuCommand(&log, noRoom).Execute(image, sizeof image), E_FAIL);
    EXPECT_EQ(noRoom->Count(1), 0u);
    EXPECT_EQ(log.str(),
              "DownloadImage(reinterpret_cast<const BYTE *>(firmwareImage), "
              "imageLength) Failed with status-2147467259\n");
}

TEST(DfuWaits, AnswersThatReadAsErrorsEndTheWaitAtOnce) {
    // bStatus, bState, bytes delivered: awaited state with an error status, dfuERROR,
    // a success with nothing delivered, a reply cut before bState.
    const std::tuple<UCHAR, UCHAR, std::uint64_t> cases[] = {
        {1, 5, 6}, {0, 10, 6}, {0, 5, 0}, {0, 5, 4}};
    for (const auto& [statusByte, state, delivered] : cases) {
        auto endpoint = std::make_shared<EndpointDouble>(64);
        endpoint->statusByte = statusByte;
        endpoint->state = state;
        endpoint->delivered = delivered;
        EXPECT_EQ(
            dfu::DfuCommand(nullptr, endpoint).WaitForState(dfu::DFU_STATE::dfuDNLOAD_IDLE, 5000),
            E_FAIL);
        EXPECT_EQ(endpoint->Count(3), 1u);
    }
}

}  // namespace
