// Test doubles for the COM side of the camera code. They are owned by the test, count the
// references the code takes and gives back, and never delete themselves, so a test can check
// that every reference was returned.
#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/com.h"
#include "platform/ks.h"
#include "platform/mf.h"
#include "platform/sync.h"

namespace fakes {

// One request as it reached an IKsControl.
struct KsCall {
    enum Kind { kProperty, kMethod, kEvent } kind = kProperty;
    std::vector<std::uint8_t> header;  // the bytes of the header, as long as the caller said
    ULONG headerLength = 0;
    void* data = nullptr;
    ULONG dataLength = 0;
    ULONG* bytesReturned = nullptr;
    std::vector<std::uint8_t> sent;  // the data buffer's bytes when the call arrived
    ULONGLONG tick = 0;              // GetTickCount64 at arrival

    const KSIDENTIFIER& Id() const { return *reinterpret_cast<const KSIDENTIFIER*>(header.data()); }
    ULONG NodeId() const {
        return header.size() >= sizeof(KSP_NODE)
                   ? reinterpret_cast<const KSP_NODE*>(header.data())->NodeId
                   : 0xFFFFFFFF;
    }
    ULONG Reserved() const { return reinterpret_cast<const KSP_NODE*>(header.data())->Reserved; }
};

// An IKsControl that records every request and answers through `answer` (default: S_OK with
// nothing returned).
class KsControl final : public IKsControl {
  public:
    using Answer = std::function<HRESULT(const KsCall& call, std::uint8_t* data, ULONG* returned)>;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        if (iid == IID_IUnknown || iid == IID_IKsControl) {
            *object = static_cast<IKsControl*>(this);
            AddRef();
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
    ULONG STDMETHODCALLTYPE Release() override { return --refs; }

    HRESULT STDMETHODCALLTYPE KsProperty(PKSPROPERTY property, ULONG length, LPVOID data,
                                         ULONG dataLength, ULONG* returned) override {
        return Record(KsCall::kProperty, property, length, data, dataLength, returned);
    }
    HRESULT STDMETHODCALLTYPE KsMethod(PKSMETHOD method, ULONG length, LPVOID data,
                                       ULONG dataLength, ULONG* returned) override {
        return Record(KsCall::kMethod, method, length, data, dataLength, returned);
    }
    HRESULT STDMETHODCALLTYPE KsEvent(PKSEVENT event, ULONG length, LPVOID data, ULONG dataLength,
                                      ULONG* returned) override {
        return Record(KsCall::kEvent, event, length, data, dataLength, returned);
    }

    long refs = 1;
    std::vector<KsCall> calls;
    Answer answer;

  private:
    HRESULT Record(KsCall::Kind kind, KSIDENTIFIER* header, ULONG length, void* data,
                   ULONG dataLength, ULONG* returned) {
        KsCall call;
        call.kind = kind;
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(header);
        call.header.assign(bytes, bytes + length);
        call.headerLength = length;
        call.data = data;
        call.dataLength = dataLength;
        call.bytesReturned = returned;
        if (data != nullptr) {
            const auto* in = static_cast<const std::uint8_t*>(data);
            call.sent.assign(in, in + dataLength);
        }
        call.tick = GetTickCount64();
        calls.push_back(call);
        if (answer) return answer(calls.back(), static_cast<std::uint8_t*>(data), returned);
        if (returned != nullptr) *returned = 0;
        return S_OK;
    }
};

// A node instance that may or may not offer IKsControl.
class NodeInstance final : public IUnknown {
  public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        if (iid == IID_IUnknown) {
            *object = static_cast<IUnknown*>(this);
            AddRef();
            return S_OK;
        }
        if (iid == IID_IKsControl && control != nullptr)
            return control->QueryInterface(iid, object);
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
    ULONG STDMETHODCALLTYPE Release() override { return --refs; }

    long refs = 1;
    KsControl* control = nullptr;
};

struct Node {
    GUID type = GUID_NULL;
    HRESULT typeStatus = S_OK;
    HRESULT createStatus = S_OK;
    bool offersKsControl = true;
    HRESULT probeStatus = S_OK;
};

// A media source whose topology is a list of nodes; each node has its own control.
class MediaSource final : public IMFMediaSource, public IKsTopologyInfo {
  public:
    explicit MediaSource(std::vector<Node> nodeList) : nodes(std::move(nodeList)) {
        controls.resize(nodes.size());
        instances.resize(nodes.size());
        for (std::size_t i = 0; i < nodes.size(); ++i) {
            instances[i].control = nodes[i].offersKsControl ? &controls[i] : nullptr;
            const HRESULT probe = nodes[i].probeStatus;
            controls[i].answer = [probe](const KsCall& call, std::uint8_t*, ULONG* returned) {
                if (returned != nullptr) *returned = 0;
                return (call.Id().Flags & KSPROPERTY_TYPE_SETSUPPORT) ? probe : S_OK;
            };
        }
    }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        if (iid == IID_IKsTopologyInfo && topologyStatus == S_OK) {
            *object = static_cast<IKsTopologyInfo*>(this);
            AddRef();
            return S_OK;
        }
        if (iid == IID_IUnknown || iid == IID_IMFMediaSource) {
            *object = static_cast<IMFMediaSource*>(this);
            AddRef();
            return S_OK;
        }
        *object = nullptr;
        return iid == IID_IKsTopologyInfo ? topologyStatus : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
    ULONG STDMETHODCALLTYPE Release() override { return --refs; }
    HRESULT STDMETHODCALLTYPE Shutdown() override { return S_OK; }

    HRESULT STDMETHODCALLTYPE get_NumNodes(DWORD* count) override {
        *count = static_cast<DWORD>(nodes.size());
        return countStatus;
    }
    HRESULT STDMETHODCALLTYPE get_NodeType(DWORD node, GUID* type) override {
        if (nodes.at(node).typeStatus != S_OK) return nodes[node].typeStatus;
        *type = nodes[node].type;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE CreateNodeInstance(DWORD node, REFIID iid, void** object) override {
        *object = nullptr;
        if (nodes.at(node).createStatus != S_OK) return nodes[node].createStatus;
        return instances[node].QueryInterface(iid, object);
    }

    long refs = 1;
    HRESULT topologyStatus = S_OK;
    HRESULT countStatus = S_OK;
    std::vector<Node> nodes;
    std::vector<KsControl> controls;
    std::vector<NodeInstance> instances;
};

}  // namespace fakes
