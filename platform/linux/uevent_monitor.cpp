// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/uevent_monitor.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "platform/linux/usb_paths.h"

namespace platform::linux_hw {
namespace {
// The kernel's own multicast group; udevd re-broadcasts on another one, which we ignore.
constexpr unsigned kKernelGroup = 1;
// The thread wakes this often even without events, so a lost wake-up cannot keep it alive.
constexpr int kPollIntervalMs = 500;
}  // namespace

UeventMonitor::~UeventMonitor() {
    Stop();
}

std::uint64_t UeventMonitor::Subscribe(UsbEventCallback callback) {
    std::lock_guard lock(mutex_);
    if (!thread_.joinable()) {
        const int fd =
            ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT);
        if (fd < 0) return 0;
        sockaddr_nl address{};
        address.nl_family = AF_NETLINK;
        address.nl_groups = kKernelGroup;
        // A large queue: a replug storm must not overflow it before the thread reads.
        const int size = 1 << 20;
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0 ||
            ::pipe2(wake_, O_CLOEXEC | O_NONBLOCK) < 0) {
            ::close(fd);
            return 0;
        }
        socket_ = fd;
        thread_ = std::thread(&UeventMonitor::Run, this, socket_, wake_[0]);
    }
    const std::uint64_t id = nextId_++;
    subscribers_[id] = std::make_shared<UsbEventCallback>(std::move(callback));
    return id;
}

void UeventMonitor::Unsubscribe(std::uint64_t subscription) {
    bool last = false;
    {
        std::lock_guard lock(mutex_);
        subscribers_.erase(subscription);
        last = subscribers_.empty();
    }
    // A callback already running finishes before we return.
    {
        std::lock_guard delivery(deliveryMutex_);
    }
    if (last) Stop();
}

void UeventMonitor::Stop() {
    std::thread thread;
    int socket = -1, wakeRead = -1, wakeWrite = -1;
    {
        std::lock_guard lock(mutex_);
        if (!thread_.joinable() || !subscribers_.empty()) return;
        thread = std::move(thread_);
        // Taken out under the lock: a new subscription may open fresh ones meanwhile.
        socket = std::exchange(socket_, -1);
        wakeRead = std::exchange(wake_[0], -1);
        wakeWrite = std::exchange(wake_[1], -1);
        const char byte = 1;
        [[maybe_unused]] const auto written = ::write(wakeWrite, &byte, 1);
    }
    thread.join();
    ::close(socket);
    ::close(wakeRead);
    ::close(wakeWrite);
}

void UeventMonitor::Run(int socket, int wake) {
    std::vector<char> buffer(std::size_t{64} * 1024);
    while (true) {
        pollfd fds[2] = {{socket, POLLIN, 0}, {wake, POLLIN, 0}};
        const int ready = ::poll(fds, 2, kPollIntervalMs);
        if (ready < 0 && errno != EINTR) return;
        if (fds[1].revents) return;
        if (!(fds[0].revents & POLLIN)) continue;
        while (true) {
            sockaddr_nl sender{};
            iovec io{buffer.data(), buffer.size()};
            msghdr message{};
            message.msg_name = &sender;
            message.msg_namelen = sizeof sender;
            message.msg_iov = &io;
            message.msg_iovlen = 1;
            const ssize_t length = ::recvmsg(socket, &message, 0);
            if (length < 0) break;  // drained (or an overrun: later events still come)
            // Only the kernel speaks on its group; anything else could be forged.
            if (sender.nl_pid != 0) continue;
            const auto event = ParseUsbUevent(buffer.data(), static_cast<std::size_t>(length));
            if (!event) continue;
            const std::wstring path = BuildUsbInterfacePath(event->address);
            std::lock_guard delivery(deliveryMutex_);
            std::vector<std::shared_ptr<UsbEventCallback>> callbacks;
            {
                std::lock_guard lock(mutex_);
                for (const auto& [id, callback] : subscribers_) callbacks.push_back(callback);
            }
            for (const auto& callback : callbacks) {
                (*callback)(event->arrival ? UsbEvent::kArrival : UsbEvent::kRemoval, path);
            }
        }
    }
}

}  // namespace platform::linux_hw
