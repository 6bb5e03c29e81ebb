// SPDX-License-Identifier: Apache-2.0
#include "app/report.h"

#include <cstdio>

namespace {

// A JSON string: the bytes as they are (UTF-8), with quotes, backslashes and control
// characters escaped.
std::string Quoted(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

template <class T>
std::string OrNull(const std::optional<T>& value);

template <>
std::string OrNull(const std::optional<std::string>& value) {
    return value ? Quoted(*value) : "null";
}

template <>
std::string OrNull(const std::optional<long>& value) {
    if (!value) return "null";
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%08lX", static_cast<unsigned long>(*value) & 0xFFFFFFFFUL);
    return Quoted(hex);
}

}  // namespace

std::string ReportJson(const Report& report) {
    std::string out = "{\n";
    out += "  \"version\": " + std::to_string(kReportVersion) + ",\n";
    out += "  \"program\": " + Quoted(report.program) + ",\n";
    out += "  \"command\": " + Quoted(report.command) + ",\n";
    out += "  \"image\": " + OrNull(report.image) + ",\n";
    out += "  \"expectVersion\": " + OrNull(report.expectVersion) + ",\n";
    out += "  \"exitStatus\": " + std::to_string(report.exitStatus) + ",\n";
    out += "  \"devices\": [";
    const char* separator = "\n";
    for (const auto& device : report.devices) {
        // Whole digits, not printf's %f, whose decimal point is the locale's.
        char seconds[32];
        std::snprintf(seconds, sizeof seconds, "%llu.%03llu", device.milliseconds / 1000,
                      device.milliseconds % 1000);
        std::string burned = "[";
        for (std::size_t i = 0; i < device.dfuDevicesBurned.size(); ++i) {
            burned += (i ? ", " : "") + Quoted(device.dfuDevicesBurned[i]);
        }
        burned += "]";
        out += separator;
        out += "    {\"kind\": " + Quoted(device.kind) + ", \"link\": " + Quoted(device.link) +
               ", \"name\": " + Quoted(device.name) +
               ",\n     \"firmwareBefore\": " + OrNull(device.firmwareBefore) +
               ", \"firmwareAfter\": " + OrNull(device.firmwareAfter) +
               ", \"linkAfter\": " + OrNull(device.linkAfter) +
               ",\n     \"result\": " + Quoted(device.result) +
               ", \"failure\": " + OrNull(device.failure) +
               ", \"hresult\": " + OrNull(device.hresult) + ", \"seconds\": " + seconds +
               ",\n     \"dfuDevicesBurned\": " + burned + "}";
        separator = ",\n";
    }
    out += report.devices.empty() ? "]\n" : "\n  ]\n";
    return out + "}\n";
}
