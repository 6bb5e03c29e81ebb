#include <gtest/gtest.h>

#include <sstream>
#include <vector>

#include "platform/posix/device_backend.h"
#include "updatable/lynx_updatable_device.h"

namespace {

// A settings store that records what reaches it and fails on request.
class RecordingStore final : public platform::EmptyDeviceBackend {
  public:
    platform::ErrorCode createError = ERROR_SUCCESS;
    platform::ErrorCode setError = ERROR_SUCCESS;
    std::wstring keyPath;
    std::wstring valueName;
    std::uint32_t type = 0;
    std::vector<std::uint8_t> data;
    int sets = 0;

    platform::ErrorCode CreateSettingsKey(const std::wstring& path) override {
        keyPath = path;
        return createError;
    }
    platform::ErrorCode SetSettingsValue(const std::wstring&, const std::wstring& name,
                                         std::uint32_t valueType, const std::uint8_t* bytes,
                                         std::uint32_t size) override {
        ++sets;
        valueName = name;
        type = valueType;
        data.assign(bytes, bytes + size);
        return setError;
    }
};

class DfuAutoMode : public testing::Test {
  protected:
    void SetUp() override {
        store_ = std::make_shared<RecordingStore>();
        platform::InstallBackend(store_);
        device_ = CreateLynxUpdatableDevice();
        device_->SetLog(&log_);
    }
    void TearDown() override { platform::InstallBackend(nullptr); }

    std::shared_ptr<RecordingStore> store_;
    std::shared_ptr<ICameraDevice> device_;
    std::ostringstream log_;
};

std::vector<std::uint8_t> Utf16(const char* text) {
    std::vector<std::uint8_t> bytes;
    for (; *text; ++text) {
        bytes.push_back(static_cast<std::uint8_t>(*text));
        bytes.push_back(0);
    }
    return bytes;
}

TEST_F(DfuAutoMode, EachModeStoresItsUtf16TextWithoutNull) {
    EXPECT_EQ(S_OK, device_->SetDfuAutoModeServiceControlled());
    EXPECT_EQ(L"SYSTEM\\CurrentControlSet\\Services\\OptyraCameraDFU", store_->keyPath);
    EXPECT_EQ(L"DFUAutoMode", store_->valueName);
    EXPECT_EQ(1u, store_->type);
    EXPECT_EQ(Utf16("Service Controlled"), store_->data);
    EXPECT_EQ(36u, store_->data.size());
    EXPECT_EQ(S_OK, device_->SetDfuAutoModeAuto());
    EXPECT_EQ(Utf16("Auto"), store_->data);
    EXPECT_EQ(S_OK, device_->SetDfuAutoModeDisabled());
    EXPECT_EQ(Utf16("Disabled"), store_->data);
    EXPECT_EQ("", log_.str());
}

TEST_F(DfuAutoMode, AccessDeniedHasItsOwnMessageAndStoresNothing) {
    store_->createError = ERROR_ACCESS_DENIED;
    EXPECT_EQ(E_FAIL, device_->SetDfuAutoModeDisabled());
    EXPECT_EQ("Failed open registry key with status ACCESS_DENIED\n", log_.str());
    EXPECT_EQ(0, store_->sets);
}

TEST_F(DfuAutoMode, OtherFailuresShowThePlatformCodeButReturnEFail) {
    store_->createError = 1018;
    EXPECT_EQ(E_FAIL, device_->SetDfuAutoModeDisabled());
    store_->createError = ERROR_SUCCESS;
    store_->setError = 1021;
    EXPECT_EQ(E_FAIL, device_->SetDfuAutoModeAuto());
    EXPECT_EQ(
        "Failed to open / create registry key with status 1018\n"
        "Failed write registry value with status 1021\n",
        log_.str());
}

TEST_F(DfuAutoMode, NullStreamFailsSilently) {
    device_->SetLog(nullptr);
    store_->createError = ERROR_ACCESS_DENIED;
    EXPECT_EQ(E_FAIL, device_->SetDfuAutoModeServiceControlled());
    EXPECT_EQ("", log_.str());
}

}  // namespace
