#include <gtest/gtest.h>

#include "camera/extension_unit_ks_control.h"
#include "tests/camera/com_fakes.h"

namespace {

using Microsoft::WRL::ComPtr;

const GUID kOtherType = {0xDFF229E5, 0xF70F, 0x11D0, {0xB9, 0x17, 0, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
constexpr HRESULT kStall = static_cast<HRESULT>(0x8007001Fu);
constexpr HRESULT kSetNotFound = static_cast<HRESULT>(0x80070492u);

fakes::Node Unit(HRESULT probe = S_OK) {
    fakes::Node node;
    node.type = KSNODETYPE_DEV_SPECIFIC;
    node.probeStatus = probe;
    return node;
}
fakes::Node Other() {
    fakes::Node node;
    node.type = kOtherType;
    return node;
}

ComPtr<ExtensionUnitKsControl> MakeUnit() {
    ComPtr<ExtensionUnitKsControl> unit;
    unit.Attach(ExtensionUnitKsControl::Create());
    return unit;
}

struct SearchCase {
    const char* name;
    std::vector<fakes::Node> nodes;
    HRESULT expected;
    int boundNode;  // -1: none
    std::vector<int> probed;
};

fakes::Node WithTypeStatus(fakes::Node node, HRESULT status) {
    node.typeStatus = status;
    return node;
}
fakes::Node WithCreateStatus(fakes::Node node, HRESULT status) {
    node.createStatus = status;
    return node;
}
fakes::Node WithoutControl(fakes::Node node) {
    node.offersKsControl = false;
    return node;
}

class NodeSearch : public testing::TestWithParam<SearchCase> {};

TEST_P(NodeSearch, BindsToTheFirstNodeThatAcceptsTheProbe) {
    const SearchCase& c = GetParam();
    fakes::MediaSource source(c.nodes);
    auto unit = MakeUnit();
    ASSERT_TRUE(unit);

    EXPECT_EQ(c.expected, unit->FindExtensionUnitNode(ComPtr<IMFMediaSource>(&source)));

    std::vector<int> probed;
    for (std::size_t i = 0; i < source.controls.size(); ++i) {
        for (const auto& call : source.controls[i].calls) {
            probed.push_back(static_cast<int>(i));
            // The probe: the family's set, control 1, "is the set supported" for that node,
            // node-addressed, without data.
            ASSERT_EQ(32u, call.headerLength);
            EXPECT_EQ(kExtensionUnitGuid, call.Id().Set);
            EXPECT_EQ(1u, call.Id().Id);
            EXPECT_EQ(0x10000100u, call.Id().Flags);
            EXPECT_EQ(i, call.NodeId());
            EXPECT_EQ(0u, call.Reserved());
            EXPECT_EQ(nullptr, call.data);
            EXPECT_EQ(0u, call.dataLength);
        }
        source.controls[i].calls.clear();
    }
    EXPECT_EQ(c.probed, probed);

    // The source, its topology and every node instance are handed back; only the chosen
    // node's control is kept.
    EXPECT_EQ(1, source.refs);
    for (std::size_t i = 0; i < source.nodes.size(); ++i) {
        EXPECT_EQ(1, source.instances[i].refs) << "node " << i;
        EXPECT_EQ(static_cast<int>(i) == c.boundNode ? 2 : 1, source.controls[i].refs)
            << "node " << i;
    }

    KSPROPERTY get{kExtensionUnitGuid, 1, KSPROPERTY_TYPE_GET};
    const HRESULT forwarded = unit->KsProperty(&get, sizeof(get), nullptr, 0, nullptr);
    if (c.boundNode < 0) {
        EXPECT_EQ(E_FAIL, forwarded);
        for (const auto& control : source.controls) EXPECT_TRUE(control.calls.empty());
    } else {
        ASSERT_EQ(1u, source.controls[c.boundNode].calls.size());
        EXPECT_EQ(static_cast<ULONG>(c.boundNode), source.controls[c.boundNode].calls[0].NodeId());
    }
    unit.Reset();
    for (const auto& control : source.controls) EXPECT_EQ(1, control.refs);
}

INSTANTIATE_TEST_SUITE_P(
    Topologies, NodeSearch,
    testing::Values(
        SearchCase{"NoNodes", {}, E_FAIL, -1, {}},
        SearchCase{"NoDeviceSpecificNode", {Other(), Other()}, E_FAIL, -1, {}},
        SearchCase{
            "OnlyForeignUnits", {Other(), Unit(kSetNotFound), Unit(kStall)}, E_FAIL, -1, {1, 2}},
        SearchCase{
            "ForeignUnitFirst", {Other(), Unit(kSetNotFound), Unit(), Other()}, S_OK, 2, {1, 2}},
        SearchCase{"LowestOfTwo", {Unit(), Unit()}, S_OK, 0, {0}},
        SearchCase{"UnreadableTypeSkipped", {WithTypeStatus(Unit(), kStall), Unit()}, S_OK, 1, {1}},
        SearchCase{
            "InstanceRefused", {WithCreateStatus(Unit(), E_ACCESSDENIED), Unit()}, S_OK, 1, {1}},
        SearchCase{"InstanceWithoutControl", {WithoutControl(Unit()), Unit()}, S_OK, 1, {1}}),
    [](const testing::TestParamInfo<SearchCase>& info) { return info.param.name; });

TEST(NodeSearchFailure, PlatformStatusesOfTheTopologyArePassedOn) {
    fakes::MediaSource noTopology({Unit()});
    noTopology.topologyStatus = E_NOINTERFACE;
    EXPECT_EQ(E_NOINTERFACE,
              MakeUnit()->FindExtensionUnitNode(ComPtr<IMFMediaSource>(&noTopology)));

    fakes::MediaSource noCount({Unit()});
    noCount.countStatus = kStall;
    EXPECT_EQ(kStall, MakeUnit()->FindExtensionUnitNode(ComPtr<IMFMediaSource>(&noCount)));
    EXPECT_TRUE(noCount.controls[0].calls.empty());
    EXPECT_EQ(1, noCount.refs);
}

struct ForwardCase {
    const char* name;
    fakes::KsCall::Kind kind;
    ULONG flags;
    ULONG expectedFlags;
};

class Readdressing : public testing::TestWithParam<ForwardCase> {};

TEST_P(Readdressing, RequestsReachTheBoundNodeWithANodeHeader) {
    const ForwardCase& c = GetParam();
    fakes::MediaSource source({Other(), Other(), Other(), Unit()});
    auto unit = MakeUnit();
    ASSERT_EQ(S_OK, unit->FindExtensionUnitNode(ComPtr<IMFMediaSource>(&source)));
    auto& node = source.controls[3];
    node.calls.clear();
    node.answer = [](const fakes::KsCall&, std::uint8_t*, ULONG* returned) {
        *returned = 7;
        return kStall;
    };

    // A caller's header longer than a KSPROPERTY, with junk after the first 24 bytes.
    struct {
        KSPROPERTY property;
        std::uint8_t junk[16];
    } header{};
    header.property = {kExtensionUnitGuid, 1, c.flags};
    std::memset(header.junk, 0xEE, sizeof header.junk);
    std::uint8_t buffer[16] = {};
    ULONG returned = 0;
    auto* id = &header.property;
    HRESULT status = S_OK;
    switch (c.kind) {
        case fakes::KsCall::kProperty:
            status = unit->KsProperty(id, sizeof header, buffer, sizeof buffer, &returned);
            break;
        case fakes::KsCall::kMethod:
            status = unit->KsMethod(id, sizeof header, buffer, sizeof buffer, &returned);
            break;
        case fakes::KsCall::kEvent:
            status = unit->KsEvent(id, sizeof header, buffer, sizeof buffer, &returned);
            break;
    }

    EXPECT_EQ(kStall, status);
    EXPECT_EQ(7u, returned);
    ASSERT_EQ(1u, node.calls.size());
    const auto& call = node.calls[0];
    EXPECT_EQ(c.kind, call.kind);
    EXPECT_EQ(32u, call.headerLength);
    EXPECT_EQ(kExtensionUnitGuid, call.Id().Set);
    EXPECT_EQ(1u, call.Id().Id);
    EXPECT_EQ(c.expectedFlags, call.Id().Flags);
    EXPECT_EQ(3u, call.NodeId());
    EXPECT_EQ(0u, call.Reserved());
    EXPECT_EQ(buffer, call.data);
    EXPECT_EQ(sizeof buffer, call.dataLength);
    EXPECT_EQ(&returned, call.bytesReturned);
}

INSTANTIATE_TEST_SUITE_P(
    Requests, Readdressing,
    testing::Values(ForwardCase{"PropertyGet", fakes::KsCall::kProperty, 0x1, 0x10000001},
                    ForwardCase{"PropertySet", fakes::KsCall::kProperty, 0x2, 0x10000002},
                    ForwardCase{"PropertyAlreadyTopology", fakes::KsCall::kProperty, 0x10000001,
                                0x10000001},
                    ForwardCase{"Method", fakes::KsCall::kMethod, 0x1, 0x10000001},
                    ForwardCase{"Event", fakes::KsCall::kEvent, 0x2, 0x10000002}),
    [](const testing::TestParamInfo<ForwardCase>& info) { return info.param.name; });

TEST(ExtensionUnitObject, UnboundRefusesEveryRequest) {
    auto unit = MakeUnit();
    KSPROPERTY property{kExtensionUnitGuid, 1, KSPROPERTY_TYPE_GET};
    ULONG returned = 0;
    EXPECT_EQ(E_FAIL, unit->KsProperty(&property, sizeof property, nullptr, 0, &returned));
    EXPECT_EQ(E_FAIL, unit->KsMethod(&property, sizeof property, nullptr, 0, &returned));
    EXPECT_EQ(E_FAIL, unit->KsEvent(&property, sizeof property, nullptr, 0, &returned));
}

TEST(ExtensionUnitObject, AnswersOnlyForItsTwoInterfacesAndCountsReferences) {
    auto unit = MakeUnit();
    void* object = nullptr;
    EXPECT_EQ(S_OK, unit->QueryInterface(IID_IKsControl, &object));
    EXPECT_EQ(static_cast<IKsControl*>(unit.Get()), object);
    EXPECT_EQ(S_OK, unit->QueryInterface(IID_IUnknown, &object));
    EXPECT_EQ(static_cast<IKsControl*>(unit.Get()), object);
    object = reinterpret_cast<void*>(0x1);
    EXPECT_EQ(E_NOINTERFACE, unit->QueryInterface(IID_IKsTopologyInfo, &object));
    EXPECT_EQ(nullptr, object);
    // Created with 1, held by `unit`; two interfaces handed out above.
    EXPECT_EQ(4u, unit->AddRef());
    EXPECT_EQ(3u, unit->Release());
    EXPECT_EQ(2u, unit->Release());
    EXPECT_EQ(1u, unit->Release());
}

}  // namespace
