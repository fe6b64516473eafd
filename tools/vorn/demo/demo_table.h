#pragma once

// The last record of every instrument, as the callbacks left it, to be held against the exchange's.

#include "ExanicMdTypes.h"
#include "exchange_sim/session.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vorn_cli {

struct TableComparison {
    uint64_t equal = 0;
    uint64_t different = 0;         // with those that had no update
    std::vector<std::string> shown; // the first ten differences, a line each
};

class DemoTable {
public:
    DemoTable();

    void update(const instrument& record, uint32_t slot);

    uint64_t updates() const { return updates_; }
    std::size_t instruments() const;
    // The instrument with the most updates: how many, and its record as a row of the recorder
    // without line feed; 0 and empty without any.
    uint64_t busiest_updates() const;
    std::string busiest_row() const;

    // Byte for byte. The session is over: its closing sweep has restated every record.
    TableComparison compare(const exchange_sim::Session& session) const;

private:
    std::size_t busiest() const;

    std::vector<instrument> records_; // by slot
    std::vector<uint64_t> counts_;
    uint64_t updates_ = 0;
};

} // namespace vorn_cli
