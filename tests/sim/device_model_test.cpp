// SPDX-License-Identifier: Apache-2.0
// What the lab's devices refuse, as the real ones would, and what WinUSB refuses before a
// request reaches the device: one row per rule. A row runs its requests on a fresh world, all
// but the last must be taken, and the last one is judged.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "../dfu/named_row.h"
#include "platform/ks.h"
#include "platform/sim/sim_world.h"
#include "platform/sync.h"
#include "platform/winusb.h"

namespace {

const std::string kLink = R"("link": "\\\\?\\USB#VID_3C5E&PID_0F1C#1")";
constexpr GUID kFamilyUnit = {
    0x5B3E9A10, 0x7C2D, 0x4F61, {0x9E, 0x84, 0x2A, 0x6D, 0x0C, 0x1F, 0x7B, 0x39}};

// A DFU request, or with type 0 a camera command (see the camera rows); `request` 1 of a
// camera step sends the support query with a data buffer.
struct Step {
    std::uint8_t type;
    std::uint8_t request;
    std::uint16_t value;
    std::uint16_t length;
    std::uint16_t index = 0;
    std::uint32_t waitMs = 0;  // world time let pass before the request
    int handle = -1;           // the interface whose WinUSB handle sends it; -1: wIndex's
};

constexpr std::uint8_t kOut = 0x21, kIn = 0xA1, kCamera = 0;
enum : std::uint8_t { kDetach, kDnload, kUpload, kGetStatus, kClrStatus, kGetState, kAbort };

struct Rule {
    const char* name;
    const char* device;  // more fields of the DFU device, or of the camera for camera steps
    std::vector<Step> steps;
    bool taken;
    const char* stateAfter;  // of the DFU device; "" for a camera
};

class Bus : public testing::Test {
  protected:
    void TearDown() override {
        for (auto& handle : handles) {
            if (handle != nullptr) WinUsb_Free(std::exchange(handle, nullptr));
        }
        if (file != INVALID_HANDLE_VALUE) CloseHandle(std::exchange(file, INVALID_HANDLE_VALUE));
        platform::InstallBackend(nullptr);
    }

    // WinUSB's own rules: a request for an interface goes through that interface's handle,
    // no data stage above 4 KB, one handle per interface.
    void OpenInterfaces() {
        file = CreateFileW(L"\\\\?\\USB#VID_3C5E&PID_0F1C#1", GENERIC_READ | GENERIC_WRITE,
                           FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                           FILE_FLAG_OVERLAPPED, nullptr);
        ASSERT_NE(file, INVALID_HANDLE_VALUE);
        ASSERT_TRUE(WinUsb_Initialize(file, &handles[0]));
        if (WinUsb_GetAssociatedInterface(handles[0], 0, &handles[1])) {
            WINUSB_INTERFACE_HANDLE again = nullptr;
            EXPECT_FALSE(WinUsb_GetAssociatedInterface(handles[0], 0, &again));
            EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
        }
    }

    bool DfuRequest(const Step& step) {
        std::vector<std::uint8_t> data(step.length, 0);
        ULONG transferred = 0;
        auto* const handle = handles[step.handle >= 0 ? step.handle : step.index > 0 ? 1 : 0];
        return WinUsb_ControlTransfer(
                   handle, {step.type, step.request, step.value, step.index, step.length},
                   data.data(), step.length, &transferred, nullptr) != FALSE;
    }

