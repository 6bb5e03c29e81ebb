// SPDX-License-Identifier: Apache-2.0
// The COM objects the program holds, as a recording sees them: a proxy per object handed
// out, which names each method call and its arguments to the recording seam, then forwards
// it to the stand-in's object (while recording) or takes the recorded answer (replay).
// Reference counting is the proxy's own and is not recorded.
#include <atomic>
#include <mutex>
#include <unordered_map>

#include "platform/common/call_record.h"
#include "platform/ks.h"
#include "platform/mf.h"

namespace platform::rec {
namespace {

class RecordedObject;

// Every pointer a proxy may be reached through, to tell a proxy from the stand-ins' objects.
std::mutex proxiesLock;
std::unordered_map<const void*, std::int64_t> proxies;

class RecordedObject final : public IMFActivate,
                             public IMFMediaSource,
                             public IKsTopologyInfo,
                             public IKsControl {
  public:
    RecordedObject(IUnknown* inner, std::int64_t id) : inner_(inner) {
        std::lock_guard lock(proxiesLock);
        for (const GUID* iid : kInterfaces) proxies[As(*iid)] = id;
    }

    // Each interface's pointer, so that the proxy answers for the one it was handed out as.
    void* As(const GUID& iid) {
        if (iid == IID_IMFMediaSource) return static_cast<IMFMediaSource*>(this);
        if (iid == IID_IKsTopologyInfo) return static_cast<IKsTopologyInfo*>(this);
        if (iid == IID_IKsControl) return static_cast<IKsControl*>(this);
        return static_cast<IMFActivate*>(this);
    }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        Call call("QueryInterface");
        call.Object("this", static_cast<IMFActivate*>(this)).Guid("iid", &iid);
        call.OutObject("object", object, iid);
        return call.Run([&] { return inner_->QueryInterface(iid, object); });
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return refs_.fetch_add(1) + 1; }
    ULONG STDMETHODCALLTYPE Release() override {
        const ULONG count = refs_.fetch_sub(1) - 1;
        if (count == 0) {
            if (inner_ != nullptr) inner_->Release();
            delete this;
        }
        return count;
    }

    HRESULT STDMETHODCALLTYPE GetGUID(REFGUID key, GUID* value) override {
        Call call("IMFAttributes::GetGUID");
        call.Object("this", this).Guid("key", &key).OutGuid("value", value);
        return call.Run([&] { return Inner<IMFAttributes>()->GetGUID(key, value); });
    }
    HRESULT STDMETHODCALLTYPE GetAllocatedString(REFGUID key, LPWSTR* value,
                                                 UINT32* length) override {
        Call call("IMFAttributes::GetAllocatedString");
        call.Object("this", this).Guid("key", &key).OutAllocatedWide("value", value, length);
        return call.Run(
            [&] { return Inner<IMFAttributes>()->GetAllocatedString(key, value, length); });
    }
    HRESULT STDMETHODCALLTYPE SetGUID(REFGUID key, REFGUID value) override {
        Call call("IMFAttributes::SetGUID");
        call.Object("this", this).Guid("key", &key).Guid("value", &value);
        return call.Run([&] { return Inner<IMFAttributes>()->SetGUID(key, value); });
    }
    HRESULT STDMETHODCALLTYPE SetString(REFGUID key, LPCWSTR value) override {
        Call call("IMFAttributes::SetString");
        call.Object("this", this).Guid("key", &key).Wide("value", value);
        return call.Run([&] { return Inner<IMFAttributes>()->SetString(key, value); });
    }
    HRESULT STDMETHODCALLTYPE ActivateObject(REFIID iid, void** object) override {
        Call call("IMFActivate::ActivateObject");
        call.Object("this", this).Guid("iid", &iid).OutObject("object", object, iid);
        return call.Run([&] { return Inner<IMFActivate>()->ActivateObject(iid, object); });
    }

    HRESULT STDMETHODCALLTYPE Shutdown() override {
        Call call("IMFMediaSource::Shutdown");
        call.Object("this", this);
        return call.Run([&] { return Inner<IMFMediaSource>()->Shutdown(); });
    }

