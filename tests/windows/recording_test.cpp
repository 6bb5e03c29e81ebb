// SPDX-License-Identifier: Apache-2.0
// The recording's file through the real file calls: a file on disk is made for the operator
// alone or emptied and written again; a device or a folder is refused. (A link is refused too,
// but Wine 8 makes none: its CreateSymbolicLinkW succeeds and creates nothing.)
#include <windows.h>

#include <aclapi.h>
#include <gtest/gtest.h>
#include <sddl.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/common/call_record.h"
#include "platform/common/recorded_objects.h"
#include "platform/common/wide_stream.h"
#include "platform/mf.h"
#include "platform/recording.h"

namespace {

namespace fs = std::filesystem;

class RecordingFileOnWindows : public testing::Test {
  protected:
    void SetUp() override {
        fs::remove_all(folder);
        fs::create_directories(folder / L"folder");
        // A recording longer than the header, so that what is not emptied shows.
        std::ofstream(folder / L"old.jsonl") << std::string(4096, '#');
    }
    void TearDown() override {
        platform::rec::InstallTap(nullptr);
        fs::remove_all(folder);
    }

    static std::string Read(const fs::path& path) {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    const fs::path folder = fs::temp_directory_path() / L"lynx-recording-file";
};

TEST_F(RecordingFileOnWindows, OnlyAFileOnDiskIsWritten) {
    const std::string base = platform::WideToUtf8(folder.wstring()) + "\\";
    const struct {
        std::string name;
        const char* problem;  // null: recorded
    } rows[] = {
        {base + "new.jsonl", nullptr},
        {base + "old.jsonl", nullptr},
        {"NUL", "not a file on disk"},
        {"\\\\.\\NUL", "not a file on disk"},
        {base + "folder", "cannot create the file (error 5)"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::string problem;
        const bool recorded =
            platform::StartRecording(row.name, "lynx-dfu.exe", "1.2.3", {"list"}, "", problem);
        platform::rec::InstallTap(nullptr);
        EXPECT_EQ(row.problem == nullptr, recorded);
        EXPECT_EQ(row.problem ? row.problem : "", problem);
        if (recorded) {
            EXPECT_TRUE(Read(platform::Utf8ToWide(row.name))
                            .starts_with("{\"format\":1,\"program\":\"lynx-dfu.exe\",\"version\":"
                                         "\"1.2.3\",\"platform\":\"windows\","));
            EXPECT_EQ(std::string::npos, Read(platform::Utf8ToWide(row.name)).find('#'));
        }
    }
}

TEST_F(RecordingFileOnWindows, ANewRecordingIsTheOperatorsAlone) {
    const fs::path path = folder / L"new.jsonl";
    std::string problem;
    ASSERT_TRUE(platform::StartRecording(platform::WideToUtf8(path.wstring()), "lynx-dfu.exe",
                                         "1.2.3", {}, "", problem));
    platform::rec::InstallTap(nullptr);
    HANDLE token = nullptr;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token));
    alignas(TOKEN_USER) unsigned char user[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
    DWORD size = 0;
    ASSERT_TRUE(GetTokenInformation(token, TokenUser, user, sizeof user, &size));
    CloseHandle(token);
    LPWSTR sid = nullptr;
    ASSERT_TRUE(ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(user)->User.Sid, &sid));
    const std::wstring operatorEntry = L"(A;;FA;;;" + std::wstring(sid) + L")";
    LocalFree(sid);
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ASSERT_EQ(ERROR_SUCCESS,
              GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION,
                                    nullptr, nullptr, nullptr, nullptr, &descriptor));
    LPWSTR text = nullptr;
    ASSERT_TRUE(ConvertSecurityDescriptorToStringSecurityDescriptorW(
        descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr));
    const std::wstring dacl = text;
    LocalFree(text);
    LocalFree(descriptor);
    SCOPED_TRACE(platform::WideToUtf8(dacl));
    EXPECT_NE(std::wstring::npos, dacl.find(operatorEntry));
    // Everyone, the machine's users, every signed-in account: none of them may read it.
    for (const wchar_t* other : {L";;;WD)", L";;;BU)", L";;;AU)"})
        EXPECT_EQ(std::wstring::npos, dacl.find(other)) << platform::WideToUtf8(other);
}

// While recording, the program holds proxies of Media Foundation's objects (here Wine's);
// what goes back to the system is the system's own object, not the proxy.
TEST(RecordedObjectsOnWindows, TheSystemGetsItsOwnObjectsBack) {
    std::string lines;
    platform::rec::InstallTap(platform::rec::MakeRecorder(
        [&](std::string_view line) { lines += line; }, "lynx-dfu.exe", "1.2.3", "windows", {}));
    IMFAttributes* store = nullptr;
    IMFAttributes* kept = nullptr;
    ASSERT_EQ(S_OK, MFStartup(MF_VERSION, MFSTARTUP_FULL));
    ASSERT_EQ(S_OK, MFCreateAttributes(&store, 1));
    ASSERT_EQ(S_OK, MFCreateAttributes(&kept, 1));
    ASSERT_EQ(S_OK, store->SetUnknown(MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE, kept));
    IUnknown* got = nullptr;
    ASSERT_EQ(S_OK, store->GetUnknown(MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE, IID_IUnknown,
                                      reinterpret_cast<void**>(&got)));
    IUnknown* system = nullptr;
    ASSERT_EQ(S_OK, platform::rec::SystemObject(kept)->QueryInterface(
                        IID_IUnknown, reinterpret_cast<void**>(&system)));
    EXPECT_EQ(system, got);
    IMFActivate** sources = nullptr;
    UINT32 count = 0;
    MFEnumDeviceSources(store, &sources, &count);
    EXPECT_EQ(0u, count);
    const auto storeId = std::to_string(platform::rec::RecordedObjects().IdOf(store));
    const auto keptId = std::to_string(platform::rec::RecordedObjects().IdOf(kept));
    got->Release();
    system->Release();
    kept->Release();
    store->Release();
    MFShutdown();
    platform::rec::InstallTap(nullptr);
    // Only the program's calls count: the system's own calls of its objects do not.
    EXPECT_NE(std::string::npos, lines.find("\"out\":{\"attributes\":" + keptId + "}"));
    EXPECT_NE(
        std::string::npos,
        lines.find("\"call\":\"MFEnumDeviceSources\",\"in\":{\"attributes\":" + storeId + "}"));
    EXPECT_EQ(std::string::npos, lines.find("QueryInterface"));
}

}  // namespace
