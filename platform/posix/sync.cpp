// Events, waits and the clock over the installed backend's time scale.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "platform/posix/device_backend.h"
#include "platform/posix/kernel_object.h"
#include "platform/sync.h"

namespace platform::posix {
namespace {

class Event final : public KernelObject {
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

    bool Signalled() {
        std::lock_guard lock(mutex_);
        return signalled_;
    }

    // Takes the signal, as a wait that it ends would.
    bool Consume() {
        std::lock_guard lock(mutex_);
        if (!signalled_) return false;
        if (!manualReset_) signalled_ = false;
        return true;
    }

    DWORD Wait(std::chrono::nanoseconds limit, bool infinite) override {
        std::unique_lock lock(mutex_);
        if (infinite) {
            cv_.wait(lock, [&] { return signalled_; });
        } else if (!cv_.wait_for(lock, limit, [&] { return signalled_; })) {
            return WAIT_TIMEOUT;
        }
        if (!manualReset_) signalled_ = false;
        return WAIT_OBJECT_0;
    }

  private:
    std::mutex mutex_;
    std::condition_variable cv_;
    const bool manualReset_;
    bool signalled_;
};

}  // namespace

KernelObject* FromHandle(HANDLE handle) {
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE) return nullptr;
    return static_cast<KernelObject*>(handle);
}

std::chrono::nanoseconds WorldToReal(DWORD milliseconds) {
    const unsigned scale = std::max(1u, Backend().TimeScale());
    return std::chrono::nanoseconds(std::chrono::milliseconds(milliseconds)) / scale;
}

namespace {
Event* EventFromHandle(HANDLE handle) {
    return dynamic_cast<Event*>(FromHandle(handle));
}

const std::chrono::steady_clock::time_point& ClockStart() {
    static const auto start = std::chrono::steady_clock::now();
    return start;
}
}  // namespace

}  // namespace platform::posix

using platform::posix::Event;
using platform::posix::EventFromHandle;
using platform::posix::FromHandle;

// The program creates no named object: a name in the session's namespace is one that any
// other program may take first, hold as another kind of object or signal. Windows would
// accept the name; this stand-in refuses it, so that the lab catches a named event at once.
HANDLE CreateEventW(LPSECURITY_ATTRIBUTES, BOOL manualReset, BOOL initialState, LPCWSTR name) {
    if (name != nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return platform::posix::ToHandle(new Event(manualReset != FALSE, initialState != FALSE));
}

BOOL SetEvent(HANDLE event) {
    Event* object = EventFromHandle(event);
    if (!object) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    object->Set();
    return TRUE;
}

BOOL ResetEvent(HANDLE event) {
    Event* object = EventFromHandle(event);
    if (!object) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    object->Reset();
    return TRUE;
}

DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
    auto* object = FromHandle(handle);
    if (!object) {
        SetLastError(ERROR_INVALID_HANDLE);
        return WAIT_FAILED;
    }
    Event* event = EventFromHandle(handle);
    if (platform::WorldClock* clock = platform::Backend().Clock(); clock && event) {
        const auto signalled = [event] { return event->Signalled(); };
        do {
            clock->Pass(milliseconds == INFINITE ? 3600000 : milliseconds, signalled);
        } while (milliseconds == INFINITE && !event->Signalled());
        return event->Consume() ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
    }
    return object->Wait(platform::posix::WorldToReal(milliseconds), milliseconds == INFINITE);
}

BOOL CloseHandle(HANDLE handle) {
    auto* object = FromHandle(handle);
    if (!object) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    object->Unref();
    return TRUE;
}

void Sleep(DWORD milliseconds) {
    if (platform::WorldClock* clock = platform::Backend().Clock()) {
        clock->Pass(milliseconds, nullptr);
        return;
    }
    std::this_thread::sleep_for(platform::posix::WorldToReal(milliseconds));
}

ULONGLONG GetTickCount64() {
    if (platform::WorldClock* clock = platform::Backend().Clock()) return clock->NowMs();
    const auto real = std::chrono::steady_clock::now() - platform::posix::ClockStart();
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(real).count();
    const unsigned scale = std::max(1u, platform::Backend().TimeScale());
    return static_cast<ULONGLONG>(us) * scale / 1000u;
}
