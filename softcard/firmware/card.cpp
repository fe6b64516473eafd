#include "softcard/firmware/card.h"

#include <csignal>
#include <unistd.h>
#include <utility>

namespace softcard {

Card::Card(std::unique_ptr<RegisterWindow> registers, std::unique_ptr<FrameSource> source,
           AtEnd at_end)
    : registers_(std::move(registers)), source_(std::move(source)), at_end_(at_end) {}

Reader Card::new_reader(int port) {
    lapped_[static_cast<std::size_t>(port)] = false; // it was another reader that lost frames
    return {.port = port, .position = ring(port).written()};
}

bool Card::have_frame() {
    if (!at_hand_ && !exhausted_) {
        frame_.reader_lapped = false;
        at_hand_ = source_->next(frame_);
        exhausted_ = !at_hand_ && source_->exhausted();
    }
    return at_hand_;
}

void Card::deliver(int port, std::span<const uint8_t> bytes) {
    rings_[static_cast<std::size_t>(port)].write(bytes, frame_.timestamp_ns);
}

bool Card::note_lapped(const Switches& switches) {
    if (!std::exchange(frame_.reader_lapped, false)) {
        return false;
    }
    lapped_[kDecodePort] = lapped_[kDecodePort] || switches.decode;
    lapped_[kRawPort] = lapped_[kRawPort] || switches.raw;
    return true;
}

bool Card::tell_lapped(Reader& reader) {
    if (!std::exchange(lapped_[static_cast<std::size_t>(reader.port)], false)) {
        return false;
    }
    reader.position = ring(reader.port).written();
    return true;
}

bool Card::end_is_due() {
    return at_end_ == AtEnd::kStop && exhausted_ && !at_hand_ && !std::exchange(end_told_, true);
}

void Card::tell_end() {
    kill(getpid(), SIGINT);
}

} // namespace softcard
