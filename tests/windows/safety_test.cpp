// SPDX-License-Identifier: Apache-2.0
// What another program in the operator's session can do to the elevated tool: plant a DLL
// beside it, squat the name the watcher's events used to have, or name its own interpreter.
#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>

#include "dfu/device_watcher.h"
#include "dfu/dfu_devices_factory.h"
#include "platform/win32/command_interpreter.h"
#include "platform/win32/system_library.h"

namespace {

// The object name both of the watcher's users gave their events.
const wchar_t* const kOldName = L"DFU device watcher";
const std::wstring kAbsent =
    L"\\\\?\\usb#vid_3c5e&pid_0f1c#absent#{a5dcbf10-6530-11d2-901f-00c04fb951ed}";
constexpr std::uint32_t kLimitMs = 300;
constexpr ULONGLONG kTickMs = 16;  // GetTickCount64: "typically ... 10 ... to 16 milliseconds"

// A winusb.dll or cfgmgr32.dll planted beside the program is never loaded: what is loaded is
// system32's.
TEST(SystemLibraries, ComeFromSystem32WhateverLiesBesideTheProgram) {
    wchar_t path[MAX_PATH];
    const std::filesystem::path folder =
        std::filesystem::path(path, path + GetModuleFileNameW(nullptr, path, MAX_PATH))
            .parent_path();
    const std::filesystem::path system(path, path + GetSystemDirectoryW(path, MAX_PATH));
    for (const wchar_t* name : {L"winusb.dll", L"cfgmgr32.dll"}) {
        std::ofstream(folder / name) << "MZ planted";
        const HMODULE module = platform::win32::SystemLibrary(name);
        std::filesystem::remove(folder / name);
        ASSERT_NE(nullptr, module) << GetLastError();
        const std::wstring loaded(path, path + GetModuleFileNameW(module, path, MAX_PATH));
        EXPECT_EQ(0, _wcsicmp((system / name).c_str(), loaded.c_str()));
    }
}

void MakeWatcher(std::optional<DeviceWatcher>& watcher) {
    CreateUsbDeviceWatcher(watcher, kOldName, L"vid_3c5e", L"pid_0f1c", L"");
}

struct Squatter {
    const char* name;
    HANDLE (*take)();  // the object by the old name, closed at the end of the row
};

class NameSquatted : public testing::TestWithParam<Squatter> {};

// A mutex of that name made the events' creation fail, so every wait ended at once; an event
// of that name kept signalled ended the discovery's wait for the DFU-mode device at once.
TEST_P(NameSquatted, WaitsForADeviceThatNeverComesRunTheirFullLimit) {
    const HANDLE squatted = GetParam().take();
    ASSERT_NE(nullptr, squatted);
    std::atomic<bool> stop{false};
    std::thread signaller([&] {
        for (; !stop; Sleep(1)) SetEvent(squatted);  // fails harmlessly on a mutex
    });

    std::optional<DeviceWatcher> watcher;
    MakeWatcher(watcher);
    ULONGLONG start = GetTickCount64();
    EXPECT_EQ(2u, watcher->WaitForDevice(kLimitMs, kAbsent));
    EXPECT_GE(GetTickCount64() - start + kTickMs, kLimitMs);
    watcher.reset();
    start = GetTickCount64();
    EXPECT_TRUE(LynxDfuDevicesFactory(nullptr).GetDfuDevices(kLimitMs).empty());
    EXPECT_GE(GetTickCount64() - start + kTickMs, kLimitMs);

    stop = true;
    signaller.join();
    CloseHandle(squatted);
}

INSTANTIATE_TEST_SUITE_P(
    ByAnotherProgram, NameSquatted,
    testing::Values(Squatter{"Mutex", [] { return CreateMutexW(nullptr, TRUE, kOldName); }},
                    Squatter{"SignalledEvent",
                             [] { return CreateEventW(nullptr, TRUE, TRUE, kOldName); }}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Watchers, TwoInOneProcessDoNotWakeEachOther) {
    std::optional<DeviceWatcher> first, second;
    MakeWatcher(first);
    MakeWatcher(second);
    SetEvent(first->arrivalEvent);
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(second->arrivalEvent, 0));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(first->arrivalEvent, 0));
}

// Wine's cmd.exe runs no AutoRun command, so what stops one on Windows is checked here: the
// system directory's cmd.exe by full path, never COMSPEC or PATH, and /d before the command.
TEST(CommandInterpreter, TheSystemsCmdByFullPathWithAutoRunOff) {
    wchar_t system[MAX_PATH];
    const std::wstring cmd =
        std::wstring(system, GetSystemDirectoryW(system, MAX_PATH)) + L"\\cmd.exe";
    ASSERT_NE(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(cmd.c_str()));
    for (const std::wstring command : {L"cls", L"pause"}) {
        const auto call = platform::win32::CommandInterpreter(command.c_str());
        EXPECT_EQ(cmd, call.application);
        EXPECT_EQ(L"\"" + cmd + L"\" /d /c " + command, call.commandLine);
    }
}

}  // namespace
