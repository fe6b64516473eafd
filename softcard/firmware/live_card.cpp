#include "softcard/firmware/live_card.h"

#include <utility>

namespace softcard {

namespace {

// Frames taken in by one poll, to keep it short.
constexpr int kArrivalsPerPoll = 256;

// The largest frame that a source hands over, in chunks.
constexpr uint64_t kLargestFrame =
    (65'535 + ChunkRing::kChunkPayload - 1) / ChunkRing::kChunkPayload;

} // namespace

LiveCard::LiveCard(std::unique_ptr<RegisterWindow> registers, std::unique_ptr<LiveSource> source,
                   AtEnd at_end)
    : LiveCard(std::move(registers), source.release(), at_end) {}

LiveCard::LiveCard(std::unique_ptr<RegisterWindow> registers, LiveSource* source, AtEnd at_end)
    : Card(std::move(registers), std::unique_ptr<FrameSource>(source), at_end), source_(*source) {}

Reader LiveCard::new_reader(int port) {
    const std::lock_guard lock(mutex_);
    Reader reader = Card::new_reader(port);
    reader.losses_told = source_.lost();
    read_to_[static_cast<std::size_t>(port)] = reader.position;
    return reader;
}

ssize_t LiveCard::receive(Reader& reader, char* buffer, std::size_t size, uint32_t* timestamp) {
    std::unique_lock lock(mutex_);
    const Switches switches = registers().switches();
    const bool on = switches.raw || switches.decode;
    if (on) {
        join_programmed_groups();
        take_in_arrivals(switches);
    }
    if (const uint64_t lost = source_.lost(); lost != reader.losses_told) {
        reader.losses_told = lost;
        return kStatusLapped;
    }
    const ssize_t result =
        ring(reader.port).read(reader.position, buffer, size, timestamp, &reader.timestamp_ns);
    read_to_[static_cast<std::size_t>(reader.port)] = reader.position;
    if (result == 0 && on && everything_read(switches) && end_is_due()) {
        lock.unlock();
        tell_end();
    }
    return result;
}

// The group registers are plain memory, so a store is noticed by the poll that follows it.
void LiveCard::join_programmed_groups() {
    std::array<uint32_t, std::size(kLines)> programmed{};
    for (std::size_t i = 0; i < programmed.size(); ++i) {
        programmed[i] = registers().read(kLines[i].group_word);
    }
    if (programmed != groups_) {
        groups_ = programmed;
        source_.join(groups_);
    }
}

void LiveCard::take_in_arrivals(const Switches& switches) {
    for (int taken = 0; taken < kArrivalsPerPoll; ++taken) {
        if ((switches.decode && !has_room(kDecodePort)) || (switches.raw && !has_room(kRawPort)) ||
            !have_frame()) {
            return;
        }
        const Classified classified = judge(switches);
        if (classified.path != Path::kIgnored) {
            deliver(classified.path == Path::kDecode ? kDecodePort : kRawPort,
                    classified.delivered);
        }
        drop_frame();
    }
}

bool LiveCard::has_room(int port) const {
    const uint64_t unread = ring(port).written() - read_to_[static_cast<std::size_t>(port)];
    return unread + kLargestFrame <= ChunkRing::kChunks;
}

bool LiveCard::everything_read(const Switches& switches) const {
    return (!switches.decode || read_to_[kDecodePort] == ring(kDecodePort).written()) &&
           (!switches.raw || read_to_[kRawPort] == ring(kRawPort).written());
}

} // namespace softcard
