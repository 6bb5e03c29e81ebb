// SPDX-License-Identifier: Apache-2.0
// The JSON document a command for scripts leaves: what it was asked, and per device what it
// found and did. The fields are a stable interface (docs/commands.md); add, never rename.
#pragma once

#include <optional>
#include <string>
#include <vector>

// Bumped only when a field changes meaning or goes away.
constexpr int kReportVersion = 1;

struct DeviceReport {
    std::string kind;  // "camera" or "dfu"
    std::string link;
    std::string name;
    std::optional<std::string> firmwareBefore;
    std::optional<std::string> firmwareAfter;
    // The link the camera came back under, where it differs from `link`.
    std::optional<std::string> linkAfter;
    // "listed", "updated", "recovered", "failed" or "not started" (an interrupt came first).
    std::string result;
    std::optional<std::string> failure;  // the line that says why it failed
    std::optional<long> hresult;
    unsigned long long milliseconds = 0;  // reported in seconds
    // DFU-mode devices the update burned; more than one means devices other than this
    // camera took the image too.
    std::vector<std::string> dfuDevicesBurned;
};

struct Report {
    std::string program;  // "lynx-dfu 0.1.0"
    std::string command;
    std::optional<std::string> image;
    std::optional<std::string> expectVersion;
    std::vector<DeviceReport> devices;
    int exitStatus = 0;
};

// The document, indented, ending in a line end.
std::string ReportJson(const Report& report);
