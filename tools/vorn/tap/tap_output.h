#pragma once

// Where a tap puts what it hears.

#include "tools/vorn/data_out.h"
#include "tools/vorn/fanout/payload.h"
#include "tools/vorn/record/record_files.h"
#include "tools/vorn/tap/tap_order.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace vorn_cli {

struct Heard {
    std::string_view subject;
    std::string_view payload;
    const std::optional<Incoming>& binary; // nothing: the payload is JSON
    TapVerdict verdict = TapVerdict::kNewest;
};

// Updates, values and events as lines, for people or as JSON.
class TapLines {
public:
    explicit TapLines(bool json) : json_(json), out_(STDOUT_FILENO) {}
    void put(const Heard& heard);
    void flush() { out_.flush(); }
    void close() { out_.close(); }

private:
    const bool json_;
    DataOut out_;
};

// Updates as the recorder's rows.
class TapRows {
public:
    // Throws Failure.
    TapRows(const std::string& path, bool force);
    void put(const Incoming& incoming);
    void flush() { files_.flush(); }
    // Throws Failure when rows were lost.
    void close();
    uint64_t rows() const { return files_.records(); }

private:
    RecordFiles files_;
};

// A line for people, as in "09:30:00.500 shfe cu2603 #1234 5 x 101.0 | 102.0 x 7".
std::string heard_line(const Incoming& incoming);

} // namespace vorn_cli
