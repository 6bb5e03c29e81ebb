// The engine's own logic against an endpoint double: the exact requests it sends, and how
// it treats answers that the lab's device never gives.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "dfu/dfu_command.h"
#include "platform/sync.h"
#include "sim_lab.h"

namespace {

using testing::_;
using testing::Invoke;
using testing::NiceMock;
using testing::Return;

struct Request {
    UCHAR requestType, request;
    USHORT value, index, length;
    std::uint64_t dataLength;
    bool hasBuffer;
};

// Answers like a well-behaved device and records every request it is sent.
class EndpointDouble : public usb_core::IUsbControlEndpoint {
  public:
    explicit EndpointDouble(std::uint16_t transferSize) {
        ON_CALL(*this, IsConnected()).WillByDefault(Return(true));
        ON_CALL(*this, GetMaxTransferSize()).WillByDefault(Return(transferSize));
        ON_CALL(*this, Transfer(_, _, _))
            .WillByDefault(
                Invoke([this](WINUSB_SETUP_PACKET& p, PUCHAR buffer, std::uint64_t length) {
                    return Answer(p, buffer, length);
                }));
    }
    MOCK_METHOD(HRESULT, Transfer, (WINUSB_SETUP_PACKET&, PUCHAR, std::uint64_t), (override));
    MOCK_METHOD(bool, IsConnected, (), (override));
    MOCK_METHOD(void, Disconnect, (), (override));
    MOCK_METHOD(std::uint16_t, GetMaxTransferSize, (), (override));

    HRESULT Answer(WINUSB_SETUP_PACKET& p, PUCHAR buffer, std::uint64_t length) {
        requests.push_back(
            {p.RequestType, p.Request, p.Value, p.Index, p.Length, length, buffer != nullptr});
        if (p.Request == 5) {
            buffer[0] = 2;  // dfuIDLE
        } else if (p.Request == 1) {
            nextState = p.Length == 0 ? 8 : 5;
        } else if (p.Request == 3) {
            const UCHAR reply[6] = {statusByte, 0, 0, 0, nextState, 0};
            std::copy_n(reply, std::min<std::uint64_t>(length, statusBytesDelivered), buffer);
        }
        return S_OK;
    }

    std::size_t Count(UCHAR request) const {
        return std::count_if(requests.begin(), requests.end(),
                             [&](const Request& r) { return r.request == request; });
    }