    HANDLE file = INVALID_HANDLE_VALUE;
    WINUSB_INTERFACE_HANDLE handles[2] = {};
};

class DeviceModel : public Bus, public testing::WithParamInterface<Rule> {
  protected:
    bool CameraCommand(platform::VideoDeviceConnection& video, const Step& step) {
        std::uint32_t returned = 0;
        std::vector<std::uint8_t> frame(1024, 0);
        const auto property = [&](std::uint32_t flags) {
            return video.NodeProperty(3, kFamilyUnit, 1, flags, frame.data(), 1024, &returned) ==
                   S_OK;
        };
        if (step.request == 1) return property(0x10000100);
        const std::uint8_t headers[] = {20, 0, 0xAB, 0xCD, 0x10};
        std::copy(std::begin(headers), std::end(headers), frame.begin());
        frame[step.length] = static_cast<std::uint8_t>(step.index);
        if (!property(0x10000002)) return false;
        Sleep(step.value);
        return property(0x10000001) && returned == 1024 && frame[0] == 0x10;
    }
};

TEST_P(DeviceModel, RefusesWhatTheRealDeviceRefuses) {
    const Rule& rule = GetParam();
    const bool camera = rule.steps.front().type == kCamera;
    const std::string fields =
        std::string(rule.device).empty() ? "" : std::string(", ") + rule.device;
    auto world = std::make_shared<sim::SimWorld>(sim::ParseWorld(
        camera ? R"({"speedup": 100, "cameras": [{"name": "C", "link": "c", "lynx": true)" +
                     fields + "}]}"
               : R"({"speedup": 100, "dfuDevices": [{)" + kLink + fields + "}]}"));
    platform::InstallBackend(world);
    std::unique_ptr<platform::VideoDeviceConnection> video;
    if (camera) {
        ASSERT_EQ(S_OK, world->OpenVideoDevice(L"c", &video));
    } else {
        ASSERT_NO_FATAL_FAILURE(OpenInterfaces());
    }
    for (std::size_t i = 0; i < rule.steps.size(); ++i) {
        const Step& step = rule.steps[i];
        if (step.waitMs > 0) Sleep(step.waitMs);
        const bool taken = camera ? CameraCommand(*video, step) : DfuRequest(step);
        EXPECT_EQ(i + 1 < rule.steps.size() || rule.taken, taken) << "request " << i;
    }
    if (!camera) {
        EXPECT_EQ(rule.stateAfter, world->DumpState()["dfuDevices"][0]["state"]);
    }
}

const Step kStatus{kIn, kGetStatus, 0, 6};
const Step kBlock0{kOut, kDnload, 0, 16};
const Step kInfo{kCamera, 0, 100, 1023, 0};  // the information command, answered in time
const char* const kTwo = R"("interfaces": [14, 254])";
const char* const k8K = R"("transferSize": 8192)";
const char* const kBusy = R"("busyPolls": 1, "pollTimeoutMs": 300)";

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Rules, DeviceModel,
    testing::Values(
        Rule{"GetStatusShorter", "", {{kIn, kGetStatus, 0, 5}}, false, "dfuERROR"},
        Rule{"GetStatusLonger", "", {{kIn, kGetStatus, 0, 7}}, false, "dfuERROR"},
        Rule{"GetStatusWithValue", "", {{kIn, kGetStatus, 1, 6}}, false, "dfuERROR"},
        Rule{"GetStateLonger", "", {{kIn, kGetState, 0, 2}}, false, "dfuERROR"},
        Rule{"GetStateWithValue", "", {{kIn, kGetState, 2, 1}}, false, "dfuERROR"},
        Rule{"UploadNotInDescriptor", "", {{kIn, kUpload, 0, 16}}, false, "dfuERROR"},
        Rule{"DetachBeyondItsTimeOut", "", {{kOut, kDetach, 1001, 0}}, false, "dfuERROR"},
        Rule{"DetachWithData", "", {{kOut, kDetach, 1000, 1}}, false, "dfuERROR"},
        Rule{"OtherInterface", R"("interfaces": [254, 14])", {{kIn, kGetState, 0, 1, 1}}, false,
             "dfuERROR"},
        Rule{"DfuInterfaceNotFirst", kTwo, {{kIn, kGetState, 0, 1, 1}}, true, "dfuIDLE"},
        Rule{"FirstInterfaceNotDfu", kTwo, {{kIn, kGetState, 0, 1, 0}}, false, "dfuERROR"},
        // Refused by WinUSB: the device sees nothing.
        Rule{"IndexOfAnotherHandle", kTwo, {{kIn, kGetState, 0, 1, 1, 0, 0}}, false, "dfuIDLE"},
        Rule{"HandleOfAnotherIndex", kTwo, {{kIn, kGetState, 0, 1, 0, 0, 1}}, false, "dfuIDLE"},
        Rule{"DataStageOf4K", k8K, {{kOut, kDnload, 0, 4096}}, true, "dfuDNLOAD_SYNC"},
        Rule{"DataStageAbove4K", k8K, {{kOut, kDnload, 0, 4097}}, false, "dfuIDLE"},
        Rule{"EndpointRecipient", "", {{0x22, kDnload, 0, 16}}, false, "dfuERROR"},
        Rule{"DownloadAsRead", "", {{kIn, kDnload, 0, 16}}, false, "dfuERROR"},
        Rule{"BlockOverTransferSize", R"("transferSize": 15)", {kBlock0}, false, "dfuERROR"},
        Rule{"BlockOutOfSequence", "", {{kOut, kDnload, 1, 16}}, false, "dfuERROR"},
        Rule{"PollBeforeTimeOut", kBusy, {kBlock0, kStatus, {kIn, kGetStatus, 0, 6, 0, 299}}, false,
             "dfuERROR"},
        Rule{"PollAfterTimeOut", kBusy, {kBlock0, kStatus, {kIn, kGetStatus, 0, 6, 0, 300}}, true,
             "dfuDNLOAD_IDLE"},
        Rule{"AbortWithData", "", {{kOut, kAbort, 0, 1}}, false, "dfuERROR"},
        // A download starts with data; and with no bus reset after a detach, the device gives up
        // waiting after the time the host asked for.
        Rule{"EmptyDownloadInIdle", "", {{kOut, kDnload, 0, 0}}, false, "dfuERROR"},
        Rule{"DetachGivenUp", R"("initialState": "appIDLE")",
             {{kOut, kDetach, 500, 0}, {kIn, kGetState, 0, 1, 0, 500}}, true, "appIDLE"},
        Rule{"UnknownRequest", "", {{kOut, 0x42, 0, 0}}, false, "dfuERROR"},
        // Chapter 9 requests leave the DFU state alone, taken or not.
        Rule{"StandardGetStatus", "", {{0x80, 0, 0, 2}}, true, "dfuIDLE"},
        Rule{"StandardSetFeature", "", {{0x00, 3, 1, 0}}, false, "dfuIDLE"},
        // Camera: byte `length` of the frame set to `index`, the reply read `value` ms later.
        Rule{"CommandAnsweredAfterThePause", "", {kInfo}, true, ""},
        Rule{"ReplyReadTooEarly", "", {{kCamera, 0, 99, 1023, 0}}, false, ""},
        Rule{"LengthNotTheHeaders", "", {{kCamera, 0, 100, 0, 21}}, false, ""},
        Rule{"BadMagic", "", {{kCamera, 0, 100, 3, 0xCE}}, false, ""},
        Rule{"ParameterNotZero", "", {{kCamera, 0, 100, 12, 1}}, false, ""},
        Rule{"BytesAfterTheCommandMeanNothing", "", {{kCamera, 0, 100, 500, 1}}, true, ""},
        Rule{"UnknownOpcode", "", {{kCamera, 0, 100, 4, 0x33}}, false, ""},
        Rule{"SwitchWithoutBootLoader", "", {{kCamera, 0, 100, 4, 0x1E}}, false, ""},
        Rule{"SupportQueryWithData", "", {{kCamera, 1, 0, 0}}, false, ""}),
    [](const testing::TestParamInfo<Rule>& info) { return info.param.name; });
