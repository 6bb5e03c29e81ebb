// SPDX-License-Identifier: Apache-2.0
#include "camera/extension_unit_ks_control.h"

#include <new>

namespace {
constexpr ULONG kControlSelector = 1;
}  // namespace

ExtensionUnitKsControl* ExtensionUnitKsControl::Create() noexcept {
    return new (std::nothrow) ExtensionUnitKsControl();
}

HRESULT ExtensionUnitKsControl::QueryInterface(REFIID iid, void** object) {
    if (object == nullptr) return E_POINTER;
    if (iid == IID_IUnknown || iid == IID_IKsControl) {
        *object = static_cast<IKsControl*>(this);
        AddRef();
        return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
}

ULONG ExtensionUnitKsControl::AddRef() {
    return referenceCount.fetch_add(1, std::memory_order_relaxed) + 1;
}

ULONG ExtensionUnitKsControl::Release() {
    const ULONG count = referenceCount.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (count == 0) delete this;
    return count;
}

HRESULT ExtensionUnitKsControl::FindExtensionUnitNode(
    Microsoft::WRL::ComPtr<IMFMediaSource> mediaSource) {
    if (!mediaSource) return E_POINTER;
    Microsoft::WRL::ComPtr<IKsTopologyInfo> topology;
    HRESULT status = mediaSource->QueryInterface(IID_IKsTopologyInfo,
                                                 reinterpret_cast<void**>(topology.GetAddressOf()));
    if (status != S_OK) return status;
    if (!topology) return E_NOINTERFACE;
    mediaSource.Reset();

    DWORD nodeCount = 0;
    status = topology->get_NumNodes(&nodeCount);
    if (status != S_OK) return status;

    for (DWORD node = 0; node < nodeCount; ++node) {
        GUID nodeType = GUID_NULL;
        if (topology->get_NodeType(node, &nodeType) != S_OK) continue;
        if (nodeType != KSNODETYPE_DEV_SPECIFIC) continue;

        Microsoft::WRL::ComPtr<IUnknown> instance;
        if (topology->CreateNodeInstance(
                node, IID_IUnknown, reinterpret_cast<void**>(instance.GetAddressOf())) != S_OK ||
            !instance) {
            continue;
        }
        Microsoft::WRL::ComPtr<IKsControl> control;
        if (instance->QueryInterface(IID_IKsControl,
                                     reinterpret_cast<void**>(control.GetAddressOf())) != S_OK ||
            !control) {
            continue;
        }

        // Only the family's unit knows the family's property set.
        KSP_NODE probe{};
        probe.Property.Set = extensionUnitSet;
        probe.Property.Id = kControlSelector;
        probe.Property.Flags = KSPROPERTY_TYPE_SETSUPPORT | KSPROPERTY_TYPE_TOPOLOGY;
        probe.NodeId = node;
        probe.Reserved = 0;
        ULONG returned = 0;
        if (control->KsProperty(reinterpret_cast<PKSPROPERTY>(&probe), sizeof(probe), nullptr, 0,
                                &returned) == S_OK) {
            nodeControl = control;
            nodeId = node;
            return S_OK;
        }
    }
    return E_FAIL;
}

KSP_NODE ExtensionUnitKsControl::NodeHeader(const KSIDENTIFIER& header) const {
    KSP_NODE addressed{};
    addressed.Property.Set = header.Set;
    addressed.Property.Id = header.Id;
    addressed.Property.Flags = header.Flags | KSPROPERTY_TYPE_TOPOLOGY;
    addressed.NodeId = nodeId;
    addressed.Reserved = 0;
    return addressed;
}

// IKsControl's three calls share one shape, which the interface fixes: each goes to the
// node's own control with the node's header in front of the caller's.
HRESULT ExtensionUnitKsControl::KsProperty(PKSPROPERTY property, ULONG, LPVOID data,
                                           ULONG dataLength, ULONG* bytesReturned) {
    if (!nodeControl) return E_FAIL;
    if (property == nullptr) return E_POINTER;
    KSP_NODE addressed = NodeHeader(*property);
    return nodeControl->KsProperty(reinterpret_cast<PKSPROPERTY>(&addressed), sizeof(addressed),
                                   data, dataLength, bytesReturned);
}

HRESULT ExtensionUnitKsControl::KsMethod(PKSMETHOD method, ULONG, LPVOID data, ULONG dataLength,
                                         ULONG* bytesReturned) {
    if (!nodeControl) return E_FAIL;
    if (method == nullptr) return E_POINTER;
    KSP_NODE addressed = NodeHeader(*method);
    return nodeControl->KsMethod(reinterpret_cast<PKSMETHOD>(&addressed), sizeof(addressed), data,
                                 dataLength, bytesReturned);
}

HRESULT ExtensionUnitKsControl::KsEvent(PKSEVENT event, ULONG, LPVOID data, ULONG dataLength,
                                        ULONG* bytesReturned) {
    if (!nodeControl) return E_FAIL;
    if (event == nullptr) return E_POINTER;
    KSP_NODE addressed = NodeHeader(*event);
    return nodeControl->KsEvent(reinterpret_cast<PKSEVENT>(&addressed), sizeof(addressed), data,
                                dataLength, bytesReturned);
}
