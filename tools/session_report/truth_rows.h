#pragma once

// The exchange's books as the recorder writes them.

#include "exchange_sim/truth.h"

#include <string>

namespace session_report {

// A row of the recorder for this record, without the line feed.
std::string csv_row(const exchange_sim::ExpectedRecord& record);

// The five levels of both sides of a row as a price ladder, under the instrument's figures.
std::string ladder(const std::string& row);

// Name of the first column in which two rows differ, "column: recorded ..., exchange ...".
std::string first_difference(const std::string& recorded, const std::string& expected);

} // namespace session_report
