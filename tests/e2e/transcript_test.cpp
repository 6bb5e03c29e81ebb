// Runs lynx-dfu-lab over each case folder of tests/e2e/cases and compares what it printed.
//
// A case folder holds:
//   input.txt            the operator's answers, one line per prompt or pause (required)
//   world.json           the world (absent: the lab's default world)
//   expected.txt         the whole standard output, byte for byte (required)
//   expected_stderr.txt  the whole standard error (absent: must be empty)
//   exit_code            the expected exit status (absent: 0)
//   expected_state.json  fields the state dump must hold (a subset match: objects by key,
//                        arrays element by element and of equal length)
//   args                 extra arguments, one per line, instead of --world; the runner's own
//                        --dump-state is left out when they name one
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;

std::string ReadFile(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

struct RunResult {
    std::string out;
    std::string err;
    int status = -1;
};

// Runs the lab with stdin, stdout and stderr redirected to files; kills it after a bound.
RunResult RunLab(const std::vector<std::string>& args, const fs::path& input,
                 const fs::path& scratch) {
    const fs::path outPath = scratch / "stdout.txt";
    const fs::path errPath = scratch / "stderr.txt";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, input.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    std::vector<std::string> argv = {LYNX_LAB_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> raw;
    for (auto& a : argv) raw.push_back(a.data());
    raw.push_back(nullptr);
    pid_t pid = 0;
    RunResult result;
    if (posix_spawn(&pid, raw[0], &actions, nullptr, raw.data(), environ) != 0) {
        posix_spawn_file_actions_destroy(&actions);
        ADD_FAILURE() << "cannot start " << raw[0];
        return result;
    }
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            ADD_FAILURE() << "the lab did not finish within 120 s";
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    result.out = ReadFile(outPath);
    result.err = ReadFile(errPath);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

// Every field of `expected` is in `actual` with the same value.
void ExpectSubset(const nlohmann::json& expected, const nlohmann::json& actual,
                  const std::string& where) {
    if (expected.is_object()) {
        ASSERT_TRUE(actual.is_object()) << where << " is not an object: " << actual.dump();
        for (const auto& [key, value] : expected.items()) {
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

// Lets a case file name the source tree or its scratch folder, e.g. for an image path.
std::string Expand(std::string text, const fs::path& scratch) {
    const std::pair<std::string, std::string> vars[] = {{"@SOURCE_DIR@", LYNX_SOURCE_DIR},
                                                        {"@SCRATCH@", scratch.string()}};
    for (const auto& [name, value] : vars) {
        for (std::size_t at = text.find(name); at != std::string::npos;
             at = text.find(name, at + value.size())) {
            text.replace(at, name.size(), value);
        }
    }
    return text;
}

class Transcript : public testing::TestWithParam<std::string> {};

TEST_P(Transcript, MatchesExpectedOutput) {
    const fs::path dir = fs::path(LYNX_CASES_DIR) / GetParam();
    const fs::path scratch =
        fs::temp_directory_path() / ("lynx-e2e-" + GetParam() + "-" + std::to_string(getpid()));
    fs::remove_all(scratch);
    fs::create_directories(scratch);

    std::vector<std::string> args;
    if (fs::exists(dir / "args")) {
        std::istringstream lines(Expand(ReadFile(dir / "args"), scratch));
        for (std::string line; std::getline(lines, line);) {
            if (!line.empty()) args.push_back(line);
        }
    } else if (fs::exists(dir / "world.json")) {
        std::ofstream(scratch / "world.json") << Expand(ReadFile(dir / "world.json"), scratch);
        args = {"--world", (scratch / "world.json").string()};
    }
    const fs::path dump = scratch / "state.json";
    if (std::none_of(args.begin(), args.end(),
                     [](const std::string& a) { return a.starts_with("--dump-state"); })) {
        args.push_back("--dump-state");
        args.push_back(dump.string());
    }
    std::ofstream(scratch / "input.txt", std::ios::binary)
        << Expand(ReadFile(dir / "input.txt"), scratch);

    const RunResult result = RunLab(args, scratch / "input.txt", scratch);

    const int expectedStatus =
        fs::exists(dir / "exit_code") ? std::stoi(ReadFile(dir / "exit_code")) : 0;
    EXPECT_EQ(expectedStatus, result.status);
    EXPECT_EQ(Expand(ReadFile(dir / "expected.txt"), scratch), result.out);
    const std::string expectedErr = fs::exists(dir / "expected_stderr.txt")
                                        ? Expand(ReadFile(dir / "expected_stderr.txt"), scratch)
                                        : "";
    EXPECT_EQ(expectedErr, result.err);
    if (fs::exists(dir / "expected_state.json")) {
        ASSERT_TRUE(fs::exists(dump)) << "no state dump written";
        const auto expected =
            nlohmann::json::parse(Expand(ReadFile(dir / "expected_state.json"), scratch));
        ExpectSubset(expected, nlohmann::json::parse(ReadFile(dump)), "$");
    }
    if (!HasFailure()) fs::remove_all(scratch);
}

INSTANTIATE_TEST_SUITE_P(Lab, Transcript, testing::ValuesIn(CaseNames()),
                         [](const testing::TestParamInfo<std::string>& info) {
                             std::string name = info.param;
                             for (auto& ch : name) {
                                 if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
                             }
                             return name;
                         });

}  // namespace
