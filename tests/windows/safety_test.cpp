// What another program in the operator's session can do to the elevated tool: plant a DLL
// beside it, squat the name the watcher's events used to have, or name its own interpreter.
#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
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
    wchar_t own[MAX_PATH];
    const DWORD ownLength = GetModuleFileNameW(nullptr, own, MAX_PATH);
    ASSERT_GT(ownLength, 0u);
    const std::wstring folder(own, std::wstring(own, ownLength).rfind(L'\\') + 1);
    wchar_t system[MAX_PATH];
    const std::wstring systemFolder(system, GetSystemDirectoryW(system, MAX_PATH));
    for (const std::wstring name : {L"winusb.dll", L"cfgmgr32.dll"}) {
        const std::wstring planted = folder + name;
        const HANDLE file = CreateFileW(planted.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                        FILE_ATTRIBUTE_NORMAL, nullptr);
        ASSERT_NE(INVALID_HANDLE_VALUE, file);
        DWORD written = 0;
        WriteFile(file, "MZ planted", 10, &written, nullptr);
        CloseHandle(file);

        const HMODULE module = platform::win32::SystemLibrary(name.c_str());
        DeleteFileW(planted.c_str());
        ASSERT_NE(nullptr, module) << GetLastError();
        wchar_t loaded[MAX_PATH];
        const DWORD loadedLength = GetModuleFileNameW(module, loaded, MAX_PATH);
        const std::wstring expected = systemFolder + L"\\" + name;
        EXPECT_EQ(0, _wcsicmp(expected.c_str(), std::wstring(loaded, loadedLength).c_str()));
    }
}

void MakeWatcher(std::optional<DeviceWatcher>& watcher) {
    CreateUsbDeviceWatcher(watcher, kOldName, L"vid_3c5e", L"pid_0f1c", L"");
}

ULONGLONG Elapsed(const std::function<void()>& action) {
    const ULONGLONG start = GetTickCount64();
    action();
    return GetTickCount64() - start;
}

struct Squatter {
    const char* name;
    // Creates the object by the old name; the handle is closed at the end of the row.
    std::function<HANDLE()> take;
};

class NameSquatted : public testing::TestWithParam<Squatter> {};

// A mutex of that name made the events' creation fail, so every wait ended at once; an event
// of that name kept signalled ended the discovery's wait for the DFU-mode device at once.
TEST_P(NameSquatted, WaitsForADeviceThatNeverComesRunTheirFullLimit) {
    const HANDLE squatted = GetParam().take();
    ASSERT_NE(nullptr, squatted);
    std::atomic<bool> stop{false};
    std::thread signaller([&] {
        while (!stop) {
            SetEvent(squatted);  // fails harmlessly on a mutex
            Sleep(1);
        }
    });

    std::optional<DeviceWatcher> watcher;
    MakeWatcher(watcher);
    DWORD found = 0;
    EXPECT_GE(Elapsed([&] { found = watcher->WaitForDevice(kLimitMs, kAbsent); }) + kTickMs,
              kLimitMs);
    EXPECT_EQ(2u, found);
    watcher.reset();

    LynxDfuDevicesFactory factory(nullptr);
    std::size_t listed = 1;
    EXPECT_GE(Elapsed([&] { listed = factory.GetDfuDevices(kLimitMs).size(); }) + kTickMs,
              kLimitMs);
    EXPECT_EQ(0u, listed);

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
    ASSERT_NE(nullptr, first->arrivalEvent);
    ASSERT_NE(nullptr, second->arrivalEvent);
    SetEvent(first->arrivalEvent);
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(second->arrivalEvent, 0));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(first->arrivalEvent, 0));
}

// Wine's cmd.exe runs no AutoRun command, so what stops one on Windows is checked here: the
// system directory's cmd.exe by full path, never COMSPEC or PATH, and /d before the command.
TEST(CommandInterpreter, TheSystemsCmdByFullPathWithAutoRunOff) {
    wchar_t system[MAX_PATH];
    const UINT length = GetSystemDirectoryW(system, MAX_PATH);
    ASSERT_GT(length, 0u);
    const std::wstring cmd = std::wstring(system, length) + L"\\cmd.exe";
    ASSERT_NE(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(cmd.c_str()));
    for (const std::wstring command : {L"cls", L"pause"}) {
        const auto call = platform::win32::CommandInterpreter(command.c_str());
        EXPECT_EQ(cmd, call.application);
        EXPECT_EQ(L"\"" + cmd + L"\" /d /c " + command, call.commandLine);
    }
}

}  // namespace