// clang-format on

// DFU 1.1's state tables, walked row by row: each class request, well formed, sent to a
// device in each state. "!" marks a request the device refuses. Departures of the family:
// DETACH is taken in dfuIDLE; GETSTATUS is answered in dfuMANIFEST_WAIT_RESET, which only a
// reset leaves; a device in dfuMANIFEST answers nothing.
struct StateRow {
    const char* state;
    // After DETACH, DNLOAD, UPLOAD, GETSTATUS, CLRSTATUS, GETSTATE, ABORT.
    std::vector<std::string> after;
};

class StateTable : public Bus, public testing::WithParamInterface<StateRow> {};

TEST_P(StateTable, EveryRequestInTheState) {
    const std::vector<Step> requests = {
        {kOut, kDetach, 1000, 0}, {kOut, kDnload, 0, 16}, {kIn, kUpload, 0, 16}, kStatus,
        {kOut, kClrStatus, 0, 0}, {kIn, kGetState, 0, 1}, {kOut, kAbort, 0, 0}};
    for (std::size_t r = 0; r < requests.size(); ++r) {
        auto world = std::make_shared<sim::SimWorld>(sim::ParseWorld(
            R"({"speedup": 100, "dfuDevices": [{)" + kLink +
            R"(, "canUpload": true, "initialState": ")" + GetParam().state + R"("}]})"));
        platform::InstallBackend(world);
        ASSERT_NO_FATAL_FAILURE(OpenInterfaces());
        std::string expected = GetParam().after[r];
        const bool refused = expected.front() == '!';
        if (refused) expected.erase(0, 1);
        EXPECT_EQ(!refused, DfuRequest(requests[r])) << "request " << r;
        EXPECT_EQ(expected, world->DumpState()["dfuDevices"][0]["state"].get<std::string>())
            << "request " << r;
        TearDown();
    }
}

