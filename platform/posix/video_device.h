// SPDX-License-Identifier: Apache-2.0
// Shared pieces of the POSIX Media Foundation and kernel-streaming objects.
#pragma once

#include <atomic>
#include <memory>

#include "platform/ks.h"
#include "platform/mf.h"
#include "platform/posix/device_backend.h"

namespace platform::posix {

// Reference counting for the COM objects of this layer: one reference at creation, and the
// last Release destroys the object.
class RefCounted {
  protected:
    virtual ~RefCounted() = default;
    ULONG AddRefImpl() { return refs_.fetch_add(1, std::memory_order_relaxed) + 1; }
    ULONG ReleaseImpl() {
        const ULONG count = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (count == 0) delete this;
        return count;
    }

    // QueryInterface of an object that is `self` as IUnknown and wherever `offered` says.
    template <typename Interface>
    HRESULT QueryImpl(Interface* self, bool offered, REFIID iid, void** object) {
        if (object == nullptr) return E_POINTER;
        *object = nullptr;
        if (iid != IID_IUnknown && !offered) return E_NOINTERFACE;
        *object = self;
        AddRefImpl();
        return S_OK;
    }

  private:
    std::atomic<ULONG> refs_{1};
};

// One activated capture device, shared by its media source, its topology and its nodes.
// Once the source is shut down, none of them reaches the device any more.
struct ActivatedVideoDevice {
    std::unique_ptr<VideoDeviceConnection> connection;
    std::atomic<bool> shutDown{false};
};

// The IKsTopologyInfo of an activated device (kernel_streaming.cpp).
HRESULT CreateTopologyInfo(const std::shared_ptr<ActivatedVideoDevice>& device, void** object);

}  // namespace platform::posix
