// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/camera_functions.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace platform::linux_hw {
namespace {

struct Listing {
    const char* name;
    std::vector<CaptureNodeRecord> nodes;
    // Each function as "device:interface=node,node".
    std::vector<std::string> functions;
};

std::string Show(const CameraFunction& function) {
    std::string text = function.usbDevice + ":" + std::to_string(function.controlInterface) + "=";
    for (std::size_t i = 0; i < function.nodes.size(); ++i)
        text += (i ? "," : "") + std::to_string(function.nodes[i]);
    return text;
}

class Functions : public ::testing::TestWithParam<Listing> {};

TEST_P(Functions, OneCameraPerVideoControlInterface) {
    std::vector<std::string> shown;
    for (const CameraFunction& function : GroupCameraFunctions(GetParam().nodes)) {
        shown.push_back(Show(function));
    }
    EXPECT_EQ(shown, GetParam().functions);
}

// Metadata nodes never reach the grouping: only capture nodes are records.
INSTANTIATE_TEST_SUITE_P(
    Cases, Functions,
    ::testing::Values(
        Listing{"nothing", {}, {}},
        Listing{"colourAndDepth", {{0, "1-1", 0}, {2, "1-1", 0}}, {"1-1:0=0,2"}},
        // The directory lists video10 before video2: numbers, not names, give the order.
        Listing{"listedOutOfOrder",
                {{10, "1-1", 0}, {2, "1-1", 0}, {4, "2-1", 0}},
                {"1-1:0=2,10", "2-1:0=4"}},
        Listing{"twoCamerasInterleaved",
                {{0, "1-1", 0}, {2, "2-1", 0}, {4, "1-1", 0}, {6, "2-1", 0}},
                {"1-1:0=0,4", "2-1:0=2,6"}},
        // A composite device with two video functions is two cameras.
        Listing{"twoFunctionsOfOneDevice",
                {{0, "1-1", 0}, {2, "1-1", 2}, {4, "1-1", 0}},
                {"1-1:0=0,4", "1-1:2=2"}}),
    [](const auto& info) { return std::string(info.param.name); });

struct Chains {
    const char* name;
    std::vector<int> answers;  // each node's answer, in node order
    std::size_t start;
    int result;
    std::size_t node;  // where the search stopped (unchanged when no node took the query)
    std::size_t asked;
};

class UnitQueries : public ::testing::TestWithParam<Chains> {};

TEST_P(UnitQueries, GoToTheLowestNodeWhoseChainHoldsTheUnit) {
    const Chains& c = GetParam();
    std::size_t node = c.start;
    std::size_t asked = 0;
    const int result = QueryThroughChains(c.answers.size(), &node, [&](std::size_t at) {
        ++asked;
        return c.answers[at];
    });
    EXPECT_EQ(result, c.result);
    EXPECT_EQ(node, c.node);
    EXPECT_EQ(asked, c.asked);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, UnitQueries,
    ::testing::Values(Chains{"firstNode", {0, 0}, 0, 0, 0, 1},
                      Chains{"secondNodesChain", {ENOENT, 0}, 0, 0, 1, 2},
                      // A stall of the unit itself is its answer, not a missing chain.
                      Chains{"unitFailsOnItsNode", {ENOENT, EPIPE, 0}, 0, EPIPE, 1, 2},
                      Chains{"inNoChain", {ENOENT, ENOENT}, 0, ENOENT, 0, 2},
                      Chains{"foundBeforeStartsThere", {0, 0}, 1, 0, 1, 1},
                      Chains{"noNodes", {}, 0, ENOENT, 0, 0}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace platform::linux_hw
