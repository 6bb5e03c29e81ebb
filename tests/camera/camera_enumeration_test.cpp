#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "camera/camera_devices_factory.h"
#include "platform/ks.h"

namespace {

using Microsoft::WRL::ComPtr;
constexpr HRESULT kOutOfMemory = static_cast<HRESULT>(0x8007000Eu);

// An activation object that only knows its own name.
class Activation final : public IMFActivate {
  public:
    explicit Activation(std::wstring name) : name(std::move(name)) {}
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** object) override {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
    ULONG STDMETHODCALLTYPE Release() override { return --refs; }
    HRESULT STDMETHODCALLTYPE GetGUID(REFGUID, GUID*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetAllocatedString(REFGUID, LPWSTR*, UINT32*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE SetGUID(REFGUID, REFGUID) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetString(REFGUID, LPCWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE ActivateObject(REFIID, void**) override { return E_NOTIMPL; }

    std::wstring name;
    long refs = 1;
};

// A store that keeps the pairs it is given, in order.
class Store final : public IMFAttributes {
  public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** object) override {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
    ULONG STDMETHODCALLTYPE Release() override { return --refs; }
    HRESULT STDMETHODCALLTYPE GetGUID(REFGUID, GUID*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetAllocatedString(REFGUID, LPWSTR*, UINT32*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE SetGUID(REFGUID key, REFGUID value) override {
        pairs.emplace_back(key, value);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE SetString(REFGUID, LPCWSTR) override { return E_NOTIMPL; }

    DeviceSourceAttributeSet pairs;
    long refs = 1;
};

// What the platform reports for each attribute set, and where it fails. The calls are plain
// function pointers, so they reach the scenario through this one pointer.
struct Platform {
    std::vector<std::vector<Activation*>> perSet;
    int createFailsAt = -1;  // index of the set whose store cannot be made
    int enumFailsAt = -1;
    std::vector<std::unique_ptr<Store>> stores;
};
Platform* platformUnderTest = nullptr;

HRESULT FakeCreateAttributes(IMFAttributes** attributes, UINT32) {
    const int set = static_cast<int>(platformUnderTest->stores.size());
    if (set == platformUnderTest->createFailsAt) {
        platformUnderTest->stores.push_back(nullptr);
        *attributes = nullptr;
        return kOutOfMemory;
    }
    platformUnderTest->stores.push_back(std::make_unique<Store>());
    *attributes = platformUnderTest->stores.back().get();
    return S_OK;
}

HRESULT FakeEnumDeviceSources(IMFAttributes*, IMFActivate*** sources, UINT32* count) {
    const int set = static_cast<int>(platformUnderTest->stores.size()) - 1;
    if (set == platformUnderTest->enumFailsAt) return E_FAIL;
    const auto& devices = platformUnderTest->perSet.at(set);
    *count = static_cast<UINT32>(devices.size());
    *sources =
        static_cast<IMFActivate**>(CoTaskMemAlloc(sizeof(IMFActivate*) * (devices.size() + 1)));
    for (std::size_t i = 0; i < devices.size(); ++i) {
        devices[i]->AddRef();
        (*sources)[i] = devices[i];
    }
    return S_OK;
}

class NamedDevice final : public CameraDevice {
  public:
    NamedDevice(std::wstring deviceName, bool updatable, std::ostream* logWhileMade)
        : updatable(updatable), logWhileMade(logWhileMade) {
        name = std::move(deviceName);
    }
    bool IsUpdatable() const override { return updatable; }
    bool updatable;
    std::ostream* logWhileMade;
};

// Makes a device of every activation whose name starts with `prefix`; remembers whom it saw.
class PrefixFactory final : public ICameraDeviceFactory {
  public:
    PrefixFactory(std::wstring prefix, bool updatable)
        : prefix(std::move(prefix)), updatable(updatable) {}
    std::shared_ptr<ICameraDevice> CreateDevice(ComPtr<IMFActivate> activation) override {
        const auto* named = static_cast<Activation*>(activation.Get());
        asked.push_back(named->name);
        if (named->name.rfind(prefix, 0) != 0 || named->name.rfind(L"Broken", 0) == 0) {
            return nullptr;
        }
        auto device = std::make_shared<NamedDevice>(named->name, updatable, nullptr);
        device->logWhileMade = device->GetLog();
        return device;
    }
    std::wstring prefix;
    bool updatable;
    std::vector<std::wstring> asked;
};

struct EnumerationCase {
    const char* name;
    std::vector<std::vector<std::wstring>> perSet;
    int createFailsAt;
    int enumFailsAt;
    std::vector<std::wstring> expected;  // names, "*" marking the family's devices
    std::size_t storesMade;
};

class Enumeration : public testing::TestWithParam<EnumerationCase> {};

TEST_P(Enumeration, ListsEveryDeviceOfBothSetsInOrder) {
    const EnumerationCase& c = GetParam();
    std::map<std::wstring, std::unique_ptr<Activation>> objects;
    Platform platform;
    for (const auto& names : c.perSet) {
        platform.perSet.emplace_back();
        for (const auto& name : names) {
            auto& object = objects[name];
            if (!object) object = std::make_unique<Activation>(name);
            platform.perSet.back().push_back(object.get());
        }
    }
    platform.createFailsAt = c.createFailsAt;
    platform.enumFailsAt = c.enumFailsAt;
    platformUnderTest = &platform;

    // Two family factories: the second must never see what the first one took.
    auto lynx = std::make_shared<PrefixFactory>(L"Lynx", true);
    auto alsoLynx = std::make_shared<PrefixFactory>(L"Lynx", true);
    auto fallback = std::make_shared<PrefixFactory>(L"", false);
    std::ostringstream log;
    std::vector<std::wstring> names;
    {
        CameraDevicesFactory enumerator(&log, {lynx, alsoLynx}, fallback,
                                        {&FakeCreateAttributes, &FakeEnumDeviceSources});
        for (const auto& device : enumerator.GetDevices()) {
            names.push_back((device->IsUpdatable() ? L"*" : L"") + device->GetName());
            EXPECT_EQ(&log, device->GetLog());
            EXPECT_EQ(nullptr, static_cast<NamedDevice&>(*device).logWhileMade);
        }
    }
    EXPECT_EQ(c.expected, names);
    EXPECT_EQ(c.storesMade, platform.stores.size());
    // Whatever the first family factory claimed went no further down the chain.
    EXPECT_EQ(alsoLynx->asked, fallback->asked);
    for (const auto& name : fallback->asked) EXPECT_NE(0u, name.rfind(L"Lynx", 0));
    // Every reference the platform handed out came back.
    for (const auto& [name, object] : objects)
        EXPECT_EQ(1, object->refs) << std::string(name.begin(), name.end());
    for (const auto& store : platform.stores) {
        if (store) {
            EXPECT_EQ(0, store->refs);
        }
    }
    EXPECT_TRUE(log.str().empty());
    platformUnderTest = nullptr;
}

INSTANTIATE_TEST_SUITE_P(
    Scenarios, Enumeration,
    testing::Values(
        EnumerationCase{"NoDevices", {{}, {}}, -1, -1, {}, 2},
        EnumerationCase{"SensorSetComesFirst",
                        {{L"Lynx depth"}, {L"Webcam", L"Lynx color"}},
                        -1,
                        -1,
                        {L"*Lynx depth", L"Webcam", L"*Lynx color"},
                        2},
        EnumerationCase{"ReportedByBothSetsIsListedTwice",
                        {{L"Lynx depth"}, {L"Lynx depth", L"Webcam"}},
                        -1,
                        -1,
                        {L"*Lynx depth", L"*Lynx depth", L"Webcam"},
                        2},
        EnumerationCase{"UnusableDeviceIsLeftOut",
                        {{L"Broken", L"Webcam"}, {L"Lynx color", L"Broken"}},
                        -1,
                        -1,
                        {L"Webcam", L"*Lynx color"},
                        2},
        EnumerationCase{"SecondStoreCannotBeMade",
                        {{L"Lynx depth", L"Webcam"}, {L"Other"}},
                        1,
                        -1,
                        {L"*Lynx depth", L"Webcam"},
                        2},
        EnumerationCase{
            "SecondEnumerationFails", {{L"Lynx depth"}, {L"Other"}}, -1, 1, {L"*Lynx depth"}, 2},
        EnumerationCase{"FirstStoreCannotBeMade", {{L"Webcam"}, {L"Other"}}, 0, -1, {}, 1}),
    [](const testing::TestParamInfo<EnumerationCase>& info) { return info.param.name; });

TEST(EnumerationAttributes, SensorCameraCategoryThenPlainVideoCapture) {
    Platform platform;
    platform.perSet = {{}, {}};
    platformUnderTest = &platform;
    CameraDevicesFactory enumerator(nullptr, {}, std::make_shared<CameraDeviceFactory>(),
                                    {&FakeCreateAttributes, &FakeEnumDeviceSources});
    EXPECT_TRUE(enumerator.GetDevices().empty());
    ASSERT_EQ(2u, platform.stores.size());
    const DeviceSourceAttributeSet sensor = {
        {MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE, MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_GUID},
        {MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_CATEGORY, KSCATEGORY_SENSOR_CAMERA}};
    const DeviceSourceAttributeSet capture = {
        {MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE, MF_DEVSOURCE_ATTRIBUTE_SOURCE_TYPE_VIDCAP_GUID}};
    EXPECT_TRUE(sensor == platform.stores[0]->pairs);
    EXPECT_TRUE(capture == platform.stores[1]->pairs);
    platformUnderTest = nullptr;
}

}  // namespace
