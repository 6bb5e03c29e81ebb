// SPDX-License-Identifier: Apache-2.0
// Handles of the POSIX platform layer: every HANDLE points at a KernelObject.
#pragma once

#include <atomic>

#include "platform/types.h"

namespace platform::posix {

class KernelObject {
  public:
    virtual ~KernelObject() = default;

    void Ref() { refs_.fetch_add(1, std::memory_order_relaxed); }
    // Drops one reference; the last one destroys the object.
    void Unref() {
        if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

  private:
    std::atomic<int> refs_{1};
};

inline HANDLE ToHandle(KernelObject* object) {
    return static_cast<HANDLE>(object);
}
// Null for null and INVALID_HANDLE_VALUE.
KernelObject* FromHandle(HANDLE handle);

}  // namespace platform::posix
