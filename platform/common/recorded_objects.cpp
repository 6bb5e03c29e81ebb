// SPDX-License-Identifier: Apache-2.0
// The COM objects the program holds, as a recording sees them: a proxy per object handed
// out, which names each method call and its arguments to the recording seam, then forwards
// it to the system's object (while recording) or takes the recorded answer (replay).
// Reference counting is the proxy's own and is not recorded. On Windows the interfaces are
// the system's full ones: the methods the program never calls forward unrecorded.
#include "platform/common/recorded_objects.h"

#include <atomic>
#include <mutex>
#include <unordered_map>

#include "platform/common/call_record.h"
#include "platform/ks.h"
#include "platform/mf.h"

namespace platform::rec {
namespace {

class RecordedObject;

// Every pointer a proxy may be reached through, to tell a proxy from the system's objects.
std::mutex proxiesLock;
std::unordered_map<const void*, RecordedObject*> proxies;

class RecordedObject final : public IMFActivate,
                             public IMFMediaSource,
                             public IKsTopologyInfo,
                             public IKsControl {
  public:
    RecordedObject(IUnknown* inner, std::int64_t id) : inner_(inner), id_(id) {
        std::lock_guard lock(proxiesLock);
        for (const GUID* iid : kInterfaces) proxies[As(*iid)] = this;
    }

    std::int64_t Id() const { return id_; }
    IUnknown* System() const { return inner_; }

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

#ifdef _WIN32
    // What the program never calls: forwarded as it is, an object passed in unwrapped.
    HRESULT STDMETHODCALLTYPE GetItem(REFGUID key, PROPVARIANT* value) override {
        return Inner<IMFAttributes>()->GetItem(key, value);
    }
    HRESULT STDMETHODCALLTYPE GetItemType(REFGUID key, MF_ATTRIBUTE_TYPE* type) override {
        return Inner<IMFAttributes>()->GetItemType(key, type);
    }
    HRESULT STDMETHODCALLTYPE CompareItem(REFGUID key, REFPROPVARIANT value,
                                          WINBOOL* result) override {
        return Inner<IMFAttributes>()->CompareItem(key, value, result);
    }
    HRESULT STDMETHODCALLTYPE Compare(IMFAttributes* theirs, MF_ATTRIBUTES_MATCH_TYPE type,
                                      WINBOOL* result) override {
        return Inner<IMFAttributes>()->Compare(SystemObject(theirs), type, result);
    }
    HRESULT STDMETHODCALLTYPE GetUINT32(REFGUID key, UINT32* value) override {
        return Inner<IMFAttributes>()->GetUINT32(key, value);
    }
    HRESULT STDMETHODCALLTYPE GetUINT64(REFGUID key, UINT64* value) override {
        return Inner<IMFAttributes>()->GetUINT64(key, value);
    }
    HRESULT STDMETHODCALLTYPE GetDouble(REFGUID key, double* value) override {
        return Inner<IMFAttributes>()->GetDouble(key, value);
    }
    HRESULT STDMETHODCALLTYPE GetStringLength(REFGUID key, UINT32* length) override {
        return Inner<IMFAttributes>()->GetStringLength(key, length);
    }
    HRESULT STDMETHODCALLTYPE GetString(REFGUID key, LPWSTR value, UINT32 size,
                                        UINT32* length) override {
        return Inner<IMFAttributes>()->GetString(key, value, size, length);
    }
    HRESULT STDMETHODCALLTYPE GetBlobSize(REFGUID key, UINT32* size) override {
        return Inner<IMFAttributes>()->GetBlobSize(key, size);
    }
    HRESULT STDMETHODCALLTYPE GetBlob(REFGUID key, UINT8* buffer, UINT32 size,
                                      UINT32* length) override {
        return Inner<IMFAttributes>()->GetBlob(key, buffer, size, length);
    }
    HRESULT STDMETHODCALLTYPE GetAllocatedBlob(REFGUID key, UINT8** buffer, UINT32* size) override {
        return Inner<IMFAttributes>()->GetAllocatedBlob(key, buffer, size);
    }
    HRESULT STDMETHODCALLTYPE GetUnknown(REFGUID key, REFIID iid, LPVOID* object) override {
        return Inner<IMFAttributes>()->GetUnknown(key, iid, object);
    }
    HRESULT STDMETHODCALLTYPE SetItem(REFGUID key, REFPROPVARIANT value) override {
        return Inner<IMFAttributes>()->SetItem(key, value);
    }
    HRESULT STDMETHODCALLTYPE DeleteItem(REFGUID key) override {
        return Inner<IMFAttributes>()->DeleteItem(key);
    }
    HRESULT STDMETHODCALLTYPE DeleteAllItems() override {
        return Inner<IMFAttributes>()->DeleteAllItems();
    }
    HRESULT STDMETHODCALLTYPE SetUINT32(REFGUID key, UINT32 value) override {
        return Inner<IMFAttributes>()->SetUINT32(key, value);
    }
    HRESULT STDMETHODCALLTYPE SetUINT64(REFGUID key, UINT64 value) override {
        return Inner<IMFAttributes>()->SetUINT64(key, value);
    }
    HRESULT STDMETHODCALLTYPE SetDouble(REFGUID key, double value) override {
        return Inner<IMFAttributes>()->SetDouble(key, value);
    }
    HRESULT STDMETHODCALLTYPE SetBlob(REFGUID key, const UINT8* buffer, UINT32 size) override {
        return Inner<IMFAttributes>()->SetBlob(key, buffer, size);
    }
    HRESULT STDMETHODCALLTYPE SetUnknown(REFGUID key, IUnknown* object) override {
        return Inner<IMFAttributes>()->SetUnknown(key, SystemObject(object));
    }
    HRESULT STDMETHODCALLTYPE LockStore() override { return Inner<IMFAttributes>()->LockStore(); }
    HRESULT STDMETHODCALLTYPE UnlockStore() override {
        return Inner<IMFAttributes>()->UnlockStore();
    }
    HRESULT STDMETHODCALLTYPE GetCount(UINT32* count) override {
        return Inner<IMFAttributes>()->GetCount(count);
    }
    HRESULT STDMETHODCALLTYPE GetItemByIndex(UINT32 index, GUID* key, PROPVARIANT* value) override {
        return Inner<IMFAttributes>()->GetItemByIndex(index, key, value);
    }
    HRESULT STDMETHODCALLTYPE CopyAllItems(IMFAttributes* destination) override {
        return Inner<IMFAttributes>()->CopyAllItems(SystemObject(destination));
    }

    HRESULT STDMETHODCALLTYPE ShutdownObject() override {
        return Inner<IMFActivate>()->ShutdownObject();
    }
    HRESULT STDMETHODCALLTYPE DetachObject() override {
        return Inner<IMFActivate>()->DetachObject();
    }

    HRESULT STDMETHODCALLTYPE GetEvent(DWORD flags, IMFMediaEvent** event) override {
        return Inner<IMFMediaSource>()->GetEvent(flags, event);
    }
    HRESULT STDMETHODCALLTYPE BeginGetEvent(IMFAsyncCallback* callback, IUnknown* state) override {
        return Inner<IMFMediaSource>()->BeginGetEvent(callback, state);
    }
    HRESULT STDMETHODCALLTYPE EndGetEvent(IMFAsyncResult* result, IMFMediaEvent** event) override {
        return Inner<IMFMediaSource>()->EndGetEvent(result, event);
    }
    HRESULT STDMETHODCALLTYPE QueueEvent(MediaEventType type, REFGUID extendedType, HRESULT status,
                                         const PROPVARIANT* value) override {
        return Inner<IMFMediaSource>()->QueueEvent(type, extendedType, status, value);
    }
    HRESULT STDMETHODCALLTYPE GetCharacteristics(DWORD* characteristics) override {
        return Inner<IMFMediaSource>()->GetCharacteristics(characteristics);
    }
    HRESULT STDMETHODCALLTYPE
    CreatePresentationDescriptor(IMFPresentationDescriptor** descriptor) override {
        return Inner<IMFMediaSource>()->CreatePresentationDescriptor(descriptor);
    }
    HRESULT STDMETHODCALLTYPE Start(IMFPresentationDescriptor* descriptor, const GUID* timeFormat,
                                    const PROPVARIANT* position) override {
        return Inner<IMFMediaSource>()->Start(descriptor, timeFormat, position);
    }
    HRESULT STDMETHODCALLTYPE Stop() override { return Inner<IMFMediaSource>()->Stop(); }
    HRESULT STDMETHODCALLTYPE Pause() override { return Inner<IMFMediaSource>()->Pause(); }

    HRESULT STDMETHODCALLTYPE get_NumCategories(DWORD* count) override {
        return Inner<IKsTopologyInfo>()->get_NumCategories(count);
    }
    HRESULT STDMETHODCALLTYPE get_Category(DWORD index, GUID* category) override {
        return Inner<IKsTopologyInfo>()->get_Category(index, category);
    }
    HRESULT STDMETHODCALLTYPE get_NumConnections(DWORD* count) override {
        return Inner<IKsTopologyInfo>()->get_NumConnections(count);
    }
    HRESULT STDMETHODCALLTYPE get_ConnectionInfo(DWORD index,
                                                 KSTOPOLOGY_CONNECTION* connection) override {
        return Inner<IKsTopologyInfo>()->get_ConnectionInfo(index, connection);
    }
    HRESULT STDMETHODCALLTYPE get_NodeName(DWORD node, WCHAR* name, DWORD size,
                                           DWORD* length) override {
        return Inner<IKsTopologyInfo>()->get_NodeName(node, name, size, length);
    }
#endif

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
    std::int64_t id_;
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
        return found == proxies.end() ? -1 : found->second->Id();
    }
};

}  // namespace

void* SystemObject(void* object) {
    std::lock_guard lock(proxiesLock);
    const auto found = proxies.find(object);
    return found == proxies.end() ? object : found->second->System();
}

ObjectFactory& RecordedObjects() {
    static Factory factory;
    return factory;
}

}  // namespace platform::rec
