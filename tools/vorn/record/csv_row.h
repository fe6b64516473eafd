#pragma once

// The recorder's CSV: its header and a record as one of its rows, byte for byte.

#include "ExanicMdTypes.h"

#include <string>
#include <string_view>

namespace vorn_cli {

std::string_view csv_header(); // with its line feed

// Appends the record's row with its line feed.
void append_csv_row(std::string& block, const instrument& record);

} // namespace vorn_cli
