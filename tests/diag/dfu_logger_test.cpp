// SPDX-License-Identifier: Apache-2.0
#include "diag/dfu_logger.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

// Two levels of checked steps, as the protocol engine nests them.
class TwoLevelOperation : public DfuLogger {
  public:
    using DfuLogger::DfuLogger;

    HRESULT innerStatus = 0;
    int stepsAfterInner = 0;

    HRESULT Outer() {
        LYNX_CHECK_STEP("Detach()", Inner());
        ++stepsAfterInner;
        return 0;
    }

  private:
    HRESULT Inner() {
        LYNX_CHECK_STEP("usbEndpoint->Transfer(packet, nullptr, 0)", innerStatus);
        return 0;
    }
};

TEST(FailureCheck, WritesInnermostStepFirstWithTheSignedStatusAndStops) {
    const struct {
        HRESULT status;
        const char* lines;
    } rows[] = {
        {0, ""},
        {5,
         "usbEndpoint->Transfer(packet, nullptr, 0) Failed with status5\n"
         "Detach() Failed with status5\n"},
        {static_cast<HRESULT>(0x80004005u),
         "usbEndpoint->Transfer(packet, nullptr, 0) Failed with status-2147467259\n"
         "Detach() Failed with status-2147467259\n"},
    };
    for (const auto& row : rows) {
        std::ostringstream first, second;
        TwoLevelOperation operation(&first);
        operation.SetLog(&second);
        operation.innerStatus = row.status;
        EXPECT_EQ(row.status, operation.Outer());
        EXPECT_EQ(row.status == 0 ? 1 : 0, operation.stepsAfterInner);
        EXPECT_EQ("", first.str());
        EXPECT_EQ(row.lines, second.str());

        TwoLevelOperation silent(nullptr);
        silent.innerStatus = row.status;
        EXPECT_EQ(row.status, silent.Outer());
    }
}

TEST(NarrowLow8, KeepsTheLowByteOfEachUnit) {
    EXPECT_EQ(std::string("Lynx DFU \\\\?\\usb#vid_3c5e"),
              NarrowLow8(L"Lynx DFU \\\\?\\usb#vid_3c5e"));
    EXPECT_EQ(std::string("\xE9\x41", 2), NarrowLow8(std::wstring{L'\u00E9', L'\u0141'}));
    // U+1F4F7 is D83D DCF7 in UTF-16: one byte per unit, as on Windows.
    EXPECT_EQ(std::string("a\x3D\xF7z"), NarrowLow8(std::wstring(L"a\U0001F4F7z")));
}

}  // namespace
