// SPDX-License-Identifier: Apache-2.0
// lynx-virtual-camera: a camera of the Lynx family as a whole USB device, attached to the
// running Linux kernel through vhci-hcd (USB/IP), so that lynx-dfu, dfu-util or any other
// software meets it through the real kernel: uvcvideo, usbfs, uevents.
//
// The device is the lab's own model (platform/sim): the camera with its extension unit and
// firmware, and the DFU-mode device it restarts into. This program adds only the wire (the
// USB/IP link) and what the kernel needs besides: the camera's UVC descriptors and its video
// streaming controls. It logs what the device receives, one line per event.
//
//   lynx-virtual-camera [--log FILE] [--mode camera|dfu] [--version A.B.C.D]
//                       [--new-version A.B.C.D] [--transfer-size N] [--unplug-at-block N]
//                       [--dfu-delay-ms N] [--reset-after-manifest-ms N] [--lifetime-s N]
//                       [--image-out FILE] [--hold-at-block N]
//
// Runs as root (it writes to vhci-hcd's sysfs files) until --lifetime-s has passed or it
// gets SIGTERM or SIGINT; the device leaves the bus when it ends. SIGUSR1 pulls the device
// out and plugs it back in, as an operator does with the cable; SIGUSR2 lets a held answer
// go (--hold-at-block).
#include <poll.h>
#include <signal.h>
#include <time.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/sim/sim_world.h"
#include "platform/usbip/usbip_link.h"
#include "platform/usbip/uvc_camera.h"

namespace {

using usbip::Bytes;
using usbip::ControlReply;

volatile sig_atomic_t stopRequested = 0;
volatile sig_atomic_t replugRequested = 0;
volatile sig_atomic_t holdReleased = 0;

// An operator's replug: out, and back in this much later.
constexpr std::uint32_t kReplugMs = 500;
// A held answer goes out by itself after this, before the host's own time-out (5 s) fails
// the request.
constexpr auto kHoldLimit = std::chrono::seconds(4);

constexpr const char* kUsage =
    "usage: lynx-virtual-camera [--log FILE] [--mode camera|dfu] [--version A.B.C.D] "
    "[--new-version A.B.C.D] [--transfer-size N] [--unplug-at-block N] [--dfu-delay-ms N] "
    "[--reset-after-manifest-ms N] [--lifetime-s N] [--image-out FILE] [--hold-at-block N]\n"
    "(options: man lynx-virtual-camera, or /usr/share/doc/lynx-dfu/virtual-camera.md)";
constexpr const char* kLicence =
    "lynx-virtual-camera is part of lynx-dfu, licensed under the Apache License, Version 2.0 "
    "(Apache-2.0).";

const wchar_t* const kCameraLink =
    L"\\\\?\\usb#vid_3c5e&pid_0b64&mi_00#1&1&0&0000#{e5323777-f976-4f5b-9b55-b94699c46e44}";
const wchar_t* const kDfuLink =
    L"\\\\?\\USB#VID_3C5E&PID_0F1C#1&1&0&1#{a5dcbf10-6530-11d2-901f-00c04fb951ed}";

struct Options {
    std::string log;
    bool dfuMode = false;
    std::string imageOut;
    unsigned lifetimeS = 3600;
    std::optional<unsigned> holdAtBlock;
    bool help = false;
    sim::WorldSpec world;
};

bool ParseOptions(int argc, char** argv, Options* options) {
    sim::CameraSpec camera;
    camera.name = L"Vantrel Lynx LX20 Depth Camera Module";
    camera.link = kCameraLink;
    camera.lynx = true;
    camera.firmware = {5, 10, 0, 28};
    camera.firmwareAfterUpdate = {5, 16, 0, 1};
    sim::DfuDeviceSpec dfu;
    dfu.link = kDfuLink;
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "-h" || name == "--help") {
            options->help = true;
            continue;
        }
        if (i + 1 >= argc) return false;
        const std::string value = argv[++i];
        char* end = nullptr;
        const unsigned long number = std::strtoul(value.c_str(), &end, 10);
        const bool isNumber = !value.empty() && *end == '\0' && value[0] != '-';
        try {
            if (name == "--log") {
                options->log = value;
            } else if (name == "--image-out") {
                options->imageOut = value;
            } else if (name == "--mode" && (value == "camera" || value == "dfu")) {
                options->dfuMode = value == "dfu";
            } else if (name == "--version") {
                camera.firmware = sim::ParseVersion(value, name);
            } else if (name == "--new-version") {
                camera.firmwareAfterUpdate = sim::ParseVersion(value, name);
            } else if (name == "--transfer-size" && isNumber && number >= 1 && number <= 4096) {
                dfu.transferSize = static_cast<std::uint16_t>(number);
            } else if (name == "--unplug-at-block" && isNumber) {
                dfu.fault =
                    sim::DfuFault{static_cast<std::uint32_t>(number), sim::FaultKind::kUnplug};
            } else if (name == "--reset-after-manifest-ms" && isNumber && number <= 60000) {
                dfu.resetAfterManifestMs = static_cast<std::uint32_t>(number);
            } else if (name == "--dfu-delay-ms" && isNumber && number <= 10000) {
                camera.dfuDelayMs = static_cast<std::uint32_t>(number);
            } else if (name == "--hold-at-block" && isNumber && number <= 0xFFFF) {
                options->holdAtBlock = static_cast<unsigned>(number);
            } else if (name == "--lifetime-s" && isNumber && number >= 1 && number <= 86400) {
                options->lifetimeS = static_cast<unsigned>(number);
            } else {
                return false;
            }
        } catch (const sim::WorldError&) {
            return false;
        }
    }
    camera.dfu = dfu;
    camera.inDfuMode = options->dfuMode;
    options->world.cameras.push_back(camera);
    return true;
}

