// SPDX-License-Identifier: Apache-2.0
#include "platform/sim/world_spec.h"

#include <nlohmann/json.hpp>

#include <sys/stat.h>
#include <algorithm>
#include <cwctype>
#include <fstream>
#include <limits>
#include <map>
#include <set>
#include <sstream>

#include "platform/sim/camera_description.h"

namespace sim {
namespace {

using nlohmann::json;
using platform::linux_hw::UvcEntityKind;

constexpr const char* kStateNames[] = {"appIDLE",          "appDETACH",   "dfuIDLE",
                                       "dfuDNLOAD_SYNC",   "dfuDNBUSY",   "dfuDNLOAD_IDLE",
                                       "dfuMANIFEST_SYNC", "dfuMANIFEST", "dfuMANIFEST_WAIT_RESET",
                                       "dfuUPLOAD_IDLE",   "dfuERROR"};

constexpr const char* kRequestNames[] = {"DETACH",    "DNLOAD",   "UPLOAD", "GETSTATUS",
                                         "CLRSTATUS", "GETSTATE", "ABORT"};

[[noreturn]] void Fail(const std::string& where, const std::string& problem) {
    throw WorldError(where + ": " + problem);
}

void CheckKeys(const json& object, const std::string& where, const std::set<std::string>& known) {
    if (!object.is_object()) Fail(where, "must be an object");
    for (const auto& [key, value] : object.items()) {
        if (!known.contains(key)) Fail(where + "." + key, "unknown field");
    }
}

void Require(const json& object, const std::string& where,
             std::initializer_list<const char*> keys) {
    for (const char* key : keys) {
        if (!object.contains(key)) Fail(where + "." + key, "required field is missing");
    }
}

// Which of `names` the value is; anything else fails with `must`.
template <std::size_t N>
std::size_t NameIndex(const json& value, const std::string& where, const char* const (&names)[N],
                      const char* must) {
    for (std::size_t i = 0; value.is_string() && i < N; ++i) {
        if (value.get<std::string>() == names[i]) return i;
    }
    Fail(where, must);
}

std::uint64_t Unsigned(const json& value, const std::string& where, std::uint64_t min,
                       std::uint64_t max) {
    if (!value.is_number_integer()) Fail(where, "must be a whole number");
    if (value.is_number_unsigned()) {
        const auto v = value.get<std::uint64_t>();
        if (v < min || v > max) {
            Fail(where, "must be between " + std::to_string(min) + " and " + std::to_string(max));
        }
        return v;
    }
    const auto v = value.get<std::int64_t>();
    if (v < 0 || static_cast<std::uint64_t>(v) < min || static_cast<std::uint64_t>(v) > max) {
        Fail(where, "must be between " + std::to_string(min) + " and " + std::to_string(max));
    }
    return static_cast<std::uint64_t>(v);
}

std::wstring Text(const json& value, const std::string& where, bool allowEmpty) {
    if (!value.is_string()) Fail(where, "must be a string");
    const auto text = value.get<std::string>();
    if (!allowEmpty && text.empty()) Fail(where, "must not be empty");
    return Utf8ToWide(text);
}

bool Bool(const json& value, const std::string& where) {
    if (!value.is_boolean()) Fail(where, "must be true or false");
    return value.get<bool>();
}

FirmwareVersion Version(const json& value, const std::string& where) {
    if (!value.is_string()) Fail(where, "must be a version \"a.b.c.d\"");
    return ParseVersion(value.get<std::string>(), where);
}

}  // namespace

FirmwareVersion ParseVersion(const std::string& text, const std::string& where) {
    FirmwareVersion version{};
    std::size_t part = 0;
    std::size_t i = 0;
    while (part < 4) {
        std::size_t start = i;
        unsigned number = 0;
        while (i < text.size() && text[i] >= '0' && text[i] <= '9' && i - start < 3) {
            number = number * 10 + static_cast<unsigned>(text[i] - '0');
            ++i;
        }
        if (i == start || number > 255)
            Fail(where, "must be a version \"a.b.c.d\" with parts 0 to 255");
        version[part++] = static_cast<std::uint8_t>(number);
        if (part < 4) {
            if (i >= text.size() || text[i] != '.')
                Fail(where, "must be a version \"a.b.c.d\" with parts 0 to 255");
            ++i;
        }
    }
    if (i != text.size()) Fail(where, "must be a version \"a.b.c.d\" with parts 0 to 255");
    return version;
}

namespace {

std::uint8_t StateByName(const json& value, const std::string& at) {
    return static_cast<std::uint8_t>(
        NameIndex(value, at, kStateNames, "must be a DFU state name such as \"dfuIDLE\""));
}

DfuRequest RequestByName(const json& value, const std::string& at) {
    return static_cast<DfuRequest>(
        NameIndex(value, at, kRequestNames, "must be a DFU request name such as \"GETSTATUS\""));
}

std::uint32_t Count(const json& object, const char* key, const std::string& where,
                    std::uint64_t min, std::uint64_t max) {
    return static_cast<std::uint32_t>(Unsigned(object[key], where + "." + key, min, max));
}

// Parses each entry of the array object[key], when there is one, with its place.
template <typename Parse>
void EachEntry(const json& object, const char* key, const std::string& where, Parse parse) {
    if (!object.contains(key)) return;
    const std::string at = where + "." + key;
    if (!object[key].is_array()) Fail(at, "must be an array");
    for (std::size_t i = 0; i < object[key].size(); ++i) {
        parse(object[key][i], at + "[" + std::to_string(i) + "]");
    }
}

// The same for a field that may be left out; `field` keeps its value then.
template <typename T>
void CountIf(const json& object, const char* key, const std::string& where, std::uint64_t min,
             std::uint64_t max, T& field) {
    if (object.contains(key)) field = static_cast<T>(Count(object, key, where, min, max));
}

void ParseDfuFaults(const json& object, const std::string& where, DfuDeviceSpec& spec) {
    if (object.contains("initialState")) {
        spec.initialState = StateByName(object["initialState"], where + ".initialState");
    }
    CountIf(object, "pollTimeoutMs", where, 0, 0xFFFFFF, spec.pollTimeoutMs);
    if (object.contains("canUpload"))
        spec.canUpload = Bool(object["canUpload"], where + ".canUpload");
    if (object.contains("manifestationTolerant")) {
        spec.manifestationTolerant =
            Bool(object["manifestationTolerant"], where + ".manifestationTolerant");
    }
    CountIf(object, "resetAfterManifestMs", where, 0, 3600000, spec.resetAfterManifestMs);
    EachEntry(object, "requestFailures", where, [&](const json& entry, const std::string& item) {
        CheckKeys(entry, item, {"request", "occurrence", "count", "error"});
        Require(entry, item, {"request"});
        RequestFailure failure;
        failure.request = RequestByName(entry["request"], item + ".request");
        CountIf(entry, "occurrence", item, 1, 1000000, failure.occurrence);
        CountIf(entry, "count", item, 1, 1000000, failure.count);
        CountIf(entry, "error", item, 1, 65535, failure.error);
        spec.requestFailures.push_back(failure);
    });
    if (object.contains("statusAfterBlock")) {
        const auto& answer = object["statusAfterBlock"];
        const std::string at = where + ".statusAfterBlock";
        CheckKeys(answer, at, {"block", "bStatus", "bState"});
        Require(answer, at, {"block", "bStatus", "bState"});
        StatusAfterBlock parsed;
        parsed.block = Count(answer, "block", at, 0, std::numeric_limits<std::uint32_t>::max());
        parsed.bStatus = static_cast<std::uint8_t>(Count(answer, "bStatus", at, 0, 255));
        parsed.bState = StateByName(answer["bState"], at + ".bState");
        spec.statusAfterBlock = parsed;
    }
    if (object.contains("unplug")) {
        const auto& unplug = object["unplug"];
        const std::string at = where + ".unplug";
        CheckKeys(unplug, at, {"atMs", "afterListings", "atRequest", "occurrence"});
        UnplugSpec parsed;
        CountIf(unplug, "atMs", at, 0, 3600000, parsed.atMs);
        CountIf(unplug, "afterListings", at, 1, 1000000, parsed.afterListings);
        if (unplug.contains("atRequest")) {
            parsed.atRequest = RequestByName(unplug["atRequest"], at + ".atRequest");
        }
        if (unplug.contains("occurrence")) {
            if (!parsed.atRequest) Fail(at + ".occurrence", "needs atRequest");
            parsed.occurrence = Count(unplug, "occurrence", at, 1, 1000000);
        }
        const int moments = parsed.atMs.has_value() + parsed.afterListings.has_value() +
                            parsed.atRequest.has_value();
        if (moments != 1) Fail(at, "must name exactly one of atMs, afterListings and atRequest");
        spec.unplug = parsed;
    }
}

DfuDeviceSpec ParseDfuDevice(const json& object, const std::string& where) {
    CheckKeys(
        object, where,
        {"link", "transferSize", "interfaces", "busyPolls", "manifestPolls", "stateAfterDetach",
         "fault", "initialState", "pollTimeoutMs", "canUpload", "requestFailures",
         "statusAfterBlock", "unplug", "manifestationTolerant", "resetAfterManifestMs"});
    DfuDeviceSpec spec;
    Require(object, where, {"link"});
    spec.link = Text(object["link"], where + ".link", false);
    CountIf(object, "transferSize", where, 0, 65535, spec.transferSize);
    if (object.contains("interfaces")) {
        const auto& list = object["interfaces"];
        const std::string at = where + ".interfaces";
        if (!list.is_array() || list.empty())
            Fail(at, "must be a non-empty array of interface classes");
        if (list.size() > 32) Fail(at, "must not list more than 32 interfaces");
        spec.interfaces.clear();
        for (std::size_t i = 0; i < list.size(); ++i) {
            spec.interfaces.push_back(static_cast<std::uint8_t>(
                Unsigned(list[i], at + "[" + std::to_string(i) + "]", 0, 255)));
        }
    }
    CountIf(object, "busyPolls", where, 0, 1000000, spec.busyPolls);
    CountIf(object, "manifestPolls", where, 0, 1000000, spec.manifestPolls);
    if (object.contains("stateAfterDetach")) {
        spec.stateAfterDetach =
            StateByName(object["stateAfterDetach"], where + ".stateAfterDetach");
    }
    ParseDfuFaults(object, where, spec);
    if (object.contains("fault")) {
        const auto& fault = object["fault"];
        const std::string at = where + ".fault";
        CheckKeys(fault, at, {"atBlock", "kind"});
        Require(fault, at, {"atBlock", "kind"});
        DfuFault parsed;
        parsed.atBlock = static_cast<std::uint32_t>(Unsigned(
            fault["atBlock"], at + ".atBlock", 0, std::numeric_limits<std::uint32_t>::max()));
        constexpr const char* kNames[] = {"stall", "error", "unplug"};
        constexpr FaultKind kKinds[] = {FaultKind::kStall, FaultKind::kError, FaultKind::kUnplug};
        parsed.kind = kKinds[NameIndex(fault["kind"], at + ".kind", kNames,
                                       "must be \"stall\", \"error\" or \"unplug\"")];
        spec.fault = parsed;
    }
    return spec;
}

// The family's camera varied: `nodes` nodes, its extension unit at `unitNode` with
// `foreignUnits` units of another vendor just before it. Its other entities keep their order
// around them, processing units follow, and the last are left out.
void ParseTopology(const json& object, const std::string& at, Topology& topology) {
    CheckKeys(object, at, {"nodes", "unitNode", "foreignUnits"});
    std::uint32_t nodes = static_cast<std::uint32_t>(topology.size()), unitNode = 0,
                  foreignUnits = 0;
    while (topology[unitNode].kind != UvcEntityKind::kExtensionUnit) ++unitNode;
    const auto family = topology[unitNode];
    topology.erase(topology.begin() + unitNode);
    if (object.contains("nodes")) nodes = Count(object, "nodes", at, 1, 64);
    if (object.contains("unitNode")) unitNode = Count(object, "unitNode", at, 0, 63);
    if (object.contains("foreignUnits")) foreignUnits = Count(object, "foreignUnits", at, 0, 63);
    if (unitNode >= nodes) Fail(at + ".unitNode", "must be below nodes");
    if (foreignUnits > unitNode) Fail(at + ".foreignUnits", "must not exceed unitNode");
    topology.resize(std::max<std::size_t>(topology.size(), nodes),
                    {.kind = UvcEntityKind::kProcessingUnit, .controls = {}});
    topology.insert(
        topology.begin() + (unitNode - foreignUnits), foreignUnits,
        {.kind = UvcEntityKind::kExtensionUnit, .extensionCode = kForeignUnitSet, .controls = {1}});
    topology.insert(topology.begin() + unitNode, family);
    topology.resize(nodes);
}

CameraSpec ParseCamera(const json& object, const std::string& where, std::size_t index) {
    CheckKeys(object, where,
              {"name", "link", "enumerations", "lynx", "firmware", "infoFailures", "dfu",
               "dfuDelayMs", "firmwareAfterUpdate", "commandFaults", "inDfuMode", "topology"});
    CameraSpec spec;
    Require(object, where, {"name"});
    spec.name = Text(object["name"], where + ".name", true);
    if (object.contains("link")) {
        spec.link = Text(object["link"], where + ".link", false);
    } else {
        spec.link = L"\\\\?\\usb#vid_0000&pid_0000&mi_00#sim&" + std::to_wstring(index) +
                    L"&0&0000#{e5323777-f976-4f5b-9b55-b94699c46e44}\\global";
    }
    if (object.contains("enumerations")) {
        const auto& list = object["enumerations"];
        const std::string at = where + ".enumerations";
        if (!list.is_array()) Fail(at, "must be an array of 1 and 2");
        spec.enumerations.clear();
        for (std::size_t i = 0; i < list.size(); ++i) {
            const auto set =
                static_cast<int>(Unsigned(list[i], at + "[" + std::to_string(i) + "]", 1, 2));
            for (int seen : spec.enumerations) {
                if (seen == set) Fail(at + "[" + std::to_string(i) + "]", "is listed twice");
            }
            spec.enumerations.push_back(set);
        }
    }
    if (object.contains("lynx")) spec.lynx = Bool(object["lynx"], where + ".lynx");
    if (object.contains("firmware"))
        spec.firmware = Version(object["firmware"], where + ".firmware");
    spec.firmwareAfterUpdate = spec.firmware;
    CountIf(object, "infoFailures", where, 0, 1000000, spec.infoFailures);
    if (object.contains("topology"))
        ParseTopology(object["topology"], where + ".topology", spec.topology);
    if (object.contains("dfu")) spec.dfu = ParseDfuDevice(object["dfu"], where + ".dfu");
    CountIf(object, "dfuDelayMs", where, 0, 3600000, spec.dfuDelayMs);
    if (object.contains("firmwareAfterUpdate")) {
        spec.firmwareAfterUpdate =
            Version(object["firmwareAfterUpdate"], where + ".firmwareAfterUpdate");
    }
    if (object.contains("inDfuMode")) {
        spec.inDfuMode = Bool(object["inDfuMode"], where + ".inDfuMode");
        if (spec.inDfuMode && !spec.dfu) Fail(where + ".inDfuMode", "needs a dfu device");
    }
    EachEntry(object, "commandFaults", where, [&](const json& entry, const std::string& item) {
        CheckKeys(entry, item, {"opcode", "kind", "times"});
        Require(entry, item, {"opcode", "kind"});
        CommandFault fault;
        fault.opcode = Count(entry, "opcode", item, 0, 0xFFFFFFFFu);
        constexpr const char* kNames[] = {"setFails", "getFails", "shortReply", "wrongEcho"};
        constexpr CommandFaultKind kKinds[] = {
            CommandFaultKind::kSetFails, CommandFaultKind::kGetFails, CommandFaultKind::kShortReply,
            CommandFaultKind::kWrongEcho};
        fault.kind = kKinds[NameIndex(
            entry["kind"], item + ".kind", kNames,
            "must be \"setFails\", \"getFails\", \"shortReply\" or \"wrongEcho\"")];
        CountIf(entry, "times", item, 1, 1000000, fault.times);
        spec.commandFaults.push_back(fault);
    });
    return spec;
}

// Two devices on one link would be one device to the host: the world cannot mean it.
void CheckLinksUnique(const WorldSpec& world) {
    std::map<std::wstring, std::string> seen;
    auto check = [&seen](const std::wstring& link, const std::string& where) {
        const auto [it, added] = seen.emplace(Lower(link), where);
        if (!added) Fail(where + ".link", "is the link of " + it->second + " too");
    };
    for (std::size_t i = 0; i < world.cameras.size(); ++i) {
        const std::string where = "$.cameras[" + std::to_string(i) + "]";
        const CameraSpec& camera = world.cameras[i];
        check(camera.link, where);
        if (camera.dfu) check(camera.dfu->link, where + ".dfu");
    }
    for (std::size_t i = 0; i < world.dfuDevices.size(); ++i) {
        check(world.dfuDevices[i].link, "$.dfuDevices[" + std::to_string(i) + "]");
    }
}

}  // namespace

const char* DfuStateName(std::uint8_t state) {
    return state < 11 ? kStateNames[state] : "unknown";
}

const char* DfuRequestName(DfuRequest request) {
    const auto value = static_cast<std::uint8_t>(request);
    return value < 7 ? kRequestNames[value] : "unknown";
}

WorldSpec ParseWorld(const std::string& jsonText) {
    json root;
    try {
        root = json::parse(jsonText);
    } catch (const json::exception& error) {
        // A number beyond a double's range is an out_of_range error, not a parse_error, but
        // the file is no more usable for that.
        throw WorldError(std::string("not valid JSON (") + error.what() + ")");
    }
    const std::string top = "$";
    CheckKeys(root, top, {"cameras", "dfuDevices", "registry", "speedup"});
    WorldSpec world;
    if (root.contains("cameras")) {
        const auto& list = root["cameras"];
        if (!list.is_array()) Fail("$.cameras", "must be an array");
        for (std::size_t i = 0; i < list.size(); ++i) {
            world.cameras.push_back(
                ParseCamera(list[i], "$.cameras[" + std::to_string(i) + "]", i));
        }
    }
    if (root.contains("dfuDevices")) {
        const auto& list = root["dfuDevices"];
        if (!list.is_array()) Fail("$.dfuDevices", "must be an array");
        for (std::size_t i = 0; i < list.size(); ++i) {
            world.dfuDevices.push_back(
                ParseDfuDevice(list[i], "$.dfuDevices[" + std::to_string(i) + "]"));
        }
    }
    CheckLinksUnique(world);
    if (root.contains("registry")) {
        const auto& registry = root["registry"];
        CheckKeys(registry, "$.registry", {"writable", "DFUAutoMode", "openError", "setError"});
        if (registry.contains("openError")) {
            world.registry.openError = Count(registry, "openError", "$.registry", 1, 0xFFFFFFFFu);
        }
        if (registry.contains("setError")) {
            world.registry.setError = Count(registry, "setError", "$.registry", 1, 0xFFFFFFFFu);
        }
        if (registry.contains("writable")) {
            world.registry.writable = Bool(registry["writable"], "$.registry.writable");
        }
        if (registry.contains("DFUAutoMode")) {
            world.registry.dfuAutoMode =
                Text(registry["DFUAutoMode"], "$.registry.DFUAutoMode", true);
        }
    }
    if (root.contains("speedup")) {
        world.speedup =
            static_cast<std::uint32_t>(Unsigned(root["speedup"], "$.speedup", 1, 1000000));
    }
    return world;
}

WorldSpec LoadWorldFile(const std::string& path) {
    struct stat info{};
    if (stat(path.c_str(), &info) != 0) throw WorldError(path + ": cannot be read (no such file)");
    if (!S_ISREG(info.st_mode)) throw WorldError(path + ": cannot be read (not a regular file)");
    std::ifstream file(path, std::ios::binary);
    if (!file) throw WorldError(path + ": cannot be read");
    std::ostringstream text;
    text << file.rdbuf();
    if (file.bad()) throw WorldError(path + ": cannot be read");
    try {
        return ParseWorld(text.str());
    } catch (const WorldError& error) {
        throw WorldError(path + ": " + error.what());
    }
}

Topology DescribedTopology() {
    const CameraDescription camera = LynxDepthCamera({});
    const DescriptorBytes config = camera.ConfigurationDescriptor();
    const auto parsed = platform::linux_hw::ParseUvcControlInterface(config.data(), config.size(),
                                                                     camera.ControlInterface());
    if (!parsed) throw std::logic_error("the described camera's descriptors do not parse");
    return parsed->entities;
}

const DfuDeviceSpec& CameraSpec::DfuSide() const {
    if (!dfu) throw std::logic_error("a camera without a DFU device goes into DFU mode");
    return *dfu;
}

WorldSpec DefaultWorld() {
    WorldSpec world;
    CameraSpec lynx;
    lynx.name = L"Lynx LX20 Depth Camera";
    lynx.link =
        L"\\\\?\\usb#vid_3c5e&pid_0b64&mi_00#6&2c1a3b4d&0&0000#{e5323777-f976-4f5b-9b55-"
        L"b94699c46e44}\\global";
    lynx.lynx = true;
    lynx.firmware = {5, 10, 0, 28};
    lynx.firmwareAfterUpdate = {5, 16, 0, 1};
    DfuDeviceSpec dfu;
    dfu.link =
        L"\\\\?\\USB#VID_3C5E&PID_0F1C#8&3d2e1f0a&0&2#{a5dcbf10-6530-11d2-901f-00c04fb951ed}";
    lynx.dfu = dfu;
    world.cameras.push_back(lynx);
    CameraSpec webcam;
    webcam.name = L"Integrated Webcam";
    webcam.link =
        L"\\\\?\\usb#vid_0c45&pid_6a10&mi_00#6&11aa22bb&0&0000#{e5323777-f976-4f5b-9b55-"
        L"b94699c46e44}\\global";
    world.cameras.push_back(webcam);
    return world;
}

std::wstring Lower(std::wstring text) {
    for (wchar_t& c : text) c = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(c)));
    return text;
}

bool SameLink(const std::wstring& a, const std::wstring& b) {
    return Lower(a) == Lower(b);
}

std::string FormatVersion(const FirmwareVersion& v) {
    return std::to_string(v[0]) + "." + std::to_string(v[1]) + "." + std::to_string(v[2]) + "." +
           std::to_string(v[3]);
}

}  // namespace sim
