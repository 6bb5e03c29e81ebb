// SPDX-License-Identifier: Apache-2.0
// Media Foundation's attribute stores, capture-device enumeration, activation and media
// sources, over the backend's video-capture devices.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/common/real_calls.h"
#include "platform/posix/video_device.h"

namespace platform::posix {
namespace {

constexpr HRESULT MF_E_INVALIDTYPE = static_cast<HRESULT>(0xC00D36B4u);
constexpr HRESULT MF_E_PLATFORM_NOT_INITIALIZED = static_cast<HRESULT>(0xC00D36B0u);

// "Before using any Microsoft Media Foundation objects or interfaces, you must call the
// MFStartup function." Calls made outside a start-up fail here, so that the lab and the tests
// catch a program that forgets it.
std::atomic<int> startups{0};

// An attribute store; the activation objects of capture devices are stores that can also
// make the device's media source.
class AttributeStore final : public IMFActivate, private RefCounted {
  public:
    explicit AttributeStore(bool activatable) : activatable_(activatable) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        return QueryImpl(static_cast<IMFActivate*>(this),
                         iid == IID_IMFAttributes || (activatable_ && iid == IID_IMFActivate), iid,
                         object);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return AddRefImpl(); }
    ULONG STDMETHODCALLTYPE Release() override { return ReleaseImpl(); }

