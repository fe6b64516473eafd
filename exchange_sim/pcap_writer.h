#pragma once

// A session as a capture file: classic pcap, Ethernet, time stamps in nanoseconds.

#include "exchange_sim/session.h"

#include <functional>
#include <string>

namespace exchange_sim {

struct WriteResult {
    std::string error; // empty: the file is whole and stands at its path
    uint64_t frames = 0;
    uint64_t bytes = 0; // of the frames, without the file's headers
    SessionCounters counters;
    bool ok() const { return error.empty(); }
};

// What a caller may want to do while a session is written. Any may be empty.
struct WriteHooks {
    std::function<void(Session&)> begin; // before the first frame
    // Takes the session's frames and gives those to write in their place; as Session::next.
    std::function<bool(Session&, WireFrame&)> next;
    std::function<bool(const WireFrame&)> frame; // after each frame; false gives up
};

// Writes to `path`.part and renames once all is on disk, so that a file at `path` is always a whole
// one. On an error the part is removed.
WriteResult write_session(const std::string& path, const SessionOptions& options,
                          const WriteHooks& hooks = {});

} // namespace exchange_sim
