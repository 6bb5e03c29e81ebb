// SPDX-License-Identifier: Apache-2.0
#include "app/version.h"

std::string ProjectVersion() {
    return LYNX_VERSION;
}

std::string VersionText(std::string_view program) {
    return std::string(program) + " " LYNX_VERSION
                                  "\n"
                                  "Copyright 2026 the lynx-dfu maintainers\n"
                                  "Licensed under the Apache License, Version 2.0 (Apache-2.0)\n";
}