    HRESULT STDMETHODCALLTYPE GetGUID(REFGUID key, GUID* value) override {
        if (value == nullptr) return E_POINTER;
        const Value* item = Find(key);
        if (item == nullptr) return MF_E_ATTRIBUTENOTFOUND;
        const GUID* guid = std::get_if<GUID>(item);
        if (guid == nullptr) return MF_E_INVALIDTYPE;
        *value = *guid;
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE GetAllocatedString(REFGUID key, LPWSTR* value,
                                                 UINT32* length) override {
        if (value == nullptr) return E_POINTER;
        *value = nullptr;
        if (length != nullptr) *length = 0;
        const Value* item = Find(key);
        if (item == nullptr) return MF_E_ATTRIBUTENOTFOUND;
        const std::wstring* text = std::get_if<std::wstring>(item);
        if (text == nullptr) return MF_E_INVALIDTYPE;
        auto* copy = static_cast<wchar_t*>(CoTaskMemAlloc((text->size() + 1) * sizeof(wchar_t)));
        if (copy == nullptr) return E_OUTOFMEMORY;
        std::memcpy(copy, text->c_str(), (text->size() + 1) * sizeof(wchar_t));
        *value = copy;
        if (length != nullptr) *length = static_cast<UINT32>(text->size());
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE SetGUID(REFGUID key, REFGUID value) override {
        return Set(key, value);
    }

    HRESULT STDMETHODCALLTYPE SetString(REFGUID key, LPCWSTR value) override {
        if (value == nullptr) return E_POINTER;
        return Set(key, std::wstring(value));
    }

    HRESULT STDMETHODCALLTYPE ActivateObject(REFIID iid, void** object) override;

  private:
    using Value = std::variant<GUID, std::wstring>;

    const Value* Find(REFGUID key) const {
        for (const auto& [itemKey, value] : items_) {
            if (itemKey == key) return &value;
        }
        return nullptr;
    }

    HRESULT Set(REFGUID key, Value value) {
        try {
            for (auto& [itemKey, item] : items_) {
                if (itemKey == key) {
                    item = std::move(value);
                    return S_OK;
                }
            }
            items_.emplace_back(key, std::move(value));
            return S_OK;
        } catch (const std::bad_alloc&) {
            return E_OUTOFMEMORY;
        }
    }

    bool activatable_;
    std::vector<std::pair<GUID, Value>> items_;
};

class MediaSource final : public IMFMediaSource, private RefCounted {
  public:
    explicit MediaSource(std::shared_ptr<ActivatedVideoDevice> device)
        : device_(std::move(device)) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override {
        if (object != nullptr && iid == IID_IKsTopologyInfo) {
            *object = nullptr;
            if (device_->shutDown) return MF_E_SHUTDOWN;
            return CreateTopologyInfo(device_, object);
        }
        return QueryImpl(static_cast<IMFMediaSource*>(this), iid == IID_IMFMediaSource, iid,
                         object);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return AddRefImpl(); }
    ULONG STDMETHODCALLTYPE Release() override { return ReleaseImpl(); }

    HRESULT STDMETHODCALLTYPE Shutdown() override {
        return device_->shutDown.exchange(true) ? MF_E_SHUTDOWN : S_OK;
    }

  private:
    std::shared_ptr<ActivatedVideoDevice> device_;
};

HRESULT AttributeStore::ActivateObject(REFIID iid, void** object) {
    if (object == nullptr) return E_POINTER;
    *object = nullptr;
    if (!activatable_) return E_NOINTERFACE;
    if (iid != IID_IMFMediaSource && iid != IID_IUnknown) return E_NOINTERFACE;
    const Value* item = Find(MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_SYMBOLIC_LINK);
    const std::wstring* link = item ? std::get_if<std::wstring>(item) : nullptr;
    if (link == nullptr) return MF_E_ATTRIBUTENOTFOUND;
    try {
        auto device = std::make_shared<ActivatedVideoDevice>();
        const HRESULT status = Backend().OpenVideoDevice(*link, &device->connection);
        if (status != S_OK) return status;
        if (!device->connection) return E_FAIL;
        *object = static_cast<IMFMediaSource*>(new MediaSource(std::move(device)));
        return S_OK;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}

}  // namespace
}  // namespace platform::posix

using platform::posix::AttributeStore;

HRESULT platform::real::MFStartup(ULONG, DWORD) {
    ++platform::posix::startups;
    return S_OK;
}

HRESULT platform::real::MFShutdown() {
    int count = platform::posix::startups.load();
    while (count > 0 && !platform::posix::startups.compare_exchange_weak(count, count - 1)) {
    }
    return S_OK;
}

HRESULT platform::real::MFCreateAttributes(IMFAttributes** attributes, UINT32) {
    if (attributes == nullptr) return E_POINTER;
    *attributes = nullptr;
    if (platform::posix::startups == 0) return platform::posix::MF_E_PLATFORM_NOT_INITIALIZED;
    auto* store = new (std::nothrow) AttributeStore(false);
    *attributes = store;
    return store ? S_OK : E_OUTOFMEMORY;
}

// What both device-source calls check first: a start-up, then the source type asked for.
static HRESULT StartedSourceType(IMFAttributes* attributes, GUID* sourceType) {
    if (platform::posix::startups == 0) return platform::posix::MF_E_PLATFORM_NOT_INITIALIZED;
    return attributes->GetGUID(MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE, sourceType);
}

HRESULT platform::real::MFEnumDeviceSources(IMFAttributes* attributes, IMFActivate*** sources,
                                            UINT32* count) {
    if (attributes == nullptr || sources == nullptr || count == nullptr) return E_POINTER;
    *sources = nullptr;
    *count = 0;
    GUID sourceType{};
    if (const HRESULT status = StartedSourceType(attributes, &sourceType); status != S_OK) {
        return status;
    }
    // Only video-capture devices exist behind the backend; audio capture lists nothing.
    if (sourceType != MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_GUID) return S_OK;
    platform::VideoCategory category = platform::VideoCategory::kVideoCapture;
    GUID requested{};
    if (attributes->GetGUID(MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_CATEGORY, &requested) ==
        S_OK) {
        if (requested != KSCATEGORY_SENSOR_CAMERA) return S_OK;
        category = platform::VideoCategory::kSensorCamera;
    }

    std::vector<IMFActivate*> made;
    try {
        const auto devices = platform::Backend().ListVideoCaptureDevices(category);
        for (const auto& device : devices) {
            auto* activation = new AttributeStore(true);
            made.push_back(activation);
            HRESULT status = activation->SetGUID(MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE, sourceType);
            if (status == S_OK) {
                status = activation->SetString(MF_DEVSOURCE_ATTRIBUTE_FRIENDLY_NAME,
                                               device.friendlyName.c_str());
            }
            if (status == S_OK) {
                status =
                    activation->SetString(MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_SYMBOLIC_LINK,
                                          device.symbolicLink.c_str());
            }
            if (status != S_OK) throw std::bad_alloc();
        }
    } catch (const std::bad_alloc&) {
        for (auto* activation : made) activation->Release();
        return E_OUTOFMEMORY;
    }
    if (made.empty()) return S_OK;
    // An array of interface pointers, which the caller frees with CoTaskMemFree.
    // NOLINTNEXTLINE(bugprone-sizeof-expression)
    const std::size_t bytes = made.size() * sizeof(IMFActivate*);
    auto** array = static_cast<IMFActivate**>(CoTaskMemAlloc(bytes));
    if (array == nullptr) {
        for (auto* activation : made) activation->Release();
        return E_OUTOFMEMORY;
    }
    std::copy(made.begin(), made.end(), array);
    *sources = array;
    *count = static_cast<UINT32>(made.size());
    return S_OK;
}

HRESULT platform::real::MFCreateDeviceSourceActivate(IMFAttributes* attributes,
                                                     IMFActivate** activate) {
    if (attributes == nullptr || activate == nullptr) return E_POINTER;
    *activate = nullptr;
    GUID sourceType{};
    if (const HRESULT status = StartedSourceType(attributes, &sourceType); status != S_OK) {
        return status;
    }
    if (sourceType != MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_GUID) return E_INVALIDARG;
    wchar_t* link = nullptr;
    UINT32 length = 0;
    if (const HRESULT status = attributes->GetAllocatedString(
            MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_SYMBOLIC_LINK, &link, &length);
        status != S_OK) {
        return status;
    }
    auto* activation = new (std::nothrow) AttributeStore(true);
    HRESULT status = activation ? S_OK : E_OUTOFMEMORY;
    if (status == S_OK)
        status = activation->SetGUID(MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE, sourceType);
    if (status == S_OK) {
        status =
            activation->SetString(MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_SYMBOLIC_LINK, link);
    }
    CoTaskMemFree(link);
    if (status != S_OK) {
        if (activation) activation->Release();
        return status;
    }
    *activate = activation;
    return S_OK;
}
