#include "platform/sim/world_spec.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using sim::ParseWorld;
using sim::WorldError;

std::string ErrorOf(const std::string& json) {
    try {
        ParseWorld(json);
    } catch (const WorldError& error) {
        return error.what();
    }
    return "(accepted)";
}

TEST(WorldFile, EmptyObjectIsAnEmptyWorld) {
    const auto world = ParseWorld("{}");
    EXPECT_TRUE(world.cameras.empty());
    EXPECT_TRUE(world.dfuDevices.empty());
    EXPECT_TRUE(world.registry.writable);
    EXPECT_FALSE(world.registry.dfuAutoMode.has_value());
    EXPECT_EQ(1u, world.speedup);
}

TEST(WorldFile, ReadsEveryField) {
    const auto world = ParseWorld(R"({
      "cameras": [{"name": "Lynx LX20", "link": "L", "enumerations": [1, 2], "lynx": true,
                   "firmware": "5.10.0.28", "infoFailures": 2, "dfuDelayMs": 50,
                   "dfu": {"link": "D"}, "firmwareAfterUpdate": "5.16.0.1"},
                  {"name": "Webcam"}],
      "dfuDevices": [{"link": "X", "transferSize": 64, "interfaces": [14, 1, 254],
                      "busyPolls": 3, "manifestPolls": 0, "stateAfterDetach": "appIDLE",
                      "fault": {"atBlock": 3, "kind": "unplug"}}],
      "registry": {"writable": false, "DFUAutoMode": "Auto"},
      "speedup": 100})");
    ASSERT_EQ(2u, world.cameras.size());
    const auto& lynx = world.cameras[0];
    EXPECT_EQ(L"Lynx LX20", lynx.name);
    EXPECT_EQ((std::vector<int>{1, 2}), lynx.enumerations);
    EXPECT_TRUE(lynx.lynx);
    EXPECT_EQ((sim::FirmwareVersion{5, 10, 0, 28}), lynx.firmware);
    EXPECT_EQ(2u, lynx.infoFailures);
    EXPECT_EQ(50u, lynx.dfuDelayMs);
    ASSERT_TRUE(lynx.dfu.has_value());
    EXPECT_EQ(L"D", lynx.dfu->link);
    EXPECT_EQ((sim::FirmwareVersion{5, 16, 0, 1}), lynx.firmwareAfterUpdate);
    const auto& webcam = world.cameras[1];
    EXPECT_EQ((std::vector<int>{2}), webcam.enumerations);
    EXPECT_FALSE(webcam.lynx);
    EXPECT_FALSE(webcam.link.empty());
    EXPECT_NE(lynx.link, webcam.link);
    const auto& dfu = world.dfuDevices.at(0);
    EXPECT_EQ(64, dfu.transferSize);
    EXPECT_EQ((std::vector<std::uint8_t>{14, 1, 254}), dfu.interfaces);
    EXPECT_EQ(3u, dfu.busyPolls);
    EXPECT_EQ(0u, dfu.manifestPolls);
    EXPECT_EQ(0, dfu.stateAfterDetach);
    ASSERT_TRUE(dfu.fault.has_value());
    EXPECT_EQ(3u, dfu.fault->atBlock);
    EXPECT_EQ(sim::FaultKind::kUnplug, dfu.fault->kind);
    EXPECT_FALSE(world.registry.writable);
    EXPECT_EQ(L"Auto", *world.registry.dfuAutoMode);
    EXPECT_EQ(100u, world.speedup);
}

TEST(WorldFile, FirmwareAfterUpdateDefaultsToFirmware) {
    const auto world = ParseWorld(R"({"cameras": [{"name": "A", "firmware": "1.2.3.4"}]})");
    EXPECT_EQ(world.cameras[0].firmware, world.cameras[0].firmwareAfterUpdate);
}

struct BadWorld {
    const char* json;
    const char* message;
};

void PrintTo(const BadWorld& world, std::ostream* out) {
    *out << world.json;
}

class BadWorldFile : public testing::TestWithParam<BadWorld> {};

