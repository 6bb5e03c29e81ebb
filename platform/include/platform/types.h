// SPDX-License-Identifier: Apache-2.0
// The platform's basic vocabulary: integer types, handles, GUIDs and status codes.
// On Windows these are the system's own; elsewhere the posix/ declarations stand in.
#pragma once

#ifdef _WIN32
#include <windows.h>
#else
#include "platform/posix/win_types.h"
#endif

#include <cstdint>

namespace platform {

// Result-code form of a platform error number: codes above 0 get the Win32 facility,
// 0 and below pass through unchanged.
constexpr HRESULT HResultFromError(std::int64_t error) {
    if (error <= 0) return static_cast<HRESULT>(error);
    return static_cast<HRESULT>(0x80070000u | (static_cast<std::uint32_t>(error) & 0xFFFFu));
}

}  // namespace platform