class Log {
  public:
    explicit Log(const std::string& path)
        : file_(path.empty() ? nullptr : std::fopen(path.c_str(), "a")) {}
    ~Log() {
        if (file_) std::fclose(file_);
    }
    void Line(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        if (!file_) return;
        va_list args;
        va_start(args, format);
        std::vfprintf(file_, format, args);
        va_end(args);
        std::fputc('\n', file_);
        std::fflush(file_);
    }

  private:
    std::FILE* file_;
};

// CLOCK_MONOTONIC in milliseconds: the clock of every other program on the machine, so that a
// measurement can put the device's moments next to its own.
double MonotonicMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

// The one device on the wire: the camera while the camera is on the world's bus, the DFU
// device while that is.
class VirtualCamera {
  public:
    explicit VirtualCamera(const Options& options)
        : options_(options),
          log_(options.log),
          world_(options.world),
          holdAtBlock_(options.holdAtBlock) {}

    int Run() {
        const auto end =
            std::chrono::steady_clock::now() + std::chrono::seconds(options_.lifetimeS);
        while (!stopRequested && std::chrono::steady_clock::now() < end) {
            if (replugRequested) Replug();
            if (!Follow()) return 1;
            if (!link_.Attached()) {
                poll(nullptr, 0, 10);
                continue;
            }
            pollfd fd = {link_.Socket(), POLLIN, 0};
            const int ready = poll(&fd, 1, 10);
            const bool closed =
                (ready > 0 && !link_.ServeOne([this](const std::uint8_t* setup, const Bytes& out) {
                    ControlReply reply = Control(setup, out);
                    if (std::exchange(holdNow_, false)) Hold();
                    return reply;
                })) ||
                (face_ == Face::kCamera && link_.Attached() && !camera_->Pump(link_));
            if (closed) Leave("host closed");
        }
        Leave("end of run");
        return 0;
    }

  private:
    enum class Face { kNone, kCamera, kDfu };

    Face OnTheBus() {
        std::lock_guard lock(world_.Lock());
        if (world_.Cameras()[0]->present) return Face::kCamera;
        return world_.ListUsbDeviceInterfaces().empty() ? Face::kNone : Face::kDfu;
    }

