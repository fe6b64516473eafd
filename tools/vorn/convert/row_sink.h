#pragma once

// Where rows go: a file of one of the formats.

#include "tools/vorn/convert/research_row.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vorn_cli {

enum class RowFormat : uint8_t { kNpy, kCsv, kParquet };
const char* row_format_name(RowFormat format); // "npy", "csv", "parquet"
// ".npy", ".csv", ".parquet"
const std::vector<std::string>& row_format_suffixes();
// By the suffix of `output`, or by `name` when that is not empty. Throws Failure(kUsage).
RowFormat choose_row_format(const std::string& output, const std::string& name);

class RowSink {
public:
    RowSink() = default;
    RowSink(const RowSink&) = delete;
    RowSink& operator=(const RowSink&) = delete;
    virtual ~RowSink() = default; // without finish() nothing stays behind

    // Throws Failure, as everything here, when it cannot be written.
    virtual void put(const ResearchRow& row) = 0;
    // What was put so far is safe from kill -9, where the format can do that.
    virtual void flush() = 0;
    // Everything is written and the file gets its name.
    virtual void finish() = 0;
    // Ends without finish() but leaves what cannot be had a second time. Returns where it is, or
    // nothing when the format keeps nothing.
    virtual std::string leave() = 0;
    virtual uint64_t bytes() const = 0; // of the finished file; 0 on standard output
};

struct SinkOptions {
    std::string output; // empty or "-": standard output, for kCsv alone
    RowFormat format = RowFormat::kNpy;
    bool force = false;
    std::string duckdb; // path of DuckDB's library; empty: where it is usually found
};

// Throws Failure when the file cannot be made, or Parquet cannot be written here.
std::unique_ptr<RowSink> open_row_sink(const SinkOptions& options);

// The rows of the recorder's CSV, without the header.
void append_research_csv_row(std::string& block, const ResearchRow& row);

} // namespace vorn_cli
