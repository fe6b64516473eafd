#pragma once

// Rows as a Parquet file, written by DuckDB. Parquet is written by columns and in large groups, so
// the rows go into an .npy file beside it first, which DuckDB then reads in one pass.

#include "tools/vorn/convert/row_sink.h"

#include <memory>

namespace vorn_cli {

// Throws Failure when DuckDB's library is not found, before anything is written.
std::unique_ptr<RowSink> open_parquet_sink(const SinkOptions& options);

} // namespace vorn_cli