    // Puts on the wire what is on the world's bus.
    bool Follow() {
        const Face now = OnTheBus();
        if (now == face_) return true;
        // A device that finished manifesting while no request came is logged as manifested
        // before it is seen to leave.
        if (face_ == Face::kDfu) Manifested();
        if (face_ != Face::kNone)
            Leave(leaveReason_.empty() ? "left the bus" : leaveReason_.c_str());
        leaveReason_.clear();
        if (now == Face::kNone) return true;
        log_.Line("clock attach %s %.3f", now == Face::kDfu ? "dfu" : "camera", MonotonicMs());
        std::string error;
        if (!link_.Attach(&error)) {
            log_.Line("error %s", error.c_str());
            std::fprintf(stderr, "lynx-virtual-camera: %s\n", error.c_str());
            return false;
        }
        face_ = now;
        alternate_.clear();
        if (now == Face::kDfu) {
            world_.OpenUsbDevice(kDfuLink, &usb_);
            firstRequestSeen_ = false;
            log_.Line("attach dfu 3c5e:0f1c transfer-size %u",
                      options_.world.cameras[0].DfuSide().transferSize);
        } else {
            camera_ = std::make_unique<uvc::Camera>(world_, 0);
            const sim::usb_device_descriptor& device = camera_->Description().device;
            log_.Line("attach camera %04x:%04x version %s", device.idVendor, device.idProduct,
                      camera_->Version().c_str());
        }
        return true;
    }

    void Replug() {
        replugRequested = 0;
        world_.Replug(0, kReplugMs);
        if (face_ == Face::kNone) {
            log_.Line("replugged while off the bus");
        } else {
            leaveReason_ = "replugged";
        }
    }

    // The answer to block N goes out late: the host waits in that request for whatever a
    // test does at this moment, until SIGUSR2 lets the answer go.
    void Hold() {
        if (!holdAtBlock_) return;
        holdReleased = 0;
        log_.Line("dfu hold at block %u", *holdAtBlock_);
        holdAtBlock_.reset();
        const auto end = std::chrono::steady_clock::now() + kHoldLimit;
        while (!holdReleased && !stopRequested && std::chrono::steady_clock::now() < end) {
            poll(nullptr, 0, 5);
        }
        log_.Line(holdReleased ? "dfu hold released" : "dfu hold ended (time limit)");
    }

    void Leave(const char* why) {
        if (face_ == Face::kNone) return;
        link_.Detach();
        log_.Line("detach %s (%s)", face_ == Face::kDfu ? "dfu" : "camera", why);
        face_ = Face::kNone;
        usb_.reset();
        camera_.reset();
    }

    ControlReply Control(const std::uint8_t* setup, const Bytes& out) {
        const auto [type, request, value, index, length] = usb::usb_ctrlrequest::Read(setup);
        if (face_ == Face::kCamera) {
            ControlReply reply = camera_->Control(setup, out);
            if (camera_->LastCommand()[0] != '\0') log_.Line("%s", camera_->LastCommand());
            if (camera_->Leaving()) leaveReason_ = "restart in DFU mode";
            return reply;
        }
        if ((type & 0x60) == 0 && request == 0x0B && (type & 0x1F) == 1) {  // SET_INTERFACE
            log_.Line("dfu set-interface %u alternate %u", index & 0xFF, value);
            return {usb_->SetAlternateSetting(static_cast<std::uint8_t>(index & 0xFF),
                                              static_cast<std::uint8_t>(value)) != ERROR_SUCCESS,
                    {}};
        }
        if ((type & 0x60) == 0 && request != 0x06) return Standard(request, index);
        if ((type & 0x60) == 0x20 && !firstRequestSeen_) {
            firstRequestSeen_ = true;
            log_.Line("clock first-dfu-request %.3f", MonotonicMs());
        }
        const bool classRequest = (type & 0x60) == 0x20;
        if (classRequest && request == 0) {
            log_.Line("dfu detach timeout %u in state %u", value, DfuState());
        }
        if (classRequest && request == 1 && length > 0 && value == 0) {
            image_.clear();
            started_ = std::chrono::steady_clock::now();
        }
        Bytes data = out;
        data.resize(length);
        std::uint32_t transferred = 0;
        const platform::UsbSetupPacket packet{type, request, value, index, length};
        const auto status = usb_->ControlTransfer(packet, data.data(), length, &transferred);
        if (classRequest && request == 1) Downloaded(status, value, data, length);
        if (classRequest && request == 3 && status == ERROR_SUCCESS) Manifested();
        if (status == ERROR_DEVICE_NOT_CONNECTED) return {true, {}, true};
        if (status != ERROR_SUCCESS) return {true, {}};
        data.resize((type & 0x80) ? transferred : 0);
        return {false, data};
    }

