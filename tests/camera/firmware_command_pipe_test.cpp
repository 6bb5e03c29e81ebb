#include <gtest/gtest.h>

#include <stdexcept>

#include "camera/firmware_command_pipe.h"
#include "tests/camera/com_fakes.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
constexpr HRESULT kStall = static_cast<HRESULT>(0x8007001Fu);
const GUID kSet = kExtensionUnitGuid;

// The camera's answer to a GET: `returned` bytes, of which the first four are `echo`.
struct Reply {
    HRESULT setStatus = S_OK;
    HRESULT getStatus = S_OK;
    std::uint32_t echo = 0;
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

Bytes Frame(std::initializer_list<std::uint8_t> head) {
    Bytes frame(head);
    frame.resize(1024, 0);
    return frame;
}

void ExpectRequest(const fakes::KsCall& call, ULONG flags) {
    EXPECT_EQ(fakes::KsCall::kProperty, call.kind);
    EXPECT_EQ(24u, call.headerLength);
    EXPECT_EQ(kSet, call.Id().Set);
    EXPECT_EQ(1u, call.Id().Id);
    EXPECT_EQ(flags, call.Id().Flags);
    EXPECT_EQ(1024u, call.dataLength);
}

TEST(CommandFrames, DeviceInfoCommandOnTheWire) {
    fakes::KsControl control;
    Answer(control, {.echo = 0x10});
    FirmwareCommandPipe pipe(&control, kSet, 1);
    std::uint8_t info[kDeviceInfoSize];

    ASSERT_EQ(S_OK, pipe.ReadResponse(info, kDeviceInfoCommand, kDeviceInfoSize, 0, 0, 0, 0));

    ASSERT_EQ(2u, control.calls.size());
    ExpectRequest(control.calls[0], KSPROPERTY_TYPE_SET);
    EXPECT_EQ(Frame({0x14, 0x00, 0xAB, 0xCD, 0x10, 0x00, 0x00, 0x00}), control.calls[0].sent);
    ExpectRequest(control.calls[1], KSPROPERTY_TYPE_GET);
    // The reply data starts after the echo.
    for (std::size_t i = 0; i < kDeviceInfoSize; ++i) {
        ASSERT_EQ(static_cast<std::uint8_t>((i + 4) * 3 + 1), info[i]) << i;
    }
    // The firmware gets its time before the reply is read.
    EXPECT_GE(control.calls[1].tick - control.calls[0].tick, 100u);
}

TEST(CommandFrames, SwitchToDfuCommandOnTheWireWithoutAPause) {
    fakes::KsControl control;
    Answer(control, {.echo = 0x1E});
    FirmwareCommandPipe pipe(&control, kSet, 1);

    ASSERT_EQ(S_OK, pipe.SendCommand(kSwitchToDfuCommand, nullptr, 0, 1, 0, 0, 0));

    ASSERT_EQ(2u, control.calls.size());
    ExpectRequest(control.calls[0], KSPROPERTY_TYPE_SET);
    EXPECT_EQ(Frame({0x14, 0x00, 0xAB, 0xCD, 0x1E, 0x00, 0x00, 0x00, 0x01}), control.calls[0].sent);
    ExpectRequest(control.calls[1], KSPROPERTY_TYPE_GET);
    EXPECT_LT(control.calls[1].tick - control.calls[0].tick, 50u);
}

TEST(CommandFrames, DataAndParametersAreLittleEndianAndTheLengthCountsTheData) {
    fakes::KsControl control;
    Answer(control, {.echo = 0x12345678});
    FirmwareCommandPipe pipe(&control, kSet, 1);
    Bytes data(1000);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<std::uint8_t>(i ^ 0x5A);

    ASSERT_EQ(S_OK, pipe.SendCommand(0x12345678, data.data(), data.size(), 0x04030201, 0xA0B0C0D0,
                                     7, 0xFFFFFFFF));

    Bytes expected = {0xFC, 0x03, 0xAB, 0xCD, 0x78, 0x56, 0x34, 0x12, 0x01, 0x02, 0x03, 0x04,
                      0xD0, 0xC0, 0xB0, 0xA0, 0x07, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF};
    expected.insert(expected.end(), data.begin(), data.end());
    EXPECT_EQ(expected, control.calls.at(0).sent);
}

TEST(CommandFrames, TooMuchDataIsRefusedBeforeAnythingIsSent) {
    fakes::KsControl control;
    FirmwareCommandPipe pipe(&control, kSet, 1);
    Bytes data(1001);
    try {
        pipe.SendCommand(0x20, data.data(), data.size(), 0, 0, 0, 0);
        ADD_FAILURE() << "no exception";
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ("failed to copy data", error.what());
    }
    std::uint8_t out[1021];
    EXPECT_EQ(E_INVALIDARG, pipe.ReadResponse(out, 0x10, 1021, 0, 0, 0, 0));
    EXPECT_TRUE(control.calls.empty());
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
    FirmwareCommandPipe pipe(&control, kSet, 1);
    Bytes out(c.length + 8, 0xEE);

    const HRESULT status = c.readResponse
                               ? pipe.ReadResponse(out.data(), 0x10, c.length, 0, 0, 0, 0)
                               : pipe.SendCommand(0x10, nullptr, 0, 0, 0, 0, 0);

    EXPECT_EQ(c.expected, status);
    EXPECT_EQ(c.requests, control.calls.size());
    if (!c.readResponse) return;
    // Exactly `length` bytes are written, and only on success.
    for (std::size_t i = 0; i < out.size(); ++i) {
        const bool written = status == S_OK && i < c.length;
        ASSERT_EQ(written ? static_cast<std::uint8_t>((i + 4) * 3 + 1) : 0xEE, out[i]) << i;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Replies, ReplyChecks,
    testing::Values(
        ReplyCase{"ReadLongest", true, 1020, {.echo = 0x10}, S_OK, 2},
        ReplyCase{"ReadNothing", true, 0, {.echo = 0x10, .returned = 4}, S_OK, 2},
        ReplyCase{"ReadExactlyEnough", true, 230, {.echo = 0x10, .returned = 234}, S_OK, 2},
        ReplyCase{"ReadOneShort", true, 230, {.echo = 0x10, .returned = 233}, E_FAIL, 2},
        ReplyCase{"ReadOtherOpcode", true, 230, {.echo = 0x11}, E_FAIL, 2},
        ReplyCase{"ReadGetFails", true, 230, {.getStatus = kStall, .echo = 0x10}, kStall, 2},
        ReplyCase{"ReadSetFails", true, 230, {.setStatus = E_ACCESSDENIED}, E_ACCESSDENIED, 1},
        ReplyCase{"SendEchoOnly", false, 0, {.echo = 0x10, .returned = 4}, S_OK, 2},
        ReplyCase{"SendTooShortForEcho", false, 0, {.echo = 0x10, .returned = 3}, E_FAIL, 2},
        ReplyCase{"SendOtherOpcode", false, 0, {.echo = 0x1E}, E_FAIL, 2},
        ReplyCase{"SendGetFails", false, 0, {.getStatus = kStall}, kStall, 2},
        ReplyCase{"SendSetFails", false, 0, {.setStatus = kStall}, kStall, 1}),
    [](const testing::TestParamInfo<ReplyCase>& info) { return info.param.name; });

TEST(CommandPipeLifetime, HoldsOneReferenceToItsControl) {
    fakes::KsControl control;
    {
        auto pipe = std::make_shared<FirmwareCommandPipe>(&control, kSet, 1);
        EXPECT_EQ(2, control.refs);
    }
    EXPECT_EQ(1, control.refs);
}

}  // namespace
