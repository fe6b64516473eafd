#include "softcard/firmware/paced_card.h"

#include <utility>

namespace softcard {

namespace {

// Frames taken in by one poll. A poll stays short, and a reader that fell behind still gets lapped:
// it takes out one frame for up to this many that come in.
constexpr int kArrivalsPerPoll = 256;

} // namespace

PacedCard::PacedCard(std::unique_ptr<RegisterWindow> registers, std::unique_ptr<FrameSource> source,
                     AtEnd at_end, double speed)
    : Card(std::move(registers), std::move(source), at_end), speed_(speed) {}

Reader PacedCard::new_reader(int port) {
    const std::lock_guard lock(mutex_);
    const Reader reader = Card::new_reader(port);
    read_to_[static_cast<std::size_t>(port)] = reader.position;
    return reader;
}

ssize_t PacedCard::receive(Reader& reader, char* buffer, std::size_t size, uint32_t* timestamp) {
    std::unique_lock lock(mutex_);
    const Switches switches = registers().switches();
    take_in_arrivals(switches);
    const ssize_t result = tell_lapped(reader) ? kStatusLapped
                                               : ring(reader.port)
                                                     .read(reader.position, buffer, size, timestamp,
                                                           &reader.timestamp_ns);
    read_to_[static_cast<std::size_t>(reader.port)] = reader.position;
    if (result == 0 && (switches.raw || switches.decode) && everything_read(switches) &&
        end_is_due()) {
        lock.unlock();
        tell_end();
    }
    return result;
}

void PacedCard::take_in_arrivals(const Switches& switches) {
    const auto now = std::chrono::steady_clock::now();
    if (!started_) {
        if (!switches.raw && !switches.decode) {
            return;
        }
        started_ = true;
        start_ = now;
    }
    const double source_ns =
        std::chrono::duration<double, std::nano>(now - start_).count() * speed_;
    for (int taken = 0; taken < kArrivalsPerPoll && have_frame(); ++taken) {
        if (!std::exchange(first_frame_seen_, true)) {
            first_timestamp_ns_ = frame().timestamp_ns;
        }
        if (static_cast<double>(frame().timestamp_ns - first_timestamp_ns_) > source_ns) {
            return;
        }
        note_lapped(switches);
        const Classified classified = judge(switches);
        if (classified.path != Path::kIgnored) {
            deliver(classified.path == Path::kDecode ? kDecodePort : kRawPort,
                    classified.delivered);
        }
        drop_frame();
    }
}

bool PacedCard::everything_read(const Switches& switches) const {
    return (!switches.decode || read_to_[kDecodePort] == ring(kDecodePort).written()) &&
           (!switches.raw || read_to_[kRawPort] == ring(kRawPort).written());
}

} // namespace softcard