    std::vector<Request> requests;
    UCHAR nextState = 2;
    UCHAR statusByte = 0;
    std::uint64_t statusBytesDelivered = 6;
};

struct SequenceCase {
    const char* name;
    std::uint16_t transferSize;
    std::size_t imageSize;
    std::vector<std::pair<USHORT, USHORT>> blocks;  // wValue, wLength of each data DNLOAD
    USHORT closingValue;
};

class RequestSequence : public testing::TestWithParam<SequenceCase> {};

TEST_P(RequestSequence, BlocksAndClosingDownloadAreNumberedFromZero) {
    const auto& c = GetParam();
    auto endpoint = std::make_shared<NiceMock<EndpointDouble>>(c.transferSize);
    dfu::DfuCommand command(nullptr, endpoint);
    const std::vector<std::uint8_t> image(c.imageSize, 0x5A);
    ASSERT_EQ(command.Execute(image.data(), image.size()), S_OK);

    const auto& r = endpoint->requests;
    ASSERT_GE(r.size(), 3u);
    EXPECT_EQ(std::tie(r[0].requestType, r[0].request, r[0].length), std::make_tuple(0xA1, 5, 1));
    EXPECT_EQ(std::tie(r[1].requestType, r[1].request, r[1].value, r[1].length),
              std::make_tuple(0x21, 0, 1000, 0));
    EXPECT_EQ(r[2].request, 5);
    std::vector<std::pair<USHORT, USHORT>> blocks;
    std::vector<USHORT> closing;
    for (const auto& request : r) {
        EXPECT_EQ(request.index, 0) << "the endpoint owns wIndex";
        if (request.request != 1) continue;
        EXPECT_EQ(request.requestType, 0x21);
        EXPECT_EQ(request.dataLength, request.length);
        if (request.length == 0) {
            EXPECT_FALSE(request.hasBuffer);
            closing.push_back(request.value);
        } else {
            blocks.emplace_back(request.value, request.length);
        }
    }
    EXPECT_EQ(blocks, c.blocks);
    EXPECT_EQ(closing, std::vector<USHORT>{c.closingValue});
    // One poll per block, the manifestation poll and the last status after it.
    EXPECT_EQ(endpoint->Count(3), c.blocks.size() + 2);
    EXPECT_EQ(endpoint->Count(2), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RequestSequence,
    testing::Values(SequenceCase{"Empty", 64, 0, {}, 0},
                    SequenceCase{"TenInFours", 4, 10, {{0, 4}, {1, 4}, {2, 2}}, 3},
                    SequenceCase{"ExactMultiple", 8, 24, {{0, 8}, {1, 8}, {2, 8}}, 3},
                    SequenceCase{"OneShortBlock", 4096, 5, {{0, 5}}, 1}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(DfuCommandLogic, ZeroTransferSizeFailsBeforeAnyDownload) {
    auto endpoint = std::make_shared<NiceMock<EndpointDouble>>(0);
    std::ostringstream log;
    dfu::DfuCommand command(&log, endpoint);
    const std::uint8_t image[4] = {1, 2, 3, 4};
    EXPECT_EQ(command.Execute(image, sizeof image), E_FAIL);
    EXPECT_EQ(endpoint->Count(1), 0u);
    EXPECT_EQ(log.str(),
              "DownloadImage(reinterpret_cast<const BYTE *>(firmwareImage), imageLength) Failed "
              "with status-2147467259\n");
}

TEST(DfuCommandLogic, FailedRequestsBeforeTheDownloadGiveOneLinePerLevel) {
    struct FailCase {
        UCHAR failingRequest;
        std::string log;
    };
    const FailCase cases[] = {
        {5,
         "usbEndpoint->Transfer(packet, reinterpret_cast<PUCHAR>(&state), sizeof(UCHAR)) Failed "
         "with status-2147024890\nGetDfuState(state) Failed with status-2147024890\n"},
        {0,
         "usbEndpoint->Transfer(packet, nullptr, 0) Failed with status-2147024890\nDetach() "
         "Failed with status-2147024890\n"},
        {2,
         "usbEndpoint->Transfer(packet, reinterpret_cast<PUCHAR>(fwStatus.data()), "
         "fwStatusSize) Failed with status-2147024890\nTestConnection() Failed with "
         "status-2147024890\n"},
    };
    for (const auto& c : cases) {
        auto endpoint = std::make_shared<NiceMock<EndpointDouble>>(64);
        ON_CALL(*endpoint, Transfer(_, _, _))
            .WillByDefault(Invoke([&](WINUSB_SETUP_PACKET& p, PUCHAR b, std::uint64_t n) {
                return p.Request == c.failingRequest ? E_HANDLE : endpoint->Answer(p, b, n);
            }));
        std::ostringstream log;
        dfu::DfuCommand command(&log, endpoint, 16);
        const std::uint8_t image[8] = {};
        EXPECT_EQ(command.Execute(image, sizeof image), E_HANDLE);
        EXPECT_EQ(log.str(), c.log);
        EXPECT_EQ(endpoint->Count(1), 0u);
    }
}

TEST(DfuCommandLogic, UploadLengthIsTheLow16BitsOfTheStatusSize) {
    auto endpoint = std::make_shared<NiceMock<EndpointDouble>>(64);
    dfu::DfuCommand command(nullptr, endpoint, 0x10005);
    EXPECT_EQ(command.TestConnection(), S_OK);
    ASSERT_EQ(endpoint->requests.size(), 1u);
    const auto& upload = endpoint->requests[0];
    EXPECT_EQ(std::tie(upload.requestType, upload.request, upload.value, upload.length),
              std::make_tuple(0xA1, 2, 0, 5));
    EXPECT_EQ(upload.dataLength, 0x10005u);
    EXPECT_TRUE(upload.hasBuffer);
}

// The results of the closing download and of the last status request do not count.
TEST(DfuCommandLogic, ClosingRequestsCannotFailTheRun) {
    auto endpoint = std::make_shared<NiceMock<EndpointDouble>>(64);
    int statusPolls = 0;
    ON_CALL(*endpoint, Transfer(_, _, _))
        .WillByDefault(Invoke([&](WINUSB_SETUP_PACKET& p, PUCHAR b, std::uint64_t n) {
            const HRESULT answer = endpoint->Answer(p, b, n);
            if (p.Request == 1 && p.Length == 0) return E_FAIL;
            if (p.Request == 3 && ++statusPolls == 3) return E_HANDLE;
            return answer;
        }));
    dfu::DfuCommand command(nullptr, endpoint);
    const std::uint8_t image[10] = {};
    EXPECT_EQ(command.Execute(image, sizeof image), S_OK);
    EXPECT_EQ(statusPolls, 3);
}

// Waits, with the world's clock a hundred times faster than real time.
class DfuWaits : public testing::Test {
  protected:
    dfu_test::SimLab lab{sim::DfuDeviceSpec{}, 100};
};

TEST_F(DfuWaits, FailingStatusPollsAreRetriedUntilTheLimit) {
    auto endpoint = std::make_shared<NiceMock<EndpointDouble>>(64);
    int polls = 0;
    ON_CALL(*endpoint, Transfer(_, _, _))
        .WillByDefault(Invoke([&](WINUSB_SETUP_PACKET&, PUCHAR, std::uint64_t) {
            ++polls;
            return E_HANDLE;
        }));
    dfu::DfuCommand command(nullptr, endpoint);
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(command.WaitForState(dfu::DFU_STATE::dfuDNLOAD_IDLE, 5000), E_FAIL);
    EXPECT_GE(GetTickCount64() - start, 5000u);
    // One poll every 200 ms: 25 in five seconds, fewer when the host's sleeps run long.
    EXPECT_GE(polls, 20);
    EXPECT_LE(polls, 26);
}

TEST_F(DfuWaits, AnswersThatReadAsErrorsEndTheWaitAtOnce) {
    struct AnswerCase {
        UCHAR statusByte;
        UCHAR state;
        std::uint64_t delivered;
    };
    const AnswerCase cases[] = {
        {1, 5, 6},   // awaited state but bStatus not OK
        {0, 10, 6},  // dfuERROR
        {0, 5, 0},   // success with nothing delivered
        {0, 5, 4},   // reply cut before bState
    };
    for (const auto& c : cases) {
        auto endpoint = std::make_shared<NiceMock<EndpointDouble>>(64);
        endpoint->statusByte = c.statusByte;
        endpoint->nextState = c.state;
        endpoint->statusBytesDelivered = c.delivered;
        dfu::DfuCommand command(nullptr, endpoint);
        EXPECT_EQ(command.WaitForState(dfu::DFU_STATE::dfuDNLOAD_IDLE, 5000), E_FAIL);
        EXPECT_EQ(endpoint->Count(3), 1u);
    }
}

}  // namespace