TEST_P(BadWorldFile, NamesTheFieldAndTheProblem) {
    EXPECT_EQ(GetParam().message, ErrorOf(GetParam().json));
}

INSTANTIATE_TEST_SUITE_P(
    Problems, BadWorldFile,
    testing::Values(
        BadWorld{"[]", "$: must be an object"},
        BadWorld{R"({"camera": []})", "$.camera: unknown field"},
        BadWorld{R"({"cameras": [{}]})", "$.cameras[0].name: required field is missing"},
        BadWorld{R"({"cameras": [{"name": "A", "nmae": 1}]})", "$.cameras[0].nmae: unknown field"},
        BadWorld{R"({"cameras": [{"name": 3}]})", "$.cameras[0].name: must be a string"},
        BadWorld{R"({"cameras": [{"name": "A", "enumerations": [3]}]})",
                 "$.cameras[0].enumerations[0]: must be between 1 and 2"},
        BadWorld{R"({"cameras": [{"name": "A", "enumerations": [2, 2]}]})",
                 "$.cameras[0].enumerations[1]: is listed twice"},
        BadWorld{R"({"cameras": [{"name": "A", "firmware": "5.10.0"}]})",
                 "$.cameras[0].firmware: must be a version \"a.b.c.d\" with parts 0 to 255"},
        BadWorld{R"({"cameras": [{"name": "A", "firmware": "5.10.0.256"}]})",
                 "$.cameras[0].firmware: must be a version \"a.b.c.d\" with parts 0 to 255"},
        BadWorld{R"({"cameras": [{"name": "A", "lynx": "yes"}]})",
                 "$.cameras[0].lynx: must be true or false"},
        BadWorld{R"({"cameras": [{"name": "A", "dfu": {}}]})",
                 "$.cameras[0].dfu.link: required field is missing"},
        BadWorld{R"({"dfuDevices": [{"link": "X", "transferSize": 65536}]})",
                 "$.dfuDevices[0].transferSize: must be between 0 and 65535"},
        BadWorld{R"({"dfuDevices": [{"link": "X", "busyPolls": -1}]})",
                 "$.dfuDevices[0].busyPolls: must be between 0 and 1000000"},
        BadWorld{R"({"dfuDevices": [{"link": "X", "busyPolls": 1.5}]})",
                 "$.dfuDevices[0].busyPolls: must be a whole number"},
        BadWorld{R"({"dfuDevices": [{"link": "X", "interfaces": []}]})",
                 "$.dfuDevices[0].interfaces: must be a non-empty array of interface classes"},
        BadWorld{R"({"dfuDevices": [{"link": "X", "stateAfterDetach": "dfuIdle"}]})",
                 "$.dfuDevices[0].stateAfterDetach: must be a DFU state name such as \"dfuIDLE\""},
        BadWorld{R"({"dfuDevices": [{"link": "X", "fault": {"atBlock": 1}}]})",
                 "$.dfuDevices[0].fault.kind: required field is missing"},
        BadWorld{R"({"dfuDevices": [{"link": "X", "fault": {"atBlock": 1, "kind": "smoke"}}]})",
                 "$.dfuDevices[0].fault.kind: must be \"stall\", \"error\" or \"unplug\""},
        BadWorld{R"({"dfuDevices": [{"link": "X", "initialState": "idle"}]})",
                 "$.dfuDevices[0].initialState: must be a DFU state name such as \"dfuIDLE\""},
        BadWorld{R"({"dfuDevices": [{"link": "X", "pollTimeoutMs": 16777216}]})",
                 "$.dfuDevices[0].pollTimeoutMs: must be between 0 and 16777215"},
        BadWorld{R"({"dfuDevices": [{"link": "X", "requestFailures": [{"request": "GET"}]}]})",
                 "$.dfuDevices[0].requestFailures[0].request: must be a DFU request name such as "
                 "\"GETSTATUS\""},
        BadWorld{R"({"dfuDevices": [{"link": "X", "requestFailures": [{"occurrence": 2}]}]})",
                 "$.dfuDevices[0].requestFailures[0].request: required field is missing"},
        BadWorld{R"({"dfuDevices": [{"link": "X", "requestFailures": [{"request": "DETACH",
                 "occurrence": 0}]}]})",
                 "$.dfuDevices[0].requestFailures[0].occurrence: must be between 1 and 1000000"},
        BadWorld{R"({"dfuDevices": [{"link": "X", "statusAfterBlock": {"block": 1, "bStatus": 256,
                 "bState": "dfuERROR"}}]})",
                 "$.dfuDevices[0].statusAfterBlock.bStatus: must be between 0 and 255"},
        BadWorld{R"({"dfuDevices": [{"link": "X", "statusAfterBlock": {"block": 1}}]})",
                 "$.dfuDevices[0].statusAfterBlock.bStatus: required field is missing"},
        BadWorld{R"({"dfuDevices": [{"link": "X", "unplug": {"atMs": 5, "afterListings": 1}}]})",
                 "$.dfuDevices[0].unplug: must name exactly one of atMs, afterListings and "
                 "atRequest"},
        BadWorld{R"({"dfuDevices": [{"link": "X", "unplug": {"atMs": 5, "occurrence": 2}}]})",
                 "$.dfuDevices[0].unplug.occurrence: needs atRequest"},
        BadWorld{
            R"({"cameras": [{"name": "A", "commandFaults": [{"opcode": 16, "kind": "slow"}]}]})",
            "$.cameras[0].commandFaults[0].kind: must be \"setFails\", \"getFails\", "
            "\"shortReply\" or \"wrongEcho\""},
        BadWorld{R"({"cameras": [{"name": "A", "commandFaults": [{"kind": "setFails"}]}]})",
                 "$.cameras[0].commandFaults[0].opcode: required field is missing"},
        BadWorld{R"({"cameras": [{"name": "A", "inDfuMode": true}]})",
                 "$.cameras[0].inDfuMode: needs a dfu device"},
        BadWorld{R"({"registry": {"openError": 0}})",
                 "$.registry.openError: must be between 1 and 4294967295"},
        BadWorld{R"({"registry": {"writable": 1}})", "$.registry.writable: must be true or false"},
        BadWorld{R"({"speedup": 0})", "$.speedup: must be between 1 and 1000000"}));

