#include <gtest/gtest.h>

#include <stdexcept>

#include "camera/firmware_command_pipe.h"
#include "tests/camera/com_fakes.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
constexpr HRESULT kStall = static_cast<HRESULT>(0x8007001Fu);

// The camera's side: SET gets `setStatus`; GET gets `getStatus` or `returned` bytes that
// begin with `echo` and go on with a counting pattern.
struct Reply {
    HRESULT setStatus = S_OK;
    HRESULT getStatus = S_OK;
    std::uint32_t echo = 0x10;
    ULONG returned = 1024;
};

void Answer(fakes::KsControl& control, const Reply& reply) {
    control.answer = [reply](const fakes::KsCall& call, std::uint8_t* data, ULONG* returned) {
        *returned = 0;
        if (call.Id().Flags == KSPROPERTY_TYPE_SET) return reply.setStatus;
        if (reply.getStatus != S_OK) return reply.getStatus;
        for (ULONG i = 0; i < 1024; ++i) data[i] = static_cast<std::uint8_t>(i * 3 + 1);
        for (int i = 0; i < 4; ++i) data[i] = static_cast<std::uint8_t>(reply.echo >> (8 * i));
        *returned = reply.returned;
        return S_OK;
    };
}

Bytes Frame(Bytes head) {
    head.resize(1024, 0);
    return head;
}

void ExpectSetThenGet(const fakes::KsControl& control, const Bytes& frame) {
    ASSERT_EQ(2u, control.calls.size());
    for (const auto& call : control.calls) {
        EXPECT_EQ(24u, call.header.size());
        EXPECT_EQ(kExtensionUnitGuid, call.Id().Set);
        EXPECT_EQ(1u, call.Id().Id);
        EXPECT_EQ(1024u, call.dataLength);
    }
    EXPECT_EQ(ULONG{KSPROPERTY_TYPE_SET}, control.calls[0].Id().Flags);
    EXPECT_EQ(ULONG{KSPROPERTY_TYPE_GET}, control.calls[1].Id().Flags);
    EXPECT_EQ(frame, control.calls[0].sent);
}

TEST(CommandFrames, DeviceInfoIsReadAfterTheFirmwaresPause) {
    fakes::KsControl control;
    Answer(control, {});
    FirmwareCommandPipe pipe(&control, kExtensionUnitGuid, 1);
    std::uint8_t info[kDeviceInfoSize];

    ASSERT_EQ(S_OK, pipe.ReadResponse(info, kDeviceInfoCommand, kDeviceInfoSize, 0, 0, 0, 0));

    ExpectSetThenGet(control, Frame({0x14, 0x00, 0xAB, 0xCD, 0x10, 0x00, 0x00, 0x00}));
    for (std::size_t i = 0; i < kDeviceInfoSize; ++i) {
        ASSERT_EQ(static_cast<std::uint8_t>((i + 4) * 3 + 1), info[i]) << i;
    }
    // GetTickCount64: "The resolution of the GetTickCount64 function is limited to the
    // resolution of the system timer, which is typically in the range of 10 milliseconds to
    // 16 milliseconds."
    EXPECT_GE(control.calls[1].tick - control.calls[0].tick, 100u - 16u);
}

TEST(CommandFrames, SwitchToDfuIsAnsweredAtOnce) {
    fakes::KsControl control;
    Answer(control, {.echo = 0x1E});
    FirmwareCommandPipe pipe(&control, kExtensionUnitGuid, 1);

    ASSERT_EQ(S_OK, pipe.SendCommand(kSwitchToDfuCommand, nullptr, 0, 1, 0, 0, 0));

    ExpectSetThenGet(control, Frame({0x14, 0x00, 0xAB, 0xCD, 0x1E, 0x00, 0x00, 0x00, 0x01}));
    EXPECT_LT(control.calls[1].tick - control.calls[0].tick, 50u);
}