    ControlReply Standard(std::uint8_t request, std::uint16_t index) {
        switch (request) {
            case 0x00:  // GET_STATUS
                return {false, {0, 0}};
            case 0x08:  // GET_CONFIGURATION
                return {false, {1}};
            case 0x0A:  // GET_INTERFACE
                return {false, {alternate_[index & 0xFF]}};
            case 0x09:  // SET_CONFIGURATION
            case 0x01:  // CLEAR_FEATURE
            case 0x03:  // SET_FEATURE
                return {false, {}};
            default:
                return {true, {}};
        }
    }

    unsigned DfuState() {
        const std::string name = world_.DumpState()["dfuDevices"].back()["state"];
        for (std::uint8_t state = 0; state < 11; ++state) {
            if (name == sim::DfuStateName(state)) return state;
        }
        return 255;
    }

    void Downloaded(platform::ErrorCode status, std::uint16_t block, const Bytes& data,
                    std::uint16_t length) {
        if (status == ERROR_SUCCESS && holdAtBlock_ == block) holdNow_ = true;
        if (status == ERROR_DEVICE_NOT_CONNECTED) {
            log_.Line("dfu unplugged during block %u after %zu bytes crc32 %08x", block,
                      image_.size(), sim::Crc32(0, image_.data(), image_.size()));
            leaveReason_ = "unplugged";
        } else if (status == ERROR_SUCCESS && length == 0) {
            log_.Line("dfu end of image at block %u", block);
        } else if (status == ERROR_SUCCESS) {
            image_.insert(image_.end(), data.begin(), data.begin() + length);
        }
    }

    void Manifested() {
        const auto downloads = world_.DumpState()["downloads"];
        if (downloads.empty() || !downloads.back()["manifested"] ||
            manifestedSeen_ == downloads.size()) {
            return;
        }
        manifestedSeen_ = downloads.size();
        const auto& download = downloads.back();
        log_.Line("dfu manifested blocks %u bytes %llu crc32 %s",
                  download["blocks"].get<unsigned>(),
                  static_cast<unsigned long long>(download["bytes"].get<std::uint64_t>()),
                  download["crc32"].get<std::string>().c_str());
        log_.Line(
            "timing download %.3f s",
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count());
        leaveReason_ = "reset after manifestation";
        if (!options_.imageOut.empty()) {
            std::ofstream file(options_.imageOut, std::ios::binary);
            file.write(reinterpret_cast<const char*>(image_.data()),
                       static_cast<std::streamsize>(image_.size()));
        }
    }

    const Options& options_;
    Log log_;
    sim::SimWorld world_;
    usbip::Link link_;
    Face face_ = Face::kNone;
    std::string leaveReason_;
    std::unique_ptr<platform::UsbDeviceConnection> usb_;
    std::unique_ptr<uvc::Camera> camera_;
    std::map<std::uint8_t, std::uint8_t> alternate_;
    bool firstRequestSeen_ = false;
    Bytes image_;  // the bytes of the download under way, as the device took them
    std::size_t manifestedSeen_ = 0;
    std::optional<unsigned> holdAtBlock_;  // until the hold has happened
    bool holdNow_ = false;                 // the answer under way is held
    std::chrono::steady_clock::time_point started_;
};

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!ParseOptions(argc, argv, &options)) {
        std::fprintf(stderr, "%s\n", kUsage);
        return 2;
    }
    if (options.help) {
        std::printf("%s\n%s\n", kUsage, kLicence);
        return 0;
    }
    struct sigaction action{};
    action.sa_handler = [](int) { stopRequested = 1; };
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    action.sa_handler = [](int) { replugRequested = 1; };
    sigaction(SIGUSR1, &action, nullptr);
    action.sa_handler = [](int) { holdReleased = 1; };
    sigaction(SIGUSR2, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
    // The world's state is read as JSON; a failure there is the emulator's own fault, said in
    // one line rather than by an abort.
    try {
        VirtualCamera camera(options);
        return camera.Run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "lynx-virtual-camera: %s\n", error.what());
        return 1;
    }
}
