// A camera of the Lynx family as a whole USB device, served over USB/IP to the kernel's
// vhci-hcd, so that lynx-dfu meets it through the real kernel: uvcvideo, usbfs, uevents.
//
// In normal operation it is a UVC camera (video control with the family's extension unit,
// one streaming interface). Control 1 of the extension unit takes the 1024-byte firmware
// command frame: 0x10 answers the device information block, 0x1E (parameter 1 = 1) makes
// the camera leave the bus and come back as the DFU-mode device (product 0f1c). That device
// speaks DFU 1.1, takes an image, manifests, leaves the bus and comes back as the camera
// with the new version. Everything the device receives goes to a log, one line per event,
// so that a test can check it.
//
//   usbip-emulator --log FILE [--mode camera|dfu] [--version A.B.C.D]
//                  [--new-version A.B.C.D] [--transfer-size N] [--unplug-at-block N]
//                  [--dfu-delay-ms N] [--lifetime-s N] [--image-out FILE]
//
// It attaches itself by writing "port sockfd devid speed" to vhci-hcd's sysfs attach file
// with one end of a socket pair, and ends after --lifetime-s seconds or on SIGTERM.
#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;

const char* const kVhciDir = "/sys/devices/platform/vhci_hcd.0";

// USB/IP commands (all fields big-endian on the wire).
constexpr std::uint32_t kCmdSubmit = 1;
constexpr std::uint32_t kCmdUnlink = 2;
constexpr std::uint32_t kRetSubmit = 3;
constexpr std::uint32_t kRetUnlink = 4;
constexpr std::uint32_t kDirIn = 1;
constexpr std::size_t kHeaderSize = 48;

constexpr std::uint16_t kVendor = 0x3C5E;
constexpr std::uint16_t kCameraProduct = 0x0B64;
constexpr std::uint16_t kDfuProduct = 0x0F1C;

constexpr std::uint8_t kXuId = 3;
constexpr std::uint16_t kFrameSize = 1024;
constexpr std::size_t kDeviceInfoSize = 230;

// DFU 1.1 states and requests.
enum DfuState : std::uint8_t {
    appIDLE = 0,
    dfuIDLE = 2,
    dfuDNLOAD_SYNC = 3,
    dfuDNBUSY = 4,
    dfuDNLOAD_IDLE = 5,
    dfuMANIFEST_SYNC = 6,
    dfuMANIFEST = 7,
    dfuMANIFEST_WAIT_RESET = 8,
    dfuERROR = 10,
};
constexpr std::uint8_t kErrStalledPacket = 0x0F;

struct Options {
    std::string log;
    std::string mode = "camera";
    std::array<std::uint8_t, 4> version = {5, 10, 0, 28};
    std::array<std::uint8_t, 4> newVersion = {5, 16, 0, 1};
    std::uint16_t transferSize = 1024;
    long unplugAtBlock = -1;
    unsigned dfuDelayMs = 300;
    unsigned lifetimeS = 120;
    std::string imageOut;
};

volatile sig_atomic_t stopRequested = 0;

