// SPDX-License-Identifier: Apache-2.0
// IKsTopologyInfo and the IKsControl of topology nodes, over the backend's video device.
#include <new>

#include "platform/posix/video_device.h"

namespace platform::posix {
namespace {

class NodeControl final : public IKsControl, private RefCounted {
  public:
    NodeControl(std::shared_ptr<ActivatedVideoDevice> device, DWORD node)
        : device_(std::move(device)), node_(node) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        return QueryImpl(static_cast<IKsControl*>(this), iid == IID_IKsControl, iid, object);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return AddRefImpl(); }
    ULONG STDMETHODCALLTYPE Release() override { return ReleaseImpl(); }

    HRESULT STDMETHODCALLTYPE KsProperty(PKSPROPERTY property, ULONG propertyLength, LPVOID data,
                                         ULONG dataLength, ULONG* bytesReturned) override {
        if (property == nullptr || propertyLength < sizeof(KSPROPERTY)) {
            return HResultFromError(ERROR_INVALID_PARAMETER);
        }
        if (device_->shutDown) return MF_E_SHUTDOWN;
        // A request for a node carries the node in a KSP_NODE header, which the driver checks
        // whole: long enough, naming the node this control was made for, Reserved zero.
        if (property->Flags & KSPROPERTY_TYPE_TOPOLOGY) {
            if (propertyLength < sizeof(KSP_NODE)) return HResultFromError(ERROR_INVALID_PARAMETER);
            const auto* header = reinterpret_cast<const KSP_NODE*>(property);
            if (header->Reserved != 0) return HResultFromError(ERROR_INVALID_PARAMETER);
            if (header->NodeId != node_) return HResultFromError(ERROR_NOT_FOUND);
        }
        std::uint32_t returned = 0;
        const HRESULT status = device_->connection->NodeProperty(
            node_, property->Set, property->Id, property->Flags, static_cast<std::uint8_t*>(data),
            dataLength, &returned);
        if (bytesReturned != nullptr) *bytesReturned = returned;
        return status;
    }

    // No device of this layer offers methods or events on its nodes.
    HRESULT STDMETHODCALLTYPE KsMethod(PKSMETHOD, ULONG, LPVOID, ULONG,
                                       ULONG* bytesReturned) override {
        if (bytesReturned != nullptr) *bytesReturned = 0;
        return HResultFromError(ERROR_SET_NOT_FOUND);
    }
    HRESULT STDMETHODCALLTYPE KsEvent(PKSEVENT, ULONG, LPVOID, ULONG,
                                      ULONG* bytesReturned) override {
        if (bytesReturned != nullptr) *bytesReturned = 0;
        return HResultFromError(ERROR_SET_NOT_FOUND);
    }

  private:
    std::shared_ptr<ActivatedVideoDevice> device_;
    DWORD node_;
};

class TopologyInfo final : public IKsTopologyInfo, private RefCounted {
  public:
    explicit TopologyInfo(std::shared_ptr<ActivatedVideoDevice> device)
        : device_(std::move(device)) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        return QueryImpl(static_cast<IKsTopologyInfo*>(this), iid == IID_IKsTopologyInfo, iid,
                         object);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return AddRefImpl(); }
    ULONG STDMETHODCALLTYPE Release() override { return ReleaseImpl(); }

    HRESULT STDMETHODCALLTYPE get_NumNodes(DWORD* count) override {
        if (count == nullptr) return E_POINTER;
        *count = 0;
        if (device_->shutDown) return MF_E_SHUTDOWN;
        std::uint32_t nodes = 0;
        const HRESULT status = device_->connection->GetNodeCount(&nodes);
        if (status == S_OK) *count = nodes;
        return status;
    }

    HRESULT STDMETHODCALLTYPE get_NodeType(DWORD node, GUID* type) override {
        if (type == nullptr) return E_POINTER;
        if (device_->shutDown) return MF_E_SHUTDOWN;
        return device_->connection->GetNodeType(node, type);
    }

    HRESULT STDMETHODCALLTYPE CreateNodeInstance(DWORD node, REFIID iid, void** object) override {
        if (object == nullptr) return E_POINTER;
        *object = nullptr;
        if (device_->shutDown) return MF_E_SHUTDOWN;
        const HRESULT status = device_->connection->OpenNode(node);
        if (status != S_OK) return status;
        auto* control = new (std::nothrow) NodeControl(device_, node);
        if (control == nullptr) return E_OUTOFMEMORY;
        const HRESULT query = control->QueryInterface(iid, object);
        control->Release();
        return query;
    }

  private:
    std::shared_ptr<ActivatedVideoDevice> device_;
};

}  // namespace

HRESULT CreateTopologyInfo(const std::shared_ptr<ActivatedVideoDevice>& device, void** object) {
    auto* topology = new (std::nothrow) TopologyInfo(device);
    if (topology == nullptr) return E_OUTOFMEMORY;
    *object = static_cast<IKsTopologyInfo*>(topology);
    return S_OK;
}

}  // namespace platform::posix
