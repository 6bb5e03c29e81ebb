// SPDX-License-Identifier: Apache-2.0
// The camera's firmware answers a command frame with whatever it likes. Input: the byte count
// the driver reports (2 bytes), the reply length asked for (2 bytes), then the reply itself.
// A reply counts only with the opcode echoed and enough bytes behind it, and then the caller
// gets exactly the bytes that follow the echo.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "camera/firmware_command_pipe.h"
#include "platform/posix/device_backend.h"
#include "tests/camera/ks_control_stub.h"

namespace {
// The firmware's reply delay is real time; here it need not be.
class InstantClock final : public platform::EmptyDeviceBackend, public platform::Clock {
    platform::Clock& Time() override { return *this; }
    std::uint64_t NowMs() override { return nowMs; }
    void Sleep(std::uint32_t ms) override { nowMs += ms; }
    bool Wait(std::uint32_t, platform::Signal& signal) override { return signal.Consume(); }
    std::uint64_t nowMs = 0;
};

// The extension unit: a SET takes the frame, a GET hands back `reply` and reports `reported`.
class ReplyingControl final : public fakes::KsControlStub {
  public:
    std::vector<std::uint8_t> reply;
    ULONG reported = 0;

    HRESULT STDMETHODCALLTYPE KsProperty(PKSPROPERTY property, ULONG, LPVOID data, ULONG length,
                                         ULONG* returned) override {
        *returned = 0;
        if (!(property->Flags & KSPROPERTY_TYPE_GET)) return S_OK;
        std::copy_n(reply.begin(), std::min<std::size_t>(reply.size(), length),
                    static_cast<std::uint8_t*>(data));
        *returned = reported;
        return S_OK;
    }
};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool installed = (platform::InstallBackend(std::make_shared<InstantClock>()), 1);
    if (!installed || size < 4) return 0;
    const ULONG reported = data[0] | (data[1] << 8);
    const std::size_t length = (data[2] | (data[3] << 8)) % (kMaxResponseDataSize + 1);
    std::vector<std::uint8_t> frame(data + 4, data + std::min(size, kCommandFrameSize + 4));
    frame.resize(kCommandFrameSize);
    ReplyingControl control;
    control.reply = frame;
    control.reported = reported;
    FirmwareCommandPipe pipe(Microsoft::WRL::ComPtr<IKsControl>(&control), GUID{}, 1);
    std::vector<std::uint8_t> out(length);
    if (pipe.ReadResponse(out.data(), kDeviceInfoCommand, length, 0, 0, 0, 0) == S_OK) {
        const std::uint8_t echo[4] = {kDeviceInfoCommand, 0, 0, 0};
        if (reported < length + 4 || std::memcmp(frame.data(), echo, 4) != 0 ||
            !std::equal(out.begin(), out.end(), frame.begin() + 4)) {
            std::abort();
        }
    }
    pipe.SendCommand(kSwitchToDfuCommand, nullptr, 0, 1, 0, 0, 0);
    return 0;
}
