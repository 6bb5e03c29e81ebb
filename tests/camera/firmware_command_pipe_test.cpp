// SPDX-License-Identifier: Apache-2.0
// Command frames as they reach the camera's extension unit, and what the pipe makes of the
// camera's replies. Built for Windows too, so the control is a plain fake, not the lab's.
#include "camera/firmware_command_pipe.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "platform/ks.h"
#include "platform/sync.h"
#include "tests/camera/ks_control_stub.h"

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

struct Call {
    KSPROPERTY property;
    ULONG headerLength, dataLength;
    Bytes sent;
    ULONGLONG tick;
};

class Control final : public fakes::KsControlStub {
  public:
    explicit Control(Reply r) : reply(r) {}
    HRESULT STDMETHODCALLTYPE KsProperty(PKSPROPERTY p, ULONG n, LPVOID d, ULONG dn,
                                         ULONG* returned) override {
        auto* data = static_cast<std::uint8_t*>(d);
        calls.push_back({*p, n, dn, Bytes(data, data + dn), GetTickCount64()});
        *returned = 0;
        if (p->Flags == KSPROPERTY_TYPE_SET) return reply.setStatus;
        if (reply.getStatus != S_OK) return reply.getStatus;
        for (ULONG i = 0; i < dn; ++i) data[i] = static_cast<std::uint8_t>(i * 3 + 1);
        for (int i = 0; i < 4; ++i) data[i] = static_cast<std::uint8_t>(reply.echo >> (8 * i));
        *returned = reply.returned;
        return S_OK;
    }

    Reply reply;
    std::vector<Call> calls;
};

// A SET of the whole frame, then a GET of a whole frame, both to control 1 of the unit.
void ExpectSetThenGet(const Control& control, Bytes frame) {
    frame.resize(1024, 0);
    ASSERT_EQ(2u, control.calls.size());
    for (const auto& call : control.calls) {
        EXPECT_EQ(sizeof(KSPROPERTY), call.headerLength);
        EXPECT_EQ(kExtensionUnitGuid, call.property.Set);
        EXPECT_EQ(1u, call.property.Id);
        EXPECT_EQ(1024u, call.dataLength);
    }
    EXPECT_EQ(ULONG{KSPROPERTY_TYPE_SET}, control.calls[0].property.Flags);
    EXPECT_EQ(ULONG{KSPROPERTY_TYPE_GET}, control.calls[1].property.Flags);
    EXPECT_EQ(frame, control.calls[0].sent);
}

TEST(CommandFrames, DeviceInfoIsReadAfterTheFirmwaresPauseSwitchAtOnce) {
    Control info({});
    std::uint8_t block[kDeviceInfoSize];
    ASSERT_EQ(S_OK, FirmwareCommandPipe(&info, kExtensionUnitGuid, 1)
                        .ReadResponse(block, kDeviceInfoCommand, kDeviceInfoSize, 0, 0, 0, 0));
    ExpectSetThenGet(info, {0x14, 0x00, 0xAB, 0xCD, 0x10, 0x00, 0x00, 0x00});
    for (std::size_t i = 0; i < kDeviceInfoSize; ++i) {
        ASSERT_EQ(static_cast<std::uint8_t>((i + 4) * 3 + 1), block[i]) << i;
    }
    // GetTickCount64: "The resolution of the GetTickCount64 function is limited to the
    // resolution of the system timer, which is typically in the range of 10 milliseconds to
    // 16 milliseconds."
    EXPECT_GE(info.calls[1].tick - info.calls[0].tick, 100u - 16u);

    Control toDfu({.echo = 0x1E});
    ASSERT_EQ(S_OK, FirmwareCommandPipe(&toDfu, kExtensionUnitGuid, 1)
                        .SendCommand(kSwitchToDfuCommand, nullptr, 0, 1, 0, 0, 0));
    ExpectSetThenGet(toDfu, {0x14, 0x00, 0xAB, 0xCD, 0x1E, 0x00, 0x00, 0x00, 0x01});
    EXPECT_LT(toDfu.calls[1].tick - toDfu.calls[0].tick, 50u);
}

TEST(CommandFrames, ThousandBytesOfDataFitAndOneMoreDoesNot) {
    Control control({.echo = 0x12345678});
    FirmwareCommandPipe pipe(&control, kExtensionUnitGuid, 1);
    Bytes data(1001);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<std::uint8_t>(i ^ 0x5A);
    EXPECT_THROW(pipe.SendCommand(0x20, data.data(), data.size(), 0, 0, 0, 0),
                 std::invalid_argument);
    EXPECT_TRUE(control.calls.empty());

    data.pop_back();
    ASSERT_EQ(S_OK, pipe.SendCommand(0x12345678, data.data(), data.size(), 0x04030201, 0xA0B0C0D0,
                                     7, ~0u));
    Bytes frame = {0xFC, 0x03, 0xAB, 0xCD, 0x78, 0x56, 0x34, 0x12, 0x01, 0x02, 0x03, 0x04,
                   0xD0, 0xC0, 0xB0, 0xA0, 0x07, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF};
    frame.insert(frame.end(), data.begin(), data.end());
    ExpectSetThenGet(control, frame);
}

TEST(CommandFrames, StatusFollowsTheReply) {
    const struct {
        const char* name;
        bool readResponse;  // otherwise SendCommand
        std::size_t length;
        Reply reply;
        HRESULT expected;
        std::size_t requests;
    } rows[] = {
        {"read longest", true, 1020, {}, S_OK, 2},
        {"read too long", true, 1021, {}, E_INVALIDARG, 0},
        {"read nothing", true, 0, {.returned = 4}, S_OK, 2},
        {"read exactly enough", true, 230, {.returned = 234}, S_OK, 2},
        {"read one short", true, 230, {.returned = 233}, E_FAIL, 2},
        {"read other opcode", true, 230, {.echo = 0x11}, E_FAIL, 2},
        {"read, GET fails", true, 230, {.getStatus = kStall}, kStall, 2},
        {"read, SET fails", true, 230, {.setStatus = E_ACCESSDENIED}, E_ACCESSDENIED, 1},
        {"send, echo only", false, 0, {.returned = 4}, S_OK, 2},
        {"send, too short for the echo", false, 0, {.returned = 3}, E_FAIL, 2},
        {"send, other opcode", false, 0, {.echo = 0x1E}, E_FAIL, 2},
        {"send, SET fails", false, 0, {.setStatus = kStall}, kStall, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Control control(row.reply);
        FirmwareCommandPipe pipe(&control, kExtensionUnitGuid, 1);
        Bytes out(row.length + 8, 0xEE);
        const HRESULT status = row.readResponse
                                   ? pipe.ReadResponse(out.data(), 0x10, row.length, 0, 0, 0, 0)
                                   : pipe.SendCommand(0x10, nullptr, 0, 0, 0, 0, 0);
        EXPECT_EQ(row.expected, status);
        EXPECT_EQ(row.requests, control.calls.size());
        // Exactly `length` bytes are written, and only on success.
        for (std::size_t i = 0; i < out.size(); ++i) {
            const bool written = row.readResponse && status == S_OK && i < row.length;
            ASSERT_EQ(written ? static_cast<std::uint8_t>((i + 4) * 3 + 1) : 0xEE, out[i]) << i;
        }
    }
}

}  // namespace