std::uint32_t Crc32(const Bytes& data) {
    std::uint32_t crc = 0xFFFFFFFFu;
    for (std::uint8_t byte : data) {
        crc ^= byte;
        for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

void Put16(Bytes& out, unsigned value) {
    out.push_back(static_cast<std::uint8_t>(value));
    out.push_back(static_cast<std::uint8_t>(value >> 8));
}
void Put32(Bytes& out, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8)
        out.push_back(static_cast<std::uint8_t>(value >> shift));
}
void PutBe32(std::uint8_t* at, std::uint32_t value) {
    const std::uint32_t be = htonl(value);
    std::memcpy(at, &be, 4);
}
std::uint32_t GetBe32(const std::uint8_t* at) {
    std::uint32_t be;
    std::memcpy(&be, at, 4);
    return ntohl(be);
}
std::uint32_t GetLe32(const std::uint8_t* at) {
    return at[0] | (at[1] << 8) | (at[2] << 16) | (static_cast<std::uint32_t>(at[3]) << 24);
}

// CLOCK_MONOTONIC in milliseconds: the same clock as every other program in the VM, so
// that a benchmark can put the emulator's moments next to its own.
double MonotonicMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

std::string VersionText(const std::array<std::uint8_t, 4>& v) {
    return std::to_string(v[0]) + "." + std::to_string(v[1]) + "." + std::to_string(v[2]) + "." +
           std::to_string(v[3]);
}

bool ParseVersion(const char* text, std::array<std::uint8_t, 4>* version) {
    unsigned a, b, c, d;
    char tail;
    if (std::sscanf(text, "%u.%u.%u.%u%c", &a, &b, &c, &d, &tail) != 4) return false;
    if (a > 255 || b > 255 || c > 255 || d > 255) return false;
    *version = {static_cast<std::uint8_t>(a), static_cast<std::uint8_t>(b),
                static_cast<std::uint8_t>(c), static_cast<std::uint8_t>(d)};
    return true;
}

Bytes StringDescriptor(const std::string& text) {
    Bytes out = {static_cast<std::uint8_t>(2 + 2 * text.size()), 0x03};
    for (char c : text) Put16(out, static_cast<unsigned char>(c));
    return out;
}

Bytes DeviceDescriptor(std::uint16_t product, std::uint16_t release, bool composite) {
    Bytes d = {18, 0x01};
    Put16(d, 0x0200);
    if (composite) {
        // Interface association: miscellaneous class, common class, IAD protocol.
        d.insert(d.end(), {0xEF, 0x02, 0x01});
    } else {
        d.insert(d.end(), {0x00, 0x00, 0x00});
    }
    d.push_back(64);
    Put16(d, kVendor);
    Put16(d, product);
    Put16(d, release);
    d.insert(d.end(), {1, 2, 3, 1});
    return d;
}

void FinishConfiguration(Bytes& config) {
    config[2] = static_cast<std::uint8_t>(config.size());
    config[3] = static_cast<std::uint8_t>(config.size() >> 8);
}

// The camera: video control (interface 0) with camera terminal 1, processing unit 2, the
// family's extension unit 3 and streaming output terminal 4; video streaming (interface 1)
// with one uncompressed format, alternate setting 1 carrying the isochronous endpoint.
Bytes CameraConfiguration() {
    Bytes c = {9, 0x02, 0, 0, 2, 1, 0, 0x80, 250};
    c.insert(c.end(), {8, 0x0B, 0, 2, 0x0E, 0x03, 0x00, 0});  // association
    c.insert(c.end(), {9, 0x04, 0, 0, 1, 0x0E, 0x01, 0x00, 0});

    Bytes vc = {13, 0x24, 0x01};
    Put16(vc, 0x0100);
    const std::size_t totalAt = vc.size();
    Put16(vc, 0);
    Put32(vc, 48000000);
    vc.insert(vc.end(), {1, 1});
    // Camera terminal: no controls.
    vc.insert(vc.end(), {18, 0x24, 0x02, 1, 0x01, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0});
    // Processing unit (1.0 layout): no controls.
    vc.insert(vc.end(), {10, 0x24, 0x05, 2, 1, 0, 0, 2, 0, 0});
    // The family's extension unit 5b3e9a10-7c2d-4f61-9e84-2a6d0c1f7b39, control 1 only.
    vc.insert(vc.end(),
              {26,   0x24, 0x06, kXuId, 0x10, 0x9A, 0x3E, 0x5B, 0x2D, 0x7C, 0x61, 0x4F, 0x9E,
               0x84, 0x2A, 0x6D, 0x0C,  0x1F, 0x7B, 0x39, 1,    1,    2,    1,    0x01, 0});
    vc.insert(vc.end(), {9, 0x24, 0x03, 4, 0x01, 0x01, 0, kXuId, 0});
    vc[totalAt] = static_cast<std::uint8_t>(vc.size());
    vc[totalAt + 1] = static_cast<std::uint8_t>(vc.size() >> 8);
    c.insert(c.end(), vc.begin(), vc.end());
    c.insert(c.end(), {7, 0x05, 0x81, 0x03, 16, 0, 8});
    c.insert(c.end(), {5, 0x25, 0x03, 16, 0});

    c.insert(c.end(), {9, 0x04, 1, 0, 0, 0x0E, 0x02, 0x00, 0});
    Bytes vs = {14, 0x24, 0x01, 1, 0, 0, 0x82, 0, 4, 0, 0, 0, 1, 0};
    // Uncompressed YUY2.
    vs.insert(vs.end(),
              {27,   0x24, 0x04, 1,    1,    0x59, 0x55, 0x59, 0x32, 0x00, 0x00, 0x10, 0x00, 0x80,
               0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71, 16,   1,    0,    0,    0,    0});
    Bytes frame = {30, 0x24, 0x05, 1, 0};
    Put16(frame, 640);
    Put16(frame, 480);
    Put32(frame, 640 * 480 * 16 * 30);
    Put32(frame, 640 * 480 * 16 * 30);
    Put32(frame, 640 * 480 * 2);
    Put32(frame, 333333);
    frame.push_back(1);
    Put32(frame, 333333);
    vs.insert(vs.end(), frame.begin(), frame.end());
    vs[4] = static_cast<std::uint8_t>(vs.size());
    vs[5] = static_cast<std::uint8_t>(vs.size() >> 8);
    c.insert(c.end(), vs.begin(), vs.end());
    c.insert(c.end(), {9, 0x04, 1, 1, 1, 0x0E, 0x02, 0x00, 0});
    c.insert(c.end(), {7, 0x05, 0x82, 0x05, 0x00, 0x14, 1});
    FinishConfiguration(c);
    return c;
}

// The DFU-mode device: one interface of class 0xFE (DFU mode protocol 2) and its functional
// descriptor: can download and upload, not manifestation tolerant.
Bytes DfuConfiguration(std::uint16_t transferSize) {
    Bytes c = {9, 0x02, 0, 0, 1, 1, 0, 0x80, 250};
    c.insert(c.end(), {9, 0x04, 0, 0, 0, 0xFE, 0x01, 0x02, 4});
    c.insert(c.end(), {9, 0x21, 0x03});
    Put16(c, 1000);
    Put16(c, transferSize);
    Put16(c, 0x0110);
    FinishConfiguration(c);
    return c;
}

class Log {
  public:
    explicit Log(const std::string& path)
        : file_(path.empty() ? nullptr : std::fopen(path.c_str(), "a")) {}
    ~Log() {
        if (file_) std::fclose(file_);
    }
    template <typename... Args>
    void Line(const char* format, Args... args) {
        if (!file_) return;
        std::fprintf(file_, format, args...);
        std::fputc('\n', file_);
        std::fflush(file_);
    }

  private:
    std::FILE* file_;
};

struct Reply {
    bool stall = false;
    Bytes data;
};

class Emulator {
  public:
    Emulator(const Options& options) : options_(options), log_(options.log) {
        version_ = options.version;
        dfuMode_ = options.mode == "dfu";
    }

    int Run() {
        const auto end = Clock::now() + std::chrono::seconds(options_.lifetimeS);
        if (!Attach()) return 1;
        while (!stopRequested && Clock::now() < end) {
            RunDueTimers();
            int timeout = 200;
            if (!timers_.empty()) {
                const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(
                                      timers_.begin()->first - Clock::now())
                                      .count();
                timeout = static_cast<int>(std::max<long long>(0, std::min<long long>(wait, 200)));
            }
            if (socket_ < 0) {
                usleep(static_cast<useconds_t>(timeout) * 1000);
                continue;
            }
            pollfd fd = {socket_, POLLIN, 0};
            const int ready = poll(&fd, 1, timeout);
            if (ready < 0 && errno != EINTR) return 1;
            if (ready > 0 && !ServeOne()) Detach("host closed");
        }
        if (socket_ >= 0) Detach("end of run");
        return 0;
    }

  private:
    // --- attaching to vhci-hcd ---------------------------------------------------------

    bool Attach() {
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) < 0) return false;
        port_ = FreePort();
        if (port_ < 0) {
            log_.Line("error no free high-speed port on vhci-hcd");
            close(pair[0]);
            close(pair[1]);
            return false;
        }
        ++devnum_;
        const std::string command = std::to_string(port_) + " " + std::to_string(pair[1]) + " " +
                                    std::to_string((1u << 16) | devnum_) + " 3";
        log_.Line("clock attach %s %.3f", dfuMode_ ? "dfu" : "camera", MonotonicMs());
        std::ofstream attach(std::string(kVhciDir) + "/attach");
        attach << command;
        attach.close();
        close(pair[1]);  // the kernel holds its own reference now
        if (!attach) {
            log_.Line("error attach failed: %s", command.c_str());
            close(pair[0]);
            return false;
        }
        socket_ = pair[0];
        pending_.clear();
        alternate_.clear();
        reply_.clear();
        if (dfuMode_) {
            dfuState_ = dfuIDLE;
            dfuStatus_ = 0;
            dfuRequestSeen_ = false;
            image_.clear();
            blocks_ = 0;
            log_.Line("attach dfu %04x:%04x transfer-size %u", kVendor, kDfuProduct,
                      options_.transferSize);
        } else {
            log_.Line("attach camera %04x:%04x version %s", kVendor, kCameraProduct,
                      VersionText(version_).c_str());
        }
        return true;
    }

    int FreePort() {
        std::ifstream status(std::string(kVhciDir) + "/status");
        std::string line;
        std::getline(status, line);  // header
        while (std::getline(status, line)) {
            std::istringstream fields(line);
            std::string hub;
            int port = -1, state = -1;
            fields >> hub >> port >> state;
            if (hub == "hs" && state == 4) return port;  // VDEV_ST_NULL
        }
        return -1;
    }

    void Detach(const char* why) {
        if (socket_ < 0) return;
        std::ofstream detach(std::string(kVhciDir) + "/detach");
        detach << port_;
        detach.close();
        close(socket_);
        socket_ = -1;
        log_.Line("detach %s (%s)", dfuMode_ ? "dfu" : "camera", why);
    }

    void After(unsigned ms, std::function<void()> action) {
        timers_.emplace(Clock::now() + std::chrono::milliseconds(ms), std::move(action));
    }

    void RunDueTimers() {
        while (!timers_.empty() && timers_.begin()->first <= Clock::now()) {
            auto action = std::move(timers_.begin()->second);
            timers_.erase(timers_.begin());
            action();
        }
    }

    // --- USB/IP ------------------------------------------------------------------------

    bool ReadExact(std::uint8_t* buffer, std::size_t length) {
        std::size_t done = 0;
        while (done < length) {
            const ssize_t n = read(socket_, buffer + done, length - done);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            done += static_cast<std::size_t>(n);
        }
        return true;
    }

    bool WriteAll(const Bytes& data) {
        std::size_t done = 0;
        while (done < data.size()) {
            const ssize_t n = write(socket_, data.data() + done, data.size() - done);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            done += static_cast<std::size_t>(n);
        }
        return true;
    }

    bool ServeOne() {
        std::uint8_t header[kHeaderSize];
        if (!ReadExact(header, kHeaderSize)) return false;
        const std::uint32_t command = GetBe32(header);
        const std::uint32_t seqnum = GetBe32(header + 4);
        if (command == kCmdUnlink) {
            const std::uint32_t victim = GetBe32(header + 20);
            // Only URBs we hold back can still be unlinked; control requests are answered
            // at once.
            const bool held = pending_.erase(victim) > 0;
            Bytes reply(kHeaderSize, 0);
            PutBe32(reply.data(), kRetUnlink);
            PutBe32(reply.data() + 4, seqnum);
            PutBe32(reply.data() + 20, held ? static_cast<std::uint32_t>(-ECONNRESET) : 0);
            return WriteAll(reply);
        }
        if (command != kCmdSubmit) return false;
        const std::uint32_t direction = GetBe32(header + 12);
        const std::uint32_t endpoint = GetBe32(header + 16);
        const std::uint32_t length = GetBe32(header + 24);
        const std::uint32_t packets = GetBe32(header + 32);
        Bytes out;
        if (direction != kDirIn && length > 0) {
            out.resize(length);
            if (!ReadExact(out.data(), length)) return false;
        }
        if (packets != 0 && packets != 0xFFFFFFFFu) {
            // Isochronous descriptors follow; nothing here streams, so none is expected.
            Bytes skip(16 * packets);
            if (!ReadExact(skip.data(), skip.size())) return false;
        }
        if (endpoint != 0) {
            // The status interrupt endpoint: uvcvideo keeps a URB there while the node is
            // open; the camera has nothing to report, so it stays pending until unlinked.
            pending_.insert(seqnum);
            return true;
        }
        const std::uint8_t* setup = header + 40;
        Reply reply = Control(setup, out);
        Bytes answer(kHeaderSize, 0);
        PutBe32(answer.data(), kRetSubmit);
        PutBe32(answer.data() + 4, seqnum);
        const bool in = setup[0] & 0x80;
        if (reply.stall) {
            PutBe32(answer.data() + 20, static_cast<std::uint32_t>(-EPIPE));
        } else {
            const std::uint32_t actual =
                in ? static_cast<std::uint32_t>(std::min<std::size_t>(reply.data.size(), length))
                   : length;
            PutBe32(answer.data() + 24, actual);
            if (in) answer.insert(answer.end(), reply.data.begin(), reply.data.begin() + actual);
        }
        const bool written = WriteAll(answer);
        if (afterReply_) {
            auto action = std::move(afterReply_);
            afterReply_ = nullptr;
            action();
        }
        return written || socket_ < 0;
    }

    // --- requests ----------------------------------------------------------------------

    Reply Control(const std::uint8_t* setup, const Bytes& out) {
        const std::uint8_t type = setup[0];
        const std::uint8_t request = setup[1];
        const std::uint16_t value = setup[2] | (setup[3] << 8);
        const std::uint16_t index = setup[4] | (setup[5] << 8);
        const std::uint16_t length = setup[6] | (setup[7] << 8);
        if ((type & 0x60) == 0x00) return Standard(type, request, value, index);
        if ((type & 0x60) == 0x20 && (type & 0x1F) == 0x01) {
            return dfuMode_ ? Dfu(request, value, length, out)
                            : Video(request, value, index, length, out);
        }
        return {true, {}};
    }

    Reply Standard(std::uint8_t type, std::uint8_t request, std::uint16_t value,
                   std::uint16_t index) {
        switch (request) {
            case 0x00:  // GET_STATUS
                return {false, {0, 0}};
            case 0x06: {  // GET_DESCRIPTOR
                const std::uint8_t kind = value >> 8;
                const std::uint8_t which = value & 0xFF;
                if (kind == 0x01) {
                    return {false, dfuMode_ ? DeviceDescriptor(kDfuProduct, 0x0100, false)
                                            : DeviceDescriptor(kCameraProduct, Release(), true)};
                }
                if (kind == 0x02 && which == 0) {
                    return {false, dfuMode_ ? DfuConfiguration(options_.transferSize)
                                            : CameraConfiguration()};
                }
                if (kind == 0x03) return String(which);
                return {true, {}};
            }
            case 0x08:  // GET_CONFIGURATION
                return {false, {1}};
            case 0x09:  // SET_CONFIGURATION
            case 0x01:  // CLEAR_FEATURE
            case 0x03:  // SET_FEATURE
                return {false, {}};
            case 0x0A:  // GET_INTERFACE
                return {false, {alternate_[index & 0xFF]}};
            case 0x0B:  // SET_INTERFACE
                if ((type & 0x1F) != 0x01) return {true, {}};
                alternate_[index & 0xFF] = static_cast<std::uint8_t>(value);
                if (dfuMode_) log_.Line("dfu set-interface %u alternate %u", index & 0xFF, value);
                return {false, {}};
            default:
                return {true, {}};
        }
    }

    std::uint16_t Release() const {
        return static_cast<std::uint16_t>((version_[0] << 8) | version_[1]);
    }

    Reply String(std::uint8_t index) {
        switch (index) {
            case 0:
                return {false, {4, 0x03, 0x09, 0x04}};
            case 1:
                return {false, StringDescriptor("Vantrel")};
            case 2:
                // Longer than V4L2's 31-character card name on purpose.
                return {false,
                        StringDescriptor(dfuMode_ ? "Lynx LX20 DFU Mode"
                                                  : "Vantrel Lynx LX20 Depth Camera Module")};
            case 3:
                return {false, StringDescriptor("LX20A0001")};
            case 4:
                return {false, StringDescriptor("Lynx firmware")};
            default:
                return {true, {}};
        }
    }

    // UVC class requests: the extension unit's control 1, the streaming probe and commit
    // controls, and the request error code that uvcvideo reads after a stall.
    Reply Video(std::uint8_t request, std::uint16_t value, std::uint16_t index,
                std::uint16_t length, const Bytes& out) {
        const std::uint8_t entity = index >> 8;
        const std::uint8_t interfaceNumber = index & 0xFF;
        const std::uint8_t selector = value >> 8;
        if (interfaceNumber == 1) return Streaming(request, selector, length, out);
        if (interfaceNumber != 0) return {true, {}};
        if (entity == 0 && selector == 2 && request == 0x81) return {false, {lastError_}};
        if (entity != kXuId || selector != 1) {
            lastError_ = 0x06;  // invalid control
            return {true, {}};
        }
        switch (request) {
            case 0x86:  // GET_INFO: supports GET and SET
                return {false, {0x03}};
            case 0x85:  // GET_LEN
                return {false, {kFrameSize & 0xFF, kFrameSize >> 8}};
            case 0x01:  // SET_CUR: one command frame
                if (out.size() != kFrameSize) {
                    lastError_ = 0x04;  // out of range
                    return {true, {}};
                }
                Command(out);
                return {false, {}};
            case 0x81:  // GET_CUR: the answer to the last command
                if (reply_.empty()) {
                    lastError_ = 0x01;  // not ready
                    return {true, {}};
                }
                {
                    Bytes answer(kFrameSize, 0);
                    std::copy(reply_.begin(), reply_.end(), answer.begin());
                    reply_.clear();
                    if (leaveAfterReply_) {
                        leaveAfterReply_ = false;
                        afterReply_ = [this] { SwitchToDfu(); };
                    }
                    return {false, answer};
                }
            case 0x82:  // GET_MIN, GET_MAX, GET_RES, GET_DEF: a frame of zeros
            case 0x83:
            case 0x84:
            case 0x87:
                return {false, Bytes(kFrameSize, 0)};
            default:
                lastError_ = 0x07;  // invalid request
                return {true, {}};
        }
    }

    Reply Streaming(std::uint8_t request, std::uint8_t selector, std::uint16_t length,
                    const Bytes& out) {
        if (selector != 1 && selector != 2) return {true, {}};
        if (probe_.empty()) {
            probe_.assign(26, 0);
            probe_[2] = 1;  // format 1
            probe_[3] = 1;  // frame 1
            const std::uint32_t interval = 333333, frame = 640 * 480 * 2, payload = 3072;
            std::memcpy(&probe_[4], &interval, 4);
            std::memcpy(&probe_[18], &frame, 4);
            std::memcpy(&probe_[22], &payload, 4);
        }
        if (request == 0x01) {
            if (out.size() >= 26) std::copy(out.begin(), out.begin() + 26, probe_.begin());
            return {false, {}};
        }
        if (request == 0x81 || request == 0x82 || request == 0x83 || request == 0x87) {
            Bytes answer = probe_;
            answer.resize(length, 0);
            return {false, answer};
        }
        if (request == 0x86) return {false, {0x03}};
        if (request == 0x85) return {false, {26, 0}};
        return {true, {}};
    }

    void Command(const Bytes& frame) {
        reply_.clear();
        const unsigned length = frame[0] | (frame[1] << 8);
        if (frame[2] != 0xAB || frame[3] != 0xCD || length < 20 || length > 1020) {
            log_.Line("command rejected: header %02x %02x %02x %02x", frame[0], frame[1], frame[2],
                      frame[3]);
            return;
        }
        const std::uint32_t opcode = GetLe32(&frame[4]);
        const std::uint32_t p1 = GetLe32(&frame[8]), p2 = GetLe32(&frame[12]),
                            p3 = GetLe32(&frame[16]), p4 = GetLe32(&frame[20]);
        log_.Line("command 0x%02x length %u parameters %u %u %u %u", opcode, length, p1, p2, p3,
                  p4);
        Put32(reply_, opcode);
        if (opcode == 0x10) {
            Bytes info(kDeviceInfoSize, 0);
            for (std::size_t i = 0; i < info.size(); ++i)
                info[i] = static_cast<std::uint8_t>(0x40 + i);
            info[12] = version_[3];
            info[13] = version_[2];
            info[14] = version_[1];
            info[15] = version_[0];
            reply_.insert(reply_.end(), info.begin(), info.end());
        } else if (opcode == 0x1E && p1 == 1) {
            // The camera answers, then restarts into its boot loader. Should nobody read the
            // answer, it restarts all the same.
            leaveAfterReply_ = true;
            After(1000, [this] {
                if (leaveAfterReply_) {
                    leaveAfterReply_ = false;
                    SwitchToDfu();
                }
            });
        }
    }

    void SwitchToDfu() {
        if (dfuMode_ || socket_ < 0) return;
        Detach("restart in DFU mode");
        dfuMode_ = true;
        After(options_.dfuDelayMs, [this] { Attach(); });
    }

    // --- DFU 1.1 -----------------------------------------------------------------------

    Reply DfuStall() {
        dfuState_ = dfuERROR;
        dfuStatus_ = kErrStalledPacket;
        return {true, {}};
    }

    Reply Dfu(std::uint8_t request, std::uint16_t value, std::uint16_t length, const Bytes& out) {
        if (!dfuRequestSeen_) {
            dfuRequestSeen_ = true;
            log_.Line("clock first-dfu-request %.3f", MonotonicMs());
        }
        switch (request) {
            case 0:  // DETACH: already in DFU mode, nothing to do
                log_.Line("dfu detach timeout %u in state %u", value, dfuState_);
                return {false, {}};
            case 1:  // DNLOAD
                return Download(value, out, length);
            case 2:  // UPLOAD: nothing to read back
                if (dfuState_ != dfuIDLE) return DfuStall();
                log_.Line("dfu upload %u", length);
                return {false, {}};
            case 3:  // GETSTATUS
                return Status();
            case 4:  // CLRSTATUS
                if (dfuState_ != dfuERROR) return DfuStall();
                dfuState_ = dfuIDLE;
                dfuStatus_ = 0;
                return {false, {}};
            case 5:  // GETSTATE
                return {false, {dfuState_}};
            case 6:  // ABORT
                if (dfuState_ == dfuIDLE || dfuState_ == dfuDNLOAD_IDLE) {
                    if (dfuState_ == dfuDNLOAD_IDLE)
                        log_.Line("dfu abort after %u blocks", blocks_);
                    dfuState_ = dfuIDLE;
                    image_.clear();
                    blocks_ = 0;
                    return {false, {}};
                }
                return DfuStall();
            default:
                return DfuStall();
        }
    }

    Reply Download(std::uint16_t block, const Bytes& data, std::uint16_t length) {
        if (length == 0) {
            if (dfuState_ != dfuDNLOAD_IDLE) return DfuStall();
            log_.Line("dfu end of image at block %u", block);
            dfuState_ = dfuMANIFEST_SYNC;
            return {false, {}};
        }
        if (dfuState_ != dfuIDLE && dfuState_ != dfuDNLOAD_IDLE) return DfuStall();
        if (length > options_.transferSize) return DfuStall();
        if (options_.unplugAtBlock >= 0 && blocks_ == options_.unplugAtBlock) {
            // The cable is pulled while this block is on its way: no answer, no device.
            log_.Line("dfu unplugged during block %u after %zu bytes crc32 %08x", block,
                      image_.size(), Crc32(image_));
            Detach("unplugged");
            options_.unplugAtBlock = -1;
            return {true, {}};
        }
        if (dfuState_ == dfuIDLE) {
            image_.clear();
            blocks_ = 0;
            started_ = Clock::now();
        }
        image_.insert(image_.end(), data.begin(), data.end());
        ++blocks_;
        dfuState_ = dfuDNLOAD_SYNC;
        return {false, {}};
    }

    Reply Status() {
        std::uint8_t reported = dfuState_;
        switch (dfuState_) {
            case dfuDNLOAD_SYNC:
                // The block is written by the time the host asks.
                dfuState_ = reported = dfuDNLOAD_IDLE;
                break;
            case dfuMANIFEST_SYNC:
                dfuState_ = reported = dfuMANIFEST;
                break;
            case dfuMANIFEST:
                dfuState_ = reported = dfuMANIFEST_WAIT_RESET;
                Manifested();
                break;
            case dfuMANIFEST_WAIT_RESET:
                // The host has seen the final state: the device resets into the new firmware.
                afterReply_ = [this] { ResetIntoCamera(); };
                break;
            default:
                break;
        }
        return {false, {dfuStatus_, 0, 0, 0, reported, 0}};
    }

    void Manifested() {
        const double seconds = std::chrono::duration<double>(Clock::now() - started_).count();
        log_.Line("dfu manifested blocks %u bytes %zu crc32 %08x", blocks_, image_.size(),
                  Crc32(image_));
        log_.Line("timing download %.3f s", seconds);
        if (!options_.imageOut.empty()) {
            std::ofstream file(options_.imageOut, std::ios::binary);
            file.write(reinterpret_cast<const char*>(image_.data()),
                       static_cast<std::streamsize>(image_.size()));
        }
        // A host that does not ask again (dfu-util ends here) still sees the device reset.
        After(1000, [this] {
            if (dfuMode_ && dfuState_ == dfuMANIFEST_WAIT_RESET) ResetIntoCamera();
        });
    }

    void ResetIntoCamera() {
        if (!dfuMode_ || socket_ < 0) return;
        Detach("reset after manifestation");
        dfuMode_ = false;
        dfuState_ = appIDLE;
        version_ = options_.newVersion;
        After(options_.dfuDelayMs, [this] { Attach(); });
    }

    Options options_;
    Log log_;
    int socket_ = -1;
    int port_ = -1;
    unsigned devnum_ = 0;
    bool dfuMode_ = false;
    std::array<std::uint8_t, 4> version_{};
    std::set<std::uint32_t> pending_;
    std::map<std::uint8_t, std::uint8_t> alternate_;
    std::multimap<Clock::time_point, std::function<void()>> timers_;
    std::function<void()> afterReply_;
    // Camera.
    Bytes reply_;
    Bytes probe_;
    bool leaveAfterReply_ = false;
    std::uint8_t lastError_ = 0;
    // DFU.
    std::uint8_t dfuState_ = dfuIDLE;
    std::uint8_t dfuStatus_ = 0;
    bool dfuRequestSeen_ = false;
    Bytes image_;
    unsigned blocks_ = 0;
    Clock::time_point started_{};
};

