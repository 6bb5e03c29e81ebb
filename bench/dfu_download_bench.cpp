// SPDX-License-Identifier: Apache-2.0
// How much time the host spends per DFU block, and how much memory a download needs.
//
// The lab's device answers at once (no busy or manifest polls), so every microsecond
// measured is the host's: engine, endpoint, the platform's WinUSB calls and the device
// model behind them. The engine alone is measured against an endpoint that does nothing.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <string>
#include <vector>

#include "dfu/dfu_command.h"
#include "dfu/win_usb_device.h"
#include "platform/posix/device_backend.h"
#include "platform/sim/sim_world.h"

namespace {

std::atomic<std::int64_t> heapNow{0};
std::atomic<std::int64_t> heapPeak{0};

void Count(std::int64_t delta) {
    const std::int64_t now = heapNow.fetch_add(delta, std::memory_order_relaxed) + delta;
    std::int64_t peak = heapPeak.load(std::memory_order_relaxed);
    while (now > peak && !heapPeak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
    }
}

}  // namespace

// Every heap block carries its size in front, so that the peak of live heap bytes is known.
void* operator new(std::size_t size) {
    auto* block = static_cast<std::size_t*>(std::malloc(size + sizeof(std::max_align_t)));
    if (block == nullptr) throw std::bad_alloc();
    *block = size;
    Count(static_cast<std::int64_t>(size));
    return reinterpret_cast<char*>(block) + sizeof(std::max_align_t);
}
void operator delete(void* memory) noexcept {
    if (memory == nullptr) return;
    auto* block =
        reinterpret_cast<std::size_t*>(static_cast<char*>(memory) - sizeof(std::max_align_t));
    Count(-static_cast<std::int64_t>(*block));
    std::free(block);
}
void operator delete(void* memory, std::size_t) noexcept {
    operator delete(memory);
}

namespace {

constexpr std::size_t kImageSize = 2u << 20;
const std::wstring kLink =
    L"\\\\?\\USB#VID_3C5E&PID_0F1C#5&1f2e3d4c&0&1#{a5dcbf10-6530-11d2-901f-00c04fb951ed}";

std::string ImageFile() {
    static const std::string path = [] {
        const auto file = std::filesystem::temp_directory_path() / "lynx-dfu-bench-image.bin";
        std::vector<char> bytes(kImageSize);
        for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 31);
        std::ofstream(file, std::ios::binary)
            .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        return file.string();
    }();
    return path;
}

void FullStack(benchmark::State& state) {
    const auto transferSize = static_cast<std::uint16_t>(state.range(0));
    const std::string file = ImageFile();
    const auto blocks = static_cast<std::int64_t>((kImageSize + transferSize - 1) / transferSize);
    std::int64_t peakAboveImage = 0;
    for (auto _ : state) {
        state.PauseTiming();
        sim::WorldSpec spec;
        sim::DfuDeviceSpec device;
        device.link = kLink;
        device.transferSize = transferSize;
        device.manifestPolls = 0;
        spec.dfuDevices = {device};
        platform::InstallBackend(std::make_shared<sim::SimWorld>(spec));
        const std::int64_t before = heapNow.load();
        heapPeak.store(before);
        state.ResumeTiming();

        dfu::WinUsbDevice usb(kLink);
        dfu::DfuCommand command(nullptr, usb.AcquireControlEndpoint());
        if (command.ExecuteFile(file.c_str()) != S_OK) state.SkipWithError("download failed");
        usb.Close();

        state.PauseTiming();
        peakAboveImage = std::max<std::int64_t>(
            peakAboveImage, heapPeak.load() - before - static_cast<std::int64_t>(kImageSize));
        platform::InstallBackend(nullptr);
        state.ResumeTiming();
    }
    state.counters["blocks/s"] = benchmark::Counter(static_cast<double>(blocks),
                                                    benchmark::Counter::kIsIterationInvariantRate);
    state.counters["s/block"] = benchmark::Counter(
        static_cast<double>(blocks),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.counters["heap_peak_over_image_KiB"] = static_cast<double>(peakAboveImage) / 1024.0;
}
BENCHMARK(FullStack)->Arg(64)->Arg(1024)->Arg(4096)->Unit(benchmark::kMillisecond);

// The engine's own share: an endpoint that answers every request at once.
class InstantEndpoint final : public usb_core::IUsbControlEndpoint {
  public:
    explicit InstantEndpoint(std::uint16_t size) : size_(size) {}
    HRESULT Transfer(WINUSB_SETUP_PACKET& packet, PUCHAR buffer, std::uint64_t) override {
        if (packet.Request == 1) next_ = packet.Length == 0 ? 8 : 5;
        if (packet.Request == 3) buffer[4] = next_, buffer[0] = 0;
        if (packet.Request == 5) buffer[0] = 2;
        return S_OK;
    }
    bool IsConnected() override { return true; }
    void Disconnect() override {}
    std::uint16_t GetMaxTransferSize() override { return size_; }

  private:
    std::uint16_t size_;
    std::uint8_t next_ = 2;
};

void EngineOnly(benchmark::State& state) {
    const auto transferSize = static_cast<std::uint16_t>(state.range(0));
    const std::vector<std::uint8_t> image(kImageSize, 0x5A);
    const auto blocks = static_cast<std::int64_t>((kImageSize + transferSize - 1) / transferSize);
    for (auto _ : state) {
        dfu::DfuCommand command(nullptr, std::make_shared<InstantEndpoint>(transferSize));
        benchmark::DoNotOptimize(command.Execute(image.data(), image.size()));
    }
    state.counters["s/block"] = benchmark::Counter(
        static_cast<double>(blocks),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(EngineOnly)->Arg(64)->Arg(1024)->Arg(4096)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
