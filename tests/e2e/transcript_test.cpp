// SPDX-License-Identifier: Apache-2.0
// Runs lynx-dfu-lab over each case folder of tests/e2e/cases and compares what it printed.
// A case folder holds input.txt (the operator's answers, one line per prompt or pause) and
// expected.txt (the whole standard output, byte for byte); it may hold world.json (absent:
// the lab's default world), expected_stderr.txt (absent: must be empty), exit_code (absent:
// 0), expected_state.json (fields the state dump must hold: objects by key, arrays element
// by element and of equal length; a field given as "@ABSENT@" must be missing),
// expected_report.json (the same for a command's --json report on standard output, in place
// of expected.txt) and args (extra arguments, one per line, after the world's --world; the
// runner's own --dump-state is left out when they name one), and fifo (a named pipe at
// @SCRATCH@/fifo). Any of them may name the source tree as @SOURCE_DIR@ and the case's
// scratch folder as @SCRATCH@.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

std::string ReadFile(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string Quoted(const std::string& text) {
    std::string out = "'";
    for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// Every field of `expected` is in `actual` with the same value; one given as "@ABSENT@" is not.
void ExpectSubset(const nlohmann::json& expected, const nlohmann::json& actual,
                  const std::string& where) {
    if (expected.is_object()) {
        ASSERT_TRUE(actual.is_object()) << where << " is not an object: " << actual.dump();
        for (const auto& [key, value] : expected.items()) {
            if (value == "@ABSENT@") {
                EXPECT_FALSE(actual.contains(key)) << where << "." << key << " is present";
                continue;
            }
            ASSERT_TRUE(actual.contains(key))
                << where << "." << key << " is missing in " << actual.dump();
            ExpectSubset(value, actual[key], where + "." + key);
        }
    } else if (expected.is_array()) {
        ASSERT_TRUE(actual.is_array()) << where << " is not an array: " << actual.dump();
        ASSERT_EQ(expected.size(), actual.size()) << where << ": " << actual.dump();
        for (std::size_t i = 0; i < expected.size(); ++i) {
            ExpectSubset(expected[i], actual[i], where + "[" + std::to_string(i) + "]");
        }
    } else {
        EXPECT_EQ(expected, actual) << where;
    }
}

std::vector<std::string> CaseNames() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(LYNX_CASES_DIR)) {
        if (entry.is_directory()) names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

class Transcript : public testing::TestWithParam<std::string> {};

TEST_P(Transcript, MatchesExpectedOutput) {
    const fs::path dir = fs::path(LYNX_CASES_DIR) / GetParam();
    const fs::path scratch =
        fs::temp_directory_path() / ("lynx-e2e-" + GetParam() + "-" + std::to_string(getpid()));
    fs::remove_all(scratch);
    fs::create_directories(scratch);
    // The case file's text with the source tree and scratch folder filled in ("" if absent).
    const auto read = [&](const char* name) {
        std::string text = ReadFile(dir / name);
        for (const auto& [var, value] :
             {std::pair<std::string, std::string>{"@SOURCE_DIR@", LYNX_SOURCE_DIR},
              {"@SCRATCH@", scratch.string()}}) {
            for (auto at = text.find(var); at != std::string::npos;
                 at = text.find(var, at + value.size()))
                text.replace(at, var.size(), value);
        }
        return text;
    };

    // A case's `fifo` asks for a named pipe at @SCRATCH@/fifo, which nothing ever writes.
    if (fs::exists(dir / "fifo")) ASSERT_EQ(0, mkfifo((scratch / "fifo").c_str(), 0600));
    // The world, the runner's state dump, then the case's own arguments (a command's last).
    std::vector<std::string> extra, args;
    std::istringstream lines(read("args"));
    for (std::string line; std::getline(lines, line);)
        if (!line.empty()) extra.push_back(line);
    if (fs::exists(dir / "world.json")) {
        std::ofstream(scratch / "world.json") << read("world.json");
        args = {"--world", (scratch / "world.json").string()};
    }
    const fs::path dump = scratch / "state.json";
    if (std::none_of(extra.begin(), extra.end(),
                     [](const std::string& a) { return a.starts_with("--dump-state"); })) {
        args.insert(args.end(), {"--dump-state", dump.string()});
    }
    args.insert(args.end(), extra.begin(), extra.end());
    std::ofstream(scratch / "input.txt", std::ios::binary) << read("input.txt");

    // Killed after a bound, so that a hang fails the case instead of the whole suite.
    std::string command = "timeout -s KILL 120 " + Quoted(LYNX_LAB_BINARY);
    for (const auto& arg : args) command += " " + Quoted(arg);
    command += " <" + Quoted((scratch / "input.txt").string()) + " >" +
               Quoted((scratch / "stdout.txt").string()) + " 2>" +
               Quoted((scratch / "stderr.txt").string());
    const int status = std::system(command.c_str());

    const std::string expectedStatus = read("exit_code");
    EXPECT_EQ(expectedStatus.empty() ? 0 : std::stoi(expectedStatus),
              WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    if (fs::exists(dir / "expected_report.json")) {
        // A command's --json report: its timings vary, so its fields are compared, not its
        // bytes.
        const auto report = nlohmann::json::parse(ReadFile(scratch / "stdout.txt"), nullptr, false);
        ASSERT_FALSE(report.is_discarded())
            << "stdout is no JSON: " << ReadFile(scratch / "stdout.txt");
        ExpectSubset(nlohmann::json::parse(read("expected_report.json")), report, "report");
    } else {
        EXPECT_EQ(read("expected.txt"), ReadFile(scratch / "stdout.txt"));
    }
    EXPECT_EQ(read("expected_stderr.txt"), ReadFile(scratch / "stderr.txt"));
    if (fs::exists(dir / "expected_state.json")) {
        ASSERT_TRUE(fs::exists(dump)) << "no state dump written";
        ExpectSubset(nlohmann::json::parse(read("expected_state.json")),
                     nlohmann::json::parse(ReadFile(dump)), "$");
    }
    if (!HasFailure()) fs::remove_all(scratch);
}

// Folder names are test names: lower case, digits and underscores only.
INSTANTIATE_TEST_SUITE_P(Lab, Transcript, testing::ValuesIn(CaseNames()),
                         [](const auto& info) { return info.param; });

}  // namespace
