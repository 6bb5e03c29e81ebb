// SPDX-License-Identifier: Apache-2.0
// Benchmark helper for the VM: subscribes to USB arrivals through the Linux backend, exactly
// as the arrival watcher does, and prints the CLOCK_MONOTONIC moment (ms) at which the first
// arrival of a DFU-mode device of the family is delivered. It also writes a line to the
// kernel log at that moment, so that its time stands next to the kernel's own "New USB
// device found" line in one clock. Gives up after --timeout-ms.
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "platform/linux/linux_backend.h"

int main(int argc, char** argv) {
    long timeoutMs = 10000;
    if (argc == 3 && std::strcmp(argv[1], "--timeout-ms") == 0) timeoutMs = std::atol(argv[2]);
    auto backend = platform::linux_hw::CreateLinuxBackend();
    std::atomic<double> noticedAt{0};
    const std::uint64_t subscription =
        backend->SubscribeUsbEvents([&](platform::UsbEvent event, const std::wstring& path) {
            if (event != platform::UsbEvent::kArrival) return;
            if (path.find(L"VID_3C5E&PID_0F1C") == std::wstring::npos) return;
            timespec now{};
            clock_gettime(CLOCK_MONOTONIC, &now);
            double expected = 0;
            if (noticedAt.compare_exchange_strong(expected,
                                                  static_cast<double>(now.tv_sec) * 1e3 +
                                                      static_cast<double>(now.tv_nsec) / 1e6)) {
                const int kmsg = open("/dev/kmsg", O_WRONLY | O_CLOEXEC);
                if (kmsg >= 0) {
                    static const char line[] = "hwlab-probe: arrival delivered\n";
                    [[maybe_unused]] const auto written = write(kmsg, line, sizeof line - 1);
                    close(kmsg);
                }
            }
        });
    if (subscription == 0) {
        std::fprintf(stderr, "no uevent subscription\n");
        return 2;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (noticedAt.load() == 0 && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    backend->UnsubscribeUsbEvents(subscription);
    if (noticedAt.load() == 0) return 1;
    std::printf("noticed %.3f\n", noticedAt.load());
    return 0;
}