const std::string E = "!dfuERROR";
// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Dfu11, StateTable,
    testing::Values(
        StateRow{"appIDLE", {"appDETACH", "!appIDLE", "!appIDLE", "appIDLE", "!appIDLE", "appIDLE", "!appIDLE"}},
        StateRow{"appDETACH", {"!appIDLE", "!appIDLE", "!appIDLE", "appDETACH", "!appIDLE", "appDETACH", "!appIDLE"}},
        StateRow{"dfuIDLE", {"dfuIDLE", "dfuDNLOAD_SYNC", "dfuIDLE", "dfuIDLE", E, "dfuIDLE", "dfuIDLE"}},
        StateRow{"dfuDNLOAD_SYNC", {E, E, E, "dfuDNLOAD_IDLE", E, "dfuDNLOAD_SYNC", E}},
        StateRow{"dfuDNBUSY", {E, E, E, E, E, E, E}},
        StateRow{"dfuDNLOAD_IDLE", {E, "dfuDNLOAD_SYNC", E, "dfuDNLOAD_IDLE", E, "dfuDNLOAD_IDLE", "dfuIDLE"}},
        StateRow{"dfuMANIFEST_SYNC", {E, E, E, "dfuMANIFEST", E, "dfuMANIFEST_SYNC", E}},
        StateRow{"dfuMANIFEST", std::vector<std::string>(7, "!dfuMANIFEST")},
        StateRow{"dfuMANIFEST_WAIT_RESET", {"!dfuMANIFEST_WAIT_RESET", "!dfuMANIFEST_WAIT_RESET", "!dfuMANIFEST_WAIT_RESET", "dfuMANIFEST_WAIT_RESET", "!dfuMANIFEST_WAIT_RESET", "!dfuMANIFEST_WAIT_RESET", "!dfuMANIFEST_WAIT_RESET"}},
        StateRow{"dfuUPLOAD_IDLE", {E, E, "dfuIDLE", "dfuUPLOAD_IDLE", E, "dfuUPLOAD_IDLE", "dfuIDLE"}},
        StateRow{"dfuERROR", {E, E, E, "dfuERROR", "dfuIDLE", "dfuERROR", E}}),
    [](const testing::TestParamInfo<StateRow>& info) { return std::string(info.param.state); });
// clang-format on

// A replug after `blocks` data blocks of a download (and its manifestation, with `manifest`).
struct Replug {
    const char* name;
    bool inDfuMode;
    std::uint16_t blocks;
    bool manifest;
    const char* after;  // what is on the bus: the camera's firmware, the DFU device's state
};
class Replugged : public testing::TestWithParam<Replug> {};

TEST_P(Replugged, BootLoaderStartsOnWhatTheFlashHolds) {
    const Replug& row = GetParam();
    sim::SimWorld world(sim::ParseWorld(
        R"({"speedup": 100, "cameras": [{"name": "C", "link": "c", "lynx": true, "firmware": "1.0.0.0", "firmwareAfterUpdate": "2.0.0.0", "dfu": {)" +
        kLink + R"(}, "inDfuMode": )" + (row.inDfuMode ? "true" : "false") + "}]}"));
    std::unique_ptr<platform::UsbDeviceConnection> usb;
    std::uint8_t data[16] = {};
    std::uint32_t done = 0;
    const auto request = [&](std::uint8_t type, std::uint8_t request, std::uint16_t value,
                             std::uint16_t length) {
        return usb->ControlTransfer({type, request, value, 0, length}, data, 16, &done);
    };
    ASSERT_EQ(row.inDfuMode ? 0u : 2u,
              world.OpenUsbDevice(L"\\\\?\\USB#VID_3C5E&PID_0F1C#1", &usb));
    const auto end = static_cast<std::uint16_t>(row.blocks + (row.manifest ? 1 : 0));
    for (std::uint16_t block = 0; block < end; ++block) {
        ASSERT_EQ(0u, request(kOut, kDnload, block, block < row.blocks ? 16 : 0));
        ASSERT_EQ(0u, request(kIn, kGetStatus, 0, 6));
    }
    if (row.manifest) world.Sleep(50);
    EXPECT_TRUE(!row.manifest || request(kIn, kGetStatus, 0, 6) == 0);  // dfuMANIFEST_WAIT_RESET
    world.Replug(0, 500);
    world.Sleep(500);
    const auto state = world.DumpState();
    std::string onTheBus = state["cameras"][0]["present"] ? state["cameras"][0]["firmware"] : "";
    for (const auto& device : state["dfuDevices"]) {
        onTheBus += device["present"] ? device["state"].get<std::string>() : "";
    }
    EXPECT_EQ(row.after, onTheBus);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    Flash, Replugged,
    testing::Values(Replug{"Untouched", false, 0, false, "1.0.0.0"},
                    Replug{"StuckInDfuMode", true, 0, false, "dfuIDLE"},
                    Replug{"CutOff", true, 2, false, "dfuIDLE"},
                    Replug{"Manifested", true, 1, true, "2.0.0.0"}),
    [](const testing::TestParamInfo<Replug>& info) { return info.param.name; });
// clang-format on

}  // namespace