    HRESULT STDMETHODCALLTYPE get_NumNodes(DWORD* count) override {
        Call call("IKsTopologyInfo::get_NumNodes");
        call.Object("this", this).OutInt("count", count);
        return call.Run([&] { return Inner<IKsTopologyInfo>()->get_NumNodes(count); });
    }
    HRESULT STDMETHODCALLTYPE get_NodeType(DWORD node, GUID* type) override {
        Call call("IKsTopologyInfo::get_NodeType");
        call.Object("this", this).Int("node", node).OutGuid("type", type);
        return call.Run([&] { return Inner<IKsTopologyInfo>()->get_NodeType(node, type); });
    }
    HRESULT STDMETHODCALLTYPE CreateNodeInstance(DWORD node, REFIID iid, void** object) override {
        Call call("IKsTopologyInfo::CreateNodeInstance");
        call.Object("this", this).Int("node", node).Guid("iid", &iid);
        call.OutObject("object", object, iid);
        return call.Run(
            [&] { return Inner<IKsTopologyInfo>()->CreateNodeInstance(node, iid, object); });
    }

    HRESULT STDMETHODCALLTYPE KsProperty(PKSPROPERTY property, ULONG propertyLength, LPVOID data,
                                         ULONG dataLength, ULONG* bytesReturned) override {
        return Ks("IKsControl::KsProperty", property, propertyLength, data, dataLength,
                  bytesReturned, &IKsControl::KsProperty);
    }
    HRESULT STDMETHODCALLTYPE KsMethod(PKSMETHOD method, ULONG methodLength, LPVOID data,
                                       ULONG dataLength, ULONG* bytesReturned) override {
        return Ks("IKsControl::KsMethod", method, methodLength, data, dataLength, bytesReturned,
                  &IKsControl::KsMethod);
    }
    HRESULT STDMETHODCALLTYPE KsEvent(PKSEVENT event, ULONG eventLength, LPVOID data,
                                      ULONG dataLength, ULONG* bytesReturned) override {
        return Ks("IKsControl::KsEvent", event, eventLength, data, dataLength, bytesReturned,
                  &IKsControl::KsEvent);
    }

  private:
    ~RecordedObject() {
        std::lock_guard lock(proxiesLock);
        for (const GUID* iid : kInterfaces) proxies.erase(As(*iid));
    }

    static constexpr const GUID* kInterfaces[] = {&IID_IMFActivate, &IID_IMFMediaSource,
                                                  &IID_IKsTopologyInfo, &IID_IKsControl};

    template <class Interface>
    Interface* Inner() {
        return reinterpret_cast<Interface*>(inner_);
    }

    // A request whose data goes to the device (SET) or comes from it (GET, and what a
    // support query returns).
    template <class Header>
    HRESULT Ks(const char* name, Header* header, ULONG headerLength, LPVOID data, ULONG dataLength,
               ULONG* bytesReturned,
               HRESULT (STDMETHODCALLTYPE IKsControl::*method)(Header*, ULONG, LPVOID, ULONG,
                                                               ULONG*)) {
        Call call(name);
        call.Object("this", this).Bytes("request", header, headerLength);
        const bool set = header != nullptr && headerLength >= sizeof(KSIDENTIFIER) &&
                         (header->Flags & KSPROPERTY_TYPE_SET) != 0;
        if (set) {
            call.Bytes("data", data, dataLength);
        } else {
            call.Int("length", dataLength).OutBytes("data", data, dataLength, bytesReturned);
        }
        call.OutInt("returned", bytesReturned);
        return call.Run([&] {
            return (Inner<IKsControl>()->*method)(header, headerLength, data, dataLength,
                                                  bytesReturned);
        });
    }

    IUnknown* inner_;
    std::atomic<ULONG> refs_{1};
};

class Factory final : public ObjectFactory {
  public:
    void* Wrap(void* inner, const GUID& iid, std::int64_t id) override {
        return (new RecordedObject(static_cast<IUnknown*>(inner), id))->As(iid);
    }
    std::int64_t IdOf(const void* object) override {
        std::lock_guard lock(proxiesLock);
        const auto found = proxies.find(object);
        return found == proxies.end() ? -1 : found->second;
    }
};

}  // namespace

ObjectFactory& RecordedObjects() {
    static Factory factory;
    return factory;
}

}  // namespace platform::rec
