// SPDX-License-Identifier: Apache-2.0
// Operator answers. A number answer reads as strtoll reads it, saturated at the ends of the
// range. An image path answer loses one pair of enclosing quotes and nothing else: mapped onto
// a few letters and quotes, it gets past the file (to a device that is not there) only when it
// names the one image in the working folder; a folder never does.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "dfu/dfu_command.h"
#include "diag/answer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static char folder[] = "/tmp/lynx-answer-fuzz-XXXXXX";
    static const bool entered = mkdtemp(folder) != nullptr && chdir(folder) == 0 &&
                                std::filesystem::create_directory("dir") &&
                                (std::ofstream("fw.bin") << "image").good() &&
                                std::atexit([] { std::filesystem::remove_all(folder); }) == 0;
    if (!entered) std::abort();
    const std::string answer(data, data + size);
    if (ParseAnswerNumber(answer) != std::strtoll(answer.c_str(), nullptr, 10)) std::abort();

    static const char kLetters[] = "\"fw.bindr ";
    std::string path;
    for (std::size_t i = 0; i < size; ++i) path += kLetters[data[i] % (sizeof kLetters - 1)];
    std::string unquoted = path;
    if (path.size() >= 2 && path.front() == '"' && path.back() == '"')
        unquoted = path.substr(1, path.size() - 2);
    dfu::DfuCommand command(nullptr, nullptr, 0);
    const bool pastTheFile = command.ExecuteFile(path.c_str()) == E_ACCESSDENIED;
    if (pastTheFile != (unquoted == "fw.bin")) std::abort();
    return 0;
}
