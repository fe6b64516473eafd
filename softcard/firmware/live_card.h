#pragma once

// The card on a live network: frames arrive when they arrive.
//
// Each poll takes in what the source holds, judged by the registers as they are at that moment.
// While a ring has no room for the reader that was last in use on it, nothing is taken in: what
// comes meanwhile waits in the source's buffer, which is much larger than the ring. So frames are
// lost in one place only, the source, which counts them; each reader is then told once, with the
// answer that a lapped reader gets, and goes on with what was kept.

#include "softcard/firmware/card.h"
#include "softcard/sources/live_source.h"

#include <array>

namespace softcard {

class LiveCard final : public Card {
public:
    LiveCard(std::unique_ptr<RegisterWindow> registers, std::unique_ptr<LiveSource> source,
             AtEnd at_end);

    Reader new_reader(int port) override;
    ssize_t receive(Reader& reader, char* buffer, std::size_t size, uint32_t* timestamp) override;

private:
    LiveCard(std::unique_ptr<RegisterWindow> registers, LiveSource* source, AtEnd at_end);

    void join_programmed_groups();
    void take_in_arrivals(const Switches& switches);
    bool has_room(int port) const;
    bool everything_read(const Switches& switches) const;

    LiveSource& source_; // owned by the base

    // Under the lock.
    std::array<uint32_t, std::size(kLines)> groups_{}; // joined, as programmed
    std::array<uint64_t, 2> read_to_{}; // per port: position of the reader that was last in use
};

} // namespace softcard