TEST(WorldFile, SampleDefaultWorldIsTheBuiltInOne) {
    const auto file = sim::LoadWorldFile(LYNX_SOURCE_DIR "/lab/default-world.json");
    const auto builtIn = sim::DefaultWorld();
    ASSERT_EQ(builtIn.cameras.size(), file.cameras.size());
    for (std::size_t i = 0; i < file.cameras.size(); ++i) {
        EXPECT_EQ(builtIn.cameras[i].name, file.cameras[i].name);
        EXPECT_EQ(builtIn.cameras[i].link, file.cameras[i].link);
        EXPECT_EQ(builtIn.cameras[i].lynx, file.cameras[i].lynx);
        EXPECT_EQ(builtIn.cameras[i].firmware, file.cameras[i].firmware);
        EXPECT_EQ(builtIn.cameras[i].firmwareAfterUpdate, file.cameras[i].firmwareAfterUpdate);
        EXPECT_EQ(builtIn.cameras[i].dfu.has_value(), file.cameras[i].dfu.has_value());
        if (file.cameras[i].dfu) {
            EXPECT_EQ(builtIn.cameras[i].dfu->link, file.cameras[i].dfu->link);
        }
    }
}

TEST(WorldFile, DirectoryIsNotAWorld) {
    try {
        sim::LoadWorldFile(LYNX_SOURCE_DIR "/lab");
        FAIL() << "a directory was accepted";
    } catch (const WorldError& error) {
        EXPECT_NE(std::string::npos, std::string(error.what()).find("not a regular file"));
    }
}

TEST(WorldFile, BrokenJsonIsReported) {
    EXPECT_EQ(0u, ErrorOf("{\"cameras\": [").find("not valid JSON"));
}

}  // namespace
