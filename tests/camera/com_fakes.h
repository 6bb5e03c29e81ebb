// Test doubles for the kernel-streaming side of the camera code. They belong to the test,
// count the references the code takes and gives back, and never delete themselves.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "platform/com.h"
#include "platform/ks.h"
#include "platform/mf.h"
#include "platform/sync.h"

namespace fakes {

// One request as it reached an IKsControl.
struct KsCall {
    enum Kind { kProperty, kMethod, kEvent } kind;
    std::vector<std::uint8_t> header;  // as many bytes as the caller said it had
    void* data;
    ULONG dataLength;
    ULONG* bytesReturned;
    std::vector<std::uint8_t> sent;  // the data buffer when the request arrived
    ULONGLONG tick;

    const KSIDENTIFIER& Id() const { return *reinterpret_cast<const KSIDENTIFIER*>(header.data()); }
    const KSP_NODE& Node() const { return *reinterpret_cast<const KSP_NODE*>(header.data()); }
};

// Records every request; `answer` (default: success, nothing returned) decides the outcome.
class KsControl final : public IKsControl {
  public:
    using Answer = std::function<HRESULT(const KsCall& call, std::uint8_t* data, ULONG* returned)>;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        *object =
            iid == IID_IUnknown || iid == IID_IKsControl ? static_cast<IKsControl*>(this) : nullptr;
        if (*object == nullptr) return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
    ULONG STDMETHODCALLTYPE Release() override { return --refs; }
    HRESULT STDMETHODCALLTYPE KsProperty(PKSPROPERTY p, ULONG n, LPVOID d, ULONG dn,
                                         ULONG* r) override {
        return Record(KsCall::kProperty, p, n, d, dn, r);
    }
    HRESULT STDMETHODCALLTYPE KsMethod(PKSMETHOD p, ULONG n, LPVOID d, ULONG dn,
                                       ULONG* r) override {
        return Record(KsCall::kMethod, p, n, d, dn, r);
    }
    HRESULT STDMETHODCALLTYPE KsEvent(PKSEVENT p, ULONG n, LPVOID d, ULONG dn, ULONG* r) override {
        return Record(KsCall::kEvent, p, n, d, dn, r);
    }

    ULONG refs = 1;
    std::vector<KsCall> calls;
    Answer answer;

  private:
    HRESULT Record(KsCall::Kind kind, KSIDENTIFIER* header, ULONG length, void* data,
                   ULONG dataLength, ULONG* returned) {
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(header);
        const auto* in = static_cast<const std::uint8_t*>(data);
        calls.push_back(
            {kind,
             {bytes, bytes + length},
             data,
             dataLength,
             returned,
             in ? std::vector<std::uint8_t>(in, in + dataLength) : std::vector<std::uint8_t>{},
             GetTickCount64()});
        if (answer) return answer(calls.back(), static_cast<std::uint8_t*>(data), returned);
        if (returned != nullptr) *returned = 0;
        return S_OK;
    }
};

struct Node {
    GUID type = KSNODETYPE_DEV_SPECIFIC;
    HRESULT probeStatus = S_OK;  // the answer to "is the set supported"
    HRESULT typeStatus = S_OK;
    HRESULT createStatus = S_OK;
};

// A media source whose topology is a list of nodes, each instance being its own control.
class MediaSource final : public IMFMediaSource, public IKsTopologyInfo {
  public:
    explicit MediaSource(std::vector<Node> list) : nodes(std::move(list)), controls(nodes.size()) {
        for (std::size_t i = 0; i < nodes.size(); ++i) {
            controls[i].answer = [probe = nodes[i].probeStatus](const KsCall& call, std::uint8_t*,
                                                                ULONG*) {
                return (call.Id().Flags & KSPROPERTY_TYPE_SETSUPPORT) ? probe : S_OK;
            };
        }
    }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        *object = nullptr;
        if (iid != IID_IKsTopologyInfo) return E_NOINTERFACE;
        if (topologyStatus != S_OK) return topologyStatus;
        *object = static_cast<IKsTopologyInfo*>(this);
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
    ULONG STDMETHODCALLTYPE Release() override { return --refs; }
    HRESULT STDMETHODCALLTYPE Shutdown() override { return S_OK; }

    HRESULT STDMETHODCALLTYPE get_NumNodes(DWORD* count) override {
        *count = static_cast<DWORD>(nodes.size());
        return countStatus;
    }
    HRESULT STDMETHODCALLTYPE get_NodeType(DWORD node, GUID* type) override {
        if (nodes.at(node).typeStatus == S_OK) *type = nodes[node].type;
        return nodes[node].typeStatus;
    }
    HRESULT STDMETHODCALLTYPE CreateNodeInstance(DWORD node, REFIID iid, void** object) override {
        *object = nullptr;
        if (nodes.at(node).createStatus != S_OK) return nodes[node].createStatus;
        return controls[node].QueryInterface(iid, object);
    }

    ULONG refs = 1;
    HRESULT topologyStatus = S_OK;
    HRESULT countStatus = S_OK;
    std::vector<Node> nodes;
    std::vector<KsControl> controls;
};

}  // namespace fakes
