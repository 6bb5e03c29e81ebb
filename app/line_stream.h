// SPDX-License-Identifier: Apache-2.0
// The stream a command's lines go to: it passes them on whole, keeps the last one (the line
// that says why a device failed) and, on a terminal, shows the download's progress lines as
// one line rewritten in place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <streambuf>
#include <string>

class LineStreamBuf : public std::streambuf {
  public:
    // `inPlace`: the target is a terminal, where "Downloaded ..." lines overwrite each other.
    LineStreamBuf(std::ostream& target, bool inPlace) : target(target), inPlace(inPlace) {}
    ~LineStreamBuf() override;
    LineStreamBuf(const LineStreamBuf&) = delete;
    LineStreamBuf& operator=(const LineStreamBuf&) = delete;

    // The last whole line written since the previous call, and forgets it.
    std::string TakeLastLine();

  protected:
    int_type overflow(int_type c) override;
    int sync() override;

  private:
    void EndLine();
    // Ends a progress line left open, so that what follows starts on a line of its own.
    void CloseProgress();

    std::ostream& target;
    bool inPlace;
    std::string line;
    std::string lastLine;
    bool progressOpen = false;
    std::uint64_t progressStartMs = 0;
    std::uint64_t progressDone = 0;
    std::size_t progressLength = 0;
};

// An ostream over a LineStreamBuf.
class LineStream : public std::ostream {
  public:
    LineStream(std::ostream& target, bool inPlace) : std::ostream(nullptr), buf(target, inPlace) {
        rdbuf(&buf);
    }
    std::string TakeLastLine() { return buf.TakeLastLine(); }

  private:
    LineStreamBuf buf;
};
