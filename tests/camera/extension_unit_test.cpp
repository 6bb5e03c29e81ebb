#include <gtest/gtest.h>

#include "camera/extension_unit_ks_control.h"
#include "tests/camera/com_fakes.h"

namespace {

using Microsoft::WRL::ComPtr;
constexpr HRESULT kStall = static_cast<HRESULT>(0x8007001Fu);
const GUID kTerminal = {0xDFF229E6, 0xF70F, 0x11D0, {0xB9, 0x17, 0, 0xA0, 0xC9, 0x22, 0x31, 0x96}};
const fakes::Node kUnit{};
const fakes::Node kOther{.type = kTerminal};
const fakes::Node kForeignUnit{.probeStatus = static_cast<HRESULT>(0x80070492u)};

ComPtr<ExtensionUnitKsControl> MakeUnit() {
    ComPtr<ExtensionUnitKsControl> unit;
    unit.Attach(ExtensionUnitKsControl::Create());
    return unit;
}

struct SearchCase {
    const char* name;
    std::vector<fakes::Node> nodes;
    HRESULT expected;
    int bound;  // -1: none
    std::vector<int> probed;
    HRESULT topologyStatus = S_OK;
    HRESULT countStatus = S_OK;
};

class NodeSearch : public testing::TestWithParam<SearchCase> {};

TEST_P(NodeSearch, BindsToTheFirstNodeThatAcceptsTheProbe) {
    const SearchCase& c = GetParam();
    fakes::MediaSource source(c.nodes);
    source.topologyStatus = c.topologyStatus;
    source.countStatus = c.countStatus;
    auto unit = MakeUnit();

    EXPECT_EQ(c.expected, unit->FindExtensionUnitNode(&source));

    std::vector<int> probed;
    for (std::size_t i = 0; i < source.controls.size(); ++i) {
        for (const auto& call : source.controls[i].calls) {
            probed.push_back(static_cast<int>(i));
            ASSERT_EQ(32u, call.header.size());
            EXPECT_EQ(kExtensionUnitGuid, call.Id().Set);
            EXPECT_EQ(1u, call.Id().Id);
            EXPECT_EQ(0x10000100u, call.Id().Flags);
            EXPECT_EQ(i, call.Node().NodeId);
            EXPECT_EQ(0u, call.Node().Reserved);
            EXPECT_EQ(nullptr, call.data);
            EXPECT_EQ(0u, call.dataLength);
        }
        source.controls[i].calls.clear();
    }
    EXPECT_EQ(c.probed, probed);
    // The source and topology are handed back; only the chosen node's control is kept.
    EXPECT_EQ(1u, source.refs);
    for (std::size_t i = 0; i < source.controls.size(); ++i) {
        EXPECT_EQ(static_cast<int>(i) == c.bound ? 2u : 1u, source.controls[i].refs) << i;
    }

    unit.Reset();
    for (const auto& control : source.controls) EXPECT_EQ(1u, control.refs);
}

INSTANTIATE_TEST_SUITE_P(
    Topologies, NodeSearch,
    testing::Values(
        SearchCase{"NoNodes", {}, E_FAIL, -1, {}},
        SearchCase{"OnlyForeignUnits", {kOther, kForeignUnit, kForeignUnit}, E_FAIL, -1, {1, 2}},
        SearchCase{"ForeignUnitFirst", {kOther, kForeignUnit, kUnit, kOther}, S_OK, 2, {1, 2}},
        SearchCase{"LowestOfTwo", {kOther, kUnit, kUnit}, S_OK, 1, {1}},
        SearchCase{"UnreadableTypeSkipped", {{.typeStatus = kStall}, kUnit}, S_OK, 1, {1}},
        SearchCase{"InstanceRefused", {{.createStatus = E_ACCESSDENIED}, kUnit}, S_OK, 1, {1}},
        SearchCase{"NoTopology", {kUnit}, E_NOINTERFACE, -1, {}, E_NOINTERFACE},
        SearchCase{"NodeCountUnreadable", {kUnit}, kStall, -1, {}, S_OK, kStall}),
    [](const testing::TestParamInfo<SearchCase>& info) { return info.param.name; });

struct ForwardCase {
    const char* name;
    fakes::KsCall::Kind kind;
    ULONG flags;
    ULONG expectedFlags;
};

class Readdressing : public testing::TestWithParam<ForwardCase> {};

TEST_P(Readdressing, RequestsReachTheBoundNodeWithANodeHeader) {
    const ForwardCase& c = GetParam();
    fakes::MediaSource source({kOther, kOther, kOther, kUnit});
    auto unit = MakeUnit();
    ASSERT_EQ(S_OK, unit->FindExtensionUnitNode(&source));
    auto& node = source.controls[3];
    node.calls.clear();
    node.answer = [](const fakes::KsCall&, std::uint8_t*, ULONG* returned) {
        *returned = 7;
        return kStall;
    };

    // A caller's header longer than a KSPROPERTY: only its first 24 bytes count.
    struct {
        KSPROPERTY property;
        std::uint8_t junk[16];
    } header{{kExtensionUnitGuid, 1, c.flags}, {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}};
    std::uint8_t buffer[16] = {};
    ULONG returned = 0;
    decltype(&IKsControl::KsProperty) request =
        c.kind == fakes::KsCall::kProperty ? &IKsControl::KsProperty
        : c.kind == fakes::KsCall::kMethod ? &IKsControl::KsMethod
                                           : &IKsControl::KsEvent;
    const HRESULT status =
        (unit.Get()->*request)(&header.property, sizeof header, buffer, sizeof buffer, &returned);

    EXPECT_EQ(kStall, status);
    EXPECT_EQ(7u, returned);
    ASSERT_EQ(1u, node.calls.size());
    const auto& call = node.calls[0];
    EXPECT_EQ(c.kind, call.kind);
    ASSERT_EQ(32u, call.header.size());
    EXPECT_EQ(kExtensionUnitGuid, call.Id().Set);
    EXPECT_EQ(1u, call.Id().Id);
    EXPECT_EQ(c.expectedFlags, call.Id().Flags);
    EXPECT_EQ(3u, call.Node().NodeId);
    EXPECT_EQ(0u, call.Node().Reserved);
    EXPECT_EQ(buffer, call.data);
    EXPECT_EQ(sizeof buffer, call.dataLength);
    EXPECT_EQ(&returned, call.bytesReturned);

    // Unbound, nothing is forwarded.
    EXPECT_EQ(E_FAIL, (MakeUnit().Get()->*request)(&header.property, sizeof header, buffer,
                                                   sizeof buffer, &returned));
}

INSTANTIATE_TEST_SUITE_P(
    Requests, Readdressing,
    testing::Values(ForwardCase{"PropertyGet", fakes::KsCall::kProperty, 0x1, 0x10000001},
                    ForwardCase{"PropertySet", fakes::KsCall::kProperty, 0x2, 0x10000002},
                    ForwardCase{"Method", fakes::KsCall::kMethod, 0x1, 0x10000001},
                    ForwardCase{"Event", fakes::KsCall::kEvent, 0x2, 0x10000002}),
    [](const testing::TestParamInfo<ForwardCase>& info) { return info.param.name; });

TEST(ExtensionUnitObject, AnswersOnlyForItsTwoInterfaces) {
    auto unit = MakeUnit();
    void* object = nullptr;
    EXPECT_EQ(S_OK, unit->QueryInterface(IID_IKsControl, &object));
    EXPECT_EQ(S_OK, unit->QueryInterface(IID_IUnknown, &object));
    EXPECT_EQ(static_cast<IKsControl*>(unit.Get()), object);
    EXPECT_EQ(E_NOINTERFACE, unit->QueryInterface(IID_IKsTopologyInfo, &object));
    EXPECT_EQ(nullptr, object);
    // One reference from creation, two from the answers above.
    EXPECT_EQ(2u, unit->Release());
    EXPECT_EQ(1u, unit->Release());
}

}  // namespace
