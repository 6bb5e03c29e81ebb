// SPDX-License-Identifier: Apache-2.0
// The family's vendor-specific UVC extension unit, found on a camera's topology and then
// addressed as a plain IKsControl.
#pragma once

#include <atomic>

#include "platform/com.h"
#include "platform/ks.h"
#include "platform/mf.h"

// The property set of the family's extension unit; control 1 carries firmware commands.
inline constexpr GUID kExtensionUnitGuid = {
    0x5B3E9A10, 0x7C2D, 0x4F61, {0x9E, 0x84, 0x2A, 0x6D, 0x0C, 0x1F, 0x7B, 0x39}};

// The address of one control of an extension unit.
class UvcCommand {
  public:
    UvcCommand(Microsoft::WRL::ComPtr<IKsControl> control, const GUID& propertySet,
               ULONG controlSelector)
        : control(std::move(control)), propertySet(propertySet), controlSelector(controlSelector) {}
    virtual ~UvcCommand() = default;

    Microsoft::WRL::ComPtr<IKsControl> control;
    GUID propertySet;
    ULONG controlSelector;
};

// A COM object (written out by hand: mingw-w64's WRL has no RuntimeClass) that, once bound
// to the extension-unit node of a camera, sends every property, method and event request it
// gets to that node. Callers need not know the node: their plain KSPROPERTY headers are
// turned into node-addressed ones here.
class ExtensionUnitKsControl final : public IKsControl {
  public:
    // One reference for the caller, unbound; null when memory is exhausted.
    static ExtensionUnitKsControl* Create() noexcept;

    // Binds to the lowest-numbered device-specific node that accepts the extension unit's
    // property set. Takes its own reference to the source and drops it on return.
    HRESULT FindExtensionUnitNode(Microsoft::WRL::ComPtr<IMFMediaSource> mediaSource);

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override;
    ULONG STDMETHODCALLTYPE AddRef() override;
    ULONG STDMETHODCALLTYPE Release() override;
    HRESULT STDMETHODCALLTYPE KsProperty(PKSPROPERTY property, ULONG propertyLength, LPVOID data,
                                         ULONG dataLength, ULONG* bytesReturned) override;
    HRESULT STDMETHODCALLTYPE KsMethod(PKSMETHOD method, ULONG methodLength, LPVOID data,
                                       ULONG dataLength, ULONG* bytesReturned) override;
    HRESULT STDMETHODCALLTYPE KsEvent(PKSEVENT event, ULONG eventLength, LPVOID data,
                                      ULONG dataLength, ULONG* bytesReturned) override;

  private:
    ExtensionUnitKsControl() = default;
    virtual ~ExtensionUnitKsControl() = default;

    // The caller's Set, Id and Flags, with the topology flag and the node id added.
    KSP_NODE NodeHeader(const KSIDENTIFIER& header) const;

    std::atomic<ULONG> referenceCount{1};
    Microsoft::WRL::ComPtr<IKsControl> nodeControl;
    GUID extensionUnitSet = kExtensionUnitGuid;
    ULONG nodeId = 0xFFFFFFFF;
};