TEST(CommandFrames, ThousandBytesOfDataFitAndOneMoreDoesNot) {
    fakes::KsControl control;
    Answer(control, {.echo = 0x12345678});
    FirmwareCommandPipe pipe(&control, kExtensionUnitGuid, 1);
    Bytes data(1001);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<std::uint8_t>(i ^ 0x5A);

    try {
        pipe.SendCommand(0x20, data.data(), data.size(), 0, 0, 0, 0);
        ADD_FAILURE() << "1001 bytes of data were taken";
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ("failed to copy data", error.what());
    }
    EXPECT_TRUE(control.calls.empty());

    data.pop_back();
    ASSERT_EQ(S_OK, pipe.SendCommand(0x12345678, data.data(), data.size(), 0x04030201, 0xA0B0C0D0,
                                     7, ~0u));
    Bytes frame = {0xFC, 0x03, 0xAB, 0xCD, 0x78, 0x56, 0x34, 0x12, 0x01, 0x02, 0x03, 0x04,
                   0xD0, 0xC0, 0xB0, 0xA0, 0x07, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF};
    frame.insert(frame.end(), data.begin(), data.end());
    ExpectSetThenGet(control, frame);
}

struct ReplyCase {
    const char* name;
    bool readResponse;  // otherwise SendCommand
    std::size_t length;
    Reply reply;
    HRESULT expected;
    std::size_t requests;
};

class ReplyChecks : public testing::TestWithParam<ReplyCase> {};

TEST_P(ReplyChecks, StatusFollowsTheReply) {
    const ReplyCase& c = GetParam();
    fakes::KsControl control;
    Answer(control, c.reply);
    FirmwareCommandPipe pipe(&control, kExtensionUnitGuid, 1);
    Bytes out(c.length + 8, 0xEE);

    const HRESULT status = c.readResponse
                               ? pipe.ReadResponse(out.data(), 0x10, c.length, 0, 0, 0, 0)
                               : pipe.SendCommand(0x10, nullptr, 0, 0, 0, 0, 0);

    EXPECT_EQ(c.expected, status);
    EXPECT_EQ(c.requests, control.calls.size());
    // Exactly `length` bytes are written, and only on success.
    for (std::size_t i = 0; i < out.size(); ++i) {
        const bool written = c.readResponse && status == S_OK && i < c.length;
        ASSERT_EQ(written ? static_cast<std::uint8_t>((i + 4) * 3 + 1) : 0xEE, out[i]) << i;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Replies, ReplyChecks,
    testing::Values(
        ReplyCase{"ReadLongest", true, 1020, {}, S_OK, 2},
        ReplyCase{"ReadTooLong", true, 1021, {}, E_INVALIDARG, 0},
        ReplyCase{"ReadNothing", true, 0, {.returned = 4}, S_OK, 2},
        ReplyCase{"ReadExactlyEnough", true, 230, {.returned = 234}, S_OK, 2},
        ReplyCase{"ReadOneShort", true, 230, {.returned = 233}, E_FAIL, 2},
        ReplyCase{"ReadOtherOpcode", true, 230, {.echo = 0x11}, E_FAIL, 2},
        ReplyCase{"ReadGetFails", true, 230, {.getStatus = kStall}, kStall, 2},
        ReplyCase{"ReadSetFails", true, 230, {.setStatus = E_ACCESSDENIED}, E_ACCESSDENIED, 1},
        ReplyCase{"SendEchoOnly", false, 0, {.returned = 4}, S_OK, 2},
        ReplyCase{"SendTooShortForEcho", false, 0, {.returned = 3}, E_FAIL, 2},
        ReplyCase{"SendOtherOpcode", false, 0, {.echo = 0x1E}, E_FAIL, 2},
        ReplyCase{"SendSetFails", false, 0, {.setStatus = kStall}, kStall, 1}),
    [](const testing::TestParamInfo<ReplyCase>& info) { return info.param.name; });

}  // namespace
