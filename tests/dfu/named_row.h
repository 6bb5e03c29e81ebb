// SPDX-License-Identifier: Apache-2.0
// GoogleTest prints a table row by its name instead of a dump of its bytes: declared in the
// including file's unnamed namespace, where argument-dependent lookup finds it for its rows.
#pragma once

#include <ostream>

namespace {

template <class Row>
    requires requires(const Row& row) { row.name; }
void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

}  // namespace
