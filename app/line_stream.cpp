// SPDX-License-Identifier: Apache-2.0
#include "app/line_stream.h"

#include <cstdio>
#include <string>
#include <utility>

#include "platform/sync.h"

namespace {

// "Downloaded N, bytes remaining M", the DFU download's line after each block of N bytes.
bool ParseProgress(const std::string& line, unsigned long long& block,
                   unsigned long long& remaining) {
    char tail = 0;
    return std::sscanf(line.c_str(), "Downloaded %llu, bytes remaining %llu%c", &block, &remaining,
                       &tail) == 2;
}

}  // namespace

LineStreamBuf::~LineStreamBuf() {
    if (!line.empty()) EndLine();
    CloseProgress();
    target.flush();
}

std::string LineStreamBuf::TakeLastLine() {
    return std::exchange(lastLine, std::string());
}

LineStreamBuf::int_type LineStreamBuf::overflow(int_type c) {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    if (traits_type::to_char_type(c) == '\n') {
        EndLine();
    } else {
        line += traits_type::to_char_type(c);
    }
    return c;
}

int LineStreamBuf::sync() {
    target.flush();
    return 0;
}

void LineStreamBuf::EndLine() {
    unsigned long long block = 0, remaining = 0;
    if (!line.empty()) lastLine = line;
    if (inPlace && ParseProgress(line, block, remaining)) {
        const std::uint64_t now = GetTickCount64();
        if (!progressOpen) {
            progressOpen = true;
            progressStartMs = now;
            progressDone = 0;
        }
        progressDone += block;
        const unsigned long long done = progressDone, total = done + remaining;
        const std::uint64_t elapsed = now - progressStartMs;
        const unsigned long long rate = elapsed ? done * 1000 / elapsed / 1024 : 0;
        char shown[160];
        const int length =
            std::snprintf(shown, sizeof shown, "Downloaded %llu of %llu bytes (%llu%%, %llu KiB/s)",
                          done, total, total ? done * 100 / total : 100, rate);
        // Blanks over what a longer line before left, rather than an erase sequence, which
        // a Windows console without virtual-terminal processing would print as text.
        const std::size_t shownLength = length > 0 ? static_cast<std::size_t>(length) : 0;
        target << '\r' << shown
               << std::string(progressLength > shownLength ? progressLength - shownLength : 0, ' ');
        progressLength = shownLength;
        target.flush();
    } else {
        CloseProgress();
        target << line << '\n';
    }
    line.clear();
}

void LineStreamBuf::CloseProgress() {
    if (!progressOpen) return;
    progressOpen = false;
    progressLength = 0;
    target << '\n';
}
