// SPDX-License-Identifier: Apache-2.0
// What --version prints, the same for every program of the project.
#pragma once

#include <string>
#include <string_view>

// The project's version, "A.B.C".
std::string ProjectVersion();

// The program's name and the project's version on the first line, then its copyright and
// licence.
std::string VersionText(std::string_view program);
