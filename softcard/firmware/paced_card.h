#pragma once

// The card in paced mode: frames arrive at the times that the source states, a given number of
// times as fast, whether anyone reads or not. A reader that is too slow loses frames.
//
// Time runs from the first poll that finds a path switched on. Each poll takes in what has arrived
// since, judged by the registers as they are at that moment.

#include "softcard/firmware/card.h"

#include <chrono>

namespace softcard {

class PacedCard final : public Card {
public:
    // `speed` is greater than 0; 1 is as fast as the source's time stamps.
    PacedCard(std::unique_ptr<RegisterWindow> registers, std::unique_ptr<FrameSource> source,
              AtEnd at_end, double speed);

    Reader new_reader(int port) override;
    ssize_t receive(Reader& reader, char* buffer, std::size_t size, uint32_t* timestamp) override;

private:
    void take_in_arrivals(const Switches& switches);
    bool everything_read(const Switches& switches) const;

    const double speed_;

    // Under the lock.
    bool started_ = false;
    bool first_frame_seen_ = false;
    std::chrono::steady_clock::time_point start_{};
    uint64_t first_timestamp_ns_ = 0;
    std::array<uint64_t, 2> read_to_{}; // per port: position of the reader that was last in use
};

} // namespace softcard
