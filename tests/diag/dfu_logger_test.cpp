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

    HRESULT Inner() {
        LYNX_CHECK_STEP("usbEndpoint->Transfer(packet, nullptr, 0)", innerStatus);
        return 0;
    }

    HRESULT Outer() {
        LYNX_CHECK_STEP("Detach()", Inner());
        ++stepsAfterInner;
        return 0;
    }
};

TEST(FailureCheck, WritesTheStepTextThenTheSignedStatus) {
    std::ostringstream out;
    TwoLevelOperation operation(&out);
    operation.innerStatus = static_cast<HRESULT>(0x80004005u);
    EXPECT_EQ(static_cast<HRESULT>(0x80004005u), operation.Inner());
    EXPECT_EQ("usbEndpoint->Transfer(packet, nullptr, 0) Failed with status-2147467259\n",
              out.str());
}

TEST(FailureCheck, PositiveStatusHasNoSignOrBlank) {
    std::ostringstream out;
    TwoLevelOperation operation(&out);
    operation.innerStatus = 5;
    EXPECT_EQ(5, operation.Inner());
    EXPECT_EQ("usbEndpoint->Transfer(packet, nullptr, 0) Failed with status5\n", out.str());
}

TEST(FailureCheck, NestedFailureWritesInnermostFirstAndStopsTheOperation) {
    std::ostringstream out;
    TwoLevelOperation operation(&out);
    operation.innerStatus = static_cast<HRESULT>(0x80070006u);
    EXPECT_EQ(static_cast<HRESULT>(0x80070006u), operation.Outer());
    EXPECT_EQ(0, operation.stepsAfterInner);
    EXPECT_EQ(
        "usbEndpoint->Transfer(packet, nullptr, 0) Failed with status-2147024890\n"
        "Detach() Failed with status-2147024890\n",
        out.str());
}

TEST(FailureCheck, SuccessWritesNothingAndGoesOn) {
    std::ostringstream out;
    TwoLevelOperation operation(&out);
    EXPECT_EQ(0, operation.Outer());
    EXPECT_EQ(1, operation.stepsAfterInner);
    EXPECT_EQ("", out.str());
}

TEST(FailureCheck, NullStreamIsSilentButKeepsTheStatus) {
    TwoLevelOperation operation(nullptr);
    operation.innerStatus = static_cast<HRESULT>(0x80070005u);
    EXPECT_EQ(static_cast<HRESULT>(0x80070005u), operation.Outer());
    EXPECT_EQ(nullptr, operation.GetLog());
}

TEST(FailureCheck, SetLogRedirectsLaterLines) {
    std::ostringstream first;
    std::ostringstream second;
    TwoLevelOperation operation(&first);
    operation.SetLog(&second);
    operation.innerStatus = 1;
    operation.Inner();
    EXPECT_EQ("", first.str());
    EXPECT_EQ("usbEndpoint->Transfer(packet, nullptr, 0) Failed with status1\n", second.str());
}

TEST(NarrowLow8, KeepsTheLowByteOfEachUnit) {
    EXPECT_EQ(std::string("Lynx DFU \\\\?\\usb#vid_3c5e"),
              NarrowLow8(L"Lynx DFU \\\\?\\usb#vid_3c5e"));
    EXPECT_EQ(std::string("\xE9\x41", 2), NarrowLow8(std::wstring{L'\u00E9', L'\u0141'}));
    // U+1F4F7 is D83D DCF7 in UTF-16: one byte per unit, as on Windows.
    EXPECT_EQ(std::string("a\x3D\xF7z"), NarrowLow8(std::wstring(L"a\U0001F4F7z")));
}

}  // namespace
