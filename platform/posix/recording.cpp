// SPDX-License-Identifier: Apache-2.0
#include "platform/recording.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "platform/common/call_record.h"

namespace platform {

bool StartRecording(const std::string& path, const std::string& program, const std::string& version,
                    const std::vector<std::string>& arguments, const std::string& platformName,
                    std::string& problem) {
    // Created for its owner alone: a recording holds device paths, serial numbers and every
    // answer typed. Opened without waiting, so that a FIFO with no reader is refused at once,
    // and kept only when it is a file on disk.
    const int fd =
        open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY | O_NONBLOCK,
             S_IRUSR | S_IWUSR);
    if (fd < 0) {
        problem = std::strerror(errno);
        return false;
    }
    struct stat info{};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        close(fd);
        problem = "not a file on disk";
        return false;
    }
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    auto sink = [fd](std::string_view line) {
        while (!line.empty()) {
            const ssize_t written = write(fd, line.data(), line.size());
            if (written < 0 && errno == EINTR) continue;
            if (written <= 0) return;  // a full disk ends the recording, not the program
            line.remove_prefix(static_cast<std::size_t>(written));
        }
    };
    rec::InstallTap(rec::MakeRecorder(sink, program, version,
                                      platformName.empty() ? "linux" : platformName, arguments));
    rec::TapStandardStreams();
    return true;
}

}  // namespace platform