bool ParseOptions(int argc, char** argv, Options* options) {
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (i + 1 >= argc) return false;
        const char* value = argv[++i];
        char* end = nullptr;
        if (name == "--log") {
            options->log = value;
        } else if (name == "--image-out") {
            options->imageOut = value;
        } else if (name == "--mode") {
            options->mode = value;
            if (options->mode != "camera" && options->mode != "dfu") return false;
        } else if (name == "--version") {
            if (!ParseVersion(value, &options->version)) return false;
        } else if (name == "--new-version") {
            if (!ParseVersion(value, &options->newVersion)) return false;
        } else if (name == "--transfer-size") {
            const long size = std::strtol(value, &end, 10);
            if (*end != '\0' || size < 1 || size > 4096) return false;
            options->transferSize = static_cast<std::uint16_t>(size);
        } else if (name == "--unplug-at-block") {
            options->unplugAtBlock = std::strtol(value, &end, 10);
            if (*end != '\0' || options->unplugAtBlock < 0) return false;
        } else if (name == "--dfu-delay-ms") {
            options->dfuDelayMs = static_cast<unsigned>(std::strtoul(value, &end, 10));
            if (*end != '\0' || options->dfuDelayMs > 10000) return false;
        } else if (name == "--lifetime-s") {
            options->lifetimeS = static_cast<unsigned>(std::strtoul(value, &end, 10));
            if (*end != '\0' || options->lifetimeS == 0 || options->lifetimeS > 3600) return false;
        } else {
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!ParseOptions(argc, argv, &options)) {
        std::fprintf(stderr,
                     "usage: %s --log FILE [--mode camera|dfu] [--version A.B.C.D] "
                     "[--new-version A.B.C.D] [--transfer-size N] [--unplug-at-block N] "
                     "[--dfu-delay-ms N] [--lifetime-s N] [--image-out FILE]\n",
                     argv[0]);
        return 2;
    }
    struct sigaction action {};
    action.sa_handler = [](int) { stopRequested = 1; };
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
    Emulator emulator(options);
    return emulator.Run();
}
