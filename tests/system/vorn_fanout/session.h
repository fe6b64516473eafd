#pragma once

// A simulated session as the feed makes updates of it, and buses that show it.

#include "bus/bus_writer.h"
#include "tests/support/temp_dir.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace vorn_fanout {

struct Update {
    uint32_t slot = 0;
    uint32_t unused = 0;
    instrument record{};
};
using Updates = std::vector<Update>;

// All updates of a replay of `changes` changes in which only these multicast lines are heard ("a",
// "b", "both"), in their order. The same for the same arguments.
Updates replay_session(int changes, int instruments, const std::string& lines);

// Instrument and change number.
using Change = std::pair<std::string, uint32_t>;
std::string inst_id_of(const instrument& record);
std::vector<Change> changes_of(const Updates& updates);
// Of each instrument, in their order.
std::map<std::string, std::vector<uint32_t>> by_instrument(const std::vector<Change>& changes);
// The newest record of each.
std::map<std::string, instrument> newest_of(const Updates& updates);

// A bus with a live feed that shows updates when it is told to.
class SessionBus {
public:
    explicit SessionBus(const std::string& path, uint64_t ring = 32768);

    const std::string& path() const { return path_; }
    vorn_bus::BusWriter& writer() { return *writer_; }
    void show(const Updates& updates, std::size_t first, std::size_t last);
    void show(const Updates& updates) { show(updates, 0, updates.size()); }
    void close() { writer_.reset(); }

private:
    std::string path_;
    std::unique_ptr<vorn_bus::BusWriter> writer_;
};

} // namespace vorn_fanout
