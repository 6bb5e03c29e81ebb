// SPDX-License-Identifier: Apache-2.0
// The optional narrow output stream that device, factory and protocol objects write to,
// and the failure check every step of an operation runs under.
#pragma once

#include <ostream>
#include <string>

#include "platform/types.h"

class DfuLogger {
  public:
    explicit DfuLogger(std::ostream* log = nullptr) : log(log) {}
    virtual ~DfuLogger() = default;

    void SetLog(std::ostream* stream) { log = stream; }
    std::ostream* GetLog() const { return log; }

  protected:
    // One message line: the pieces in order, then the line end. Nothing without a stream.
    // Flushed at once, so that a burn's lines show as they happen and none is lost with the
    // buffer when a signal or a crash ends the process.
    template <class... Pieces>
    void LogLine(const Pieces&... pieces) const {
        if (log == nullptr) return;
        ((*log << pieces), ...);
        *log << '\n' << std::flush;
    }

    // Pieces written as they stand, for messages that carry their own line break.
    template <class... Pieces>
    void LogText(const Pieces&... pieces) const {
        if (log == nullptr) return;
        ((*log << pieces), ...);
    }

    // The failure check of one step: a non-zero status is reported as
    // "<stepText> Failed with status<status>" and handed back unchanged.
    HRESULT CheckStatus(const char* stepText, HRESULT status) const;

    std::ostream* log;
};

// Runs one step under the failure check and returns its status from the enclosing
// operation when it fails. The step text is given as written in the operation's listing.
#define LYNX_CHECK_STEP(stepText, call)                                  \
    do {                                                                 \
        const HRESULT lynxStepStatus_ = CheckStatus((stepText), (call)); \
        if (lynxStepStatus_ != 0) return lynxStepStatus_;                \
    } while (false)

// Narrows wide device text for a logger line by keeping the low 8 bits of each unit.
std::string NarrowLow8(const std::wstring& text);
