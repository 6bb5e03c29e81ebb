// SPDX-License-Identifier: Apache-2.0
// A command's lines: passed on whole, the last one kept for the report, and on a terminal the
// download's progress lines shown as one line rewritten in place.
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>

#include "app/line_stream.h"
#include "platform/posix/device_backend.h"
#include "platform/sim/sim_world.h"

TEST(LineStream, ProgressInPlaceOnATerminalOnly) {
    sim::WorldSpec spec;
    spec.speedup = 2;  // the world's own clock, which stands still: a rate of 0 every time
    platform::InstallBackend(std::make_shared<sim::SimWorld>(spec));
    const std::string lines =
        "Updating firmware to fw.bin\nDownloaded 1024, bytes remaining 976\n"
        "Downloaded 976, bytes remaining 0\nFailed to burn firmware\nno line end";
    for (const bool terminal : {false, true}) {
        std::ostringstream target;
        {
            LineStream out(target, terminal);
            out << lines;
            EXPECT_EQ("Failed to burn firmware", out.TakeLastLine());
            EXPECT_EQ("", out.TakeLastLine());
        }
        EXPECT_EQ(terminal ? "Updating firmware to fw.bin\n"
                             "\rDownloaded 1024 of 2000 bytes (51%, 0 KiB/s)"
                             "\rDownloaded 2000 of 2000 bytes (100%, 0 KiB/s)\n"
                             "Failed to burn firmware\nno line end\n"
                           : lines + "\n",
                  target.str());
    }
    platform::InstallBackend(nullptr);
}
