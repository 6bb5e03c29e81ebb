// Operator answers. A number answer reads as strtoll reads it, saturated at the ends of the
// range. An image path answer loses one pair of enclosing quotes and nothing else: mapped onto
// a few letters and quotes, it reaches the device only when it names the one image beside
// the process (a directory never does).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <unistd.h>

#include "dfu/dfu_command.h"
#include "diag/answer.h"

namespace {

// Not connected: an answer that gets this far is refused at the device, not at the file.
class AbsentEndpoint final : public usb_core::IUsbControlEndpoint {
  public:
    HRESULT Transfer(WINUSB_SETUP_PACKET&, PUCHAR, std::uint64_t) override { std::abort(); }
    bool IsConnected() override { return false; }
    void Disconnect() override {}
    std::uint16_t GetMaxTransferSize() override { return 64; }
};

// A fresh folder holding the image "fw.bin" and a folder "dir", as the working directory.
bool EnterScratchFolder() {
    char folder[] = "/tmp/lynx-answer-fuzz-XXXXXX";
    if (mkdtemp(folder) == nullptr || chdir(folder) != 0) std::abort();
    std::filesystem::create_directory("dir");
    std::FILE* image = std::fopen("fw.bin", "wb");
    if (image == nullptr || std::fputs("image", image) < 0 || std::fclose(image) != 0) std::abort();
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool entered = EnterScratchFolder();
    (void)entered;
    const std::string answer(data, data + size);
    if (ParseAnswerNumber(answer) != std::strtoll(answer.c_str(), nullptr, 10)) std::abort();

    static const char kLetters[] = "\"fw.bindr ";
    std::string path;
    for (std::size_t i = 0; i < size; ++i)
        path.push_back(kLetters[data[i] % (sizeof kLetters - 1)]);
    std::string unquoted = path;
    if (path.size() >= 2 && path.front() == '"' && path.back() == '"')
        unquoted = path.substr(1, path.size() - 2);
    dfu::DfuCommand command(nullptr, std::make_shared<AbsentEndpoint>(), 0);
    const bool reachedDevice = command.ExecuteFile(path.c_str()) == E_ACCESSDENIED;
    if (reachedDevice != (unquoted == "fw.bin")) std::abort();
    return 0;
}
