// SPDX-License-Identifier: Apache-2.0
// Events, waits and the clock of the installed backend.
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "platform/common/real_calls.h"
#include "platform/posix/device_backend.h"
#include "platform/posix/kernel_object.h"
#include "platform/sync.h"

namespace platform::posix {
namespace {

class Event final : public KernelObject, public Signal {
  public:
    Event(bool manualReset, bool signalled) : manualReset_(manualReset), signalled_(signalled) {}

    void Set() {
        {
            std::lock_guard lock(mutex_);
            signalled_ = true;
        }
        cv_.notify_all();
    }

    void Reset() {
        std::lock_guard lock(mutex_);
        signalled_ = false;
    }

    bool Signalled() override {
        std::lock_guard lock(mutex_);
        return signalled_;
    }

    bool Consume() override {
        std::lock_guard lock(mutex_);
        return TakeLocked();
    }

    bool Await(std::optional<std::chrono::nanoseconds> limit) override {
        std::unique_lock lock(mutex_);
        if (!limit) {
            cv_.wait(lock, [&] { return signalled_; });
        } else if (!cv_.wait_for(lock, *limit, [&] { return signalled_; })) {
            return false;
        }
        return TakeLocked();
    }

  private:
    bool TakeLocked() {
        if (!signalled_) return false;
        if (!manualReset_) signalled_ = false;
        return true;
    }

    std::mutex mutex_;
    std::condition_variable cv_;
    const bool manualReset_;
    bool signalled_;
};

class SteadyClock final : public Clock {
  public:
    std::uint64_t NowMs() override {
        return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                              std::chrono::steady_clock::now() - start_)
                                              .count());
    }
    void Sleep(std::uint32_t ms) override {
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    }
    bool Wait(std::uint32_t ms, Signal& signal) override {
        if (ms == INFINITE) return signal.Await(std::nullopt);
        return signal.Await(std::chrono::milliseconds(ms));
    }

  private:
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

Event* EventFromHandle(HANDLE handle) {
    return dynamic_cast<Event*>(FromHandle(handle));
}

}  // namespace

KernelObject* FromHandle(HANDLE handle) {
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE) return nullptr;
    return static_cast<KernelObject*>(handle);
}

}  // namespace platform::posix

platform::Clock& platform::MachineClock() {
    static posix::SteadyClock clock;
    return clock;
}

using platform::posix::Event;
using platform::posix::EventFromHandle;
using platform::posix::FromHandle;

// The program creates no named object: a name in the session's namespace is one that any
// other program may take first, hold as another kind of object or signal. Windows would
// accept the name; this stand-in refuses it, so that the lab catches a named event at once.
HANDLE platform::real::CreateEventW(LPSECURITY_ATTRIBUTES, BOOL manualReset, BOOL initialState,
                                    LPCWSTR name) {
    if (name != nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return platform::posix::ToHandle(new Event(manualReset != FALSE, initialState != FALSE));
}

namespace {
// Win32's calls on a handle that is not (or not the kind of) object they take fail this way.
template <typename Object, typename Action>
BOOL OnObject(Object* object, Action action) {
    if (!object) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    action(*object);
    return TRUE;
}
}  // namespace

BOOL platform::real::SetEvent(HANDLE event) {
    return OnObject(EventFromHandle(event), [](Event& object) { object.Set(); });
}

BOOL platform::real::ResetEvent(HANDLE event) {
    return OnObject(EventFromHandle(event), [](Event& object) { object.Reset(); });
}

DWORD platform::real::WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
    if (!FromHandle(handle)) {
        SetLastError(ERROR_INVALID_HANDLE);
        return WAIT_FAILED;
    }
    // Events are the only objects of this layer that can be waited on.
    Event* event = EventFromHandle(handle);
    if (!event) return WAIT_FAILED;
    // The backend is held for the wait, so that one installed meanwhile cannot end its clock.
    const auto backend = platform::CurrentBackend();
    return backend->Time().Wait(milliseconds, *event) ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
}

BOOL platform::real::CloseHandle(HANDLE handle) {
    return OnObject(FromHandle(handle), [](auto& object) { object.Unref(); });
}

void platform::real::Sleep(DWORD milliseconds) {
    const auto backend = platform::CurrentBackend();
    backend->Time().Sleep(milliseconds);
}

ULONGLONG platform::real::GetTickCount64() {
    return platform::Backend().Time().NowMs();
}
