#include "softcard/firmware/card.h"

#include <csignal>
#include <unistd.h>
#include <utility>

namespace softcard {

Card::Card(std::unique_ptr<RegisterWindow> registers, std::unique_ptr<FrameSource> source,
           AtEnd at_end)
    : registers_(std::move(registers)), source_(std::move(source)), at_end_(at_end) {}

Reader Card::new_reader(int port) {
    return {.port = port, .position = ring(port).written()};
}

bool Card::have_frame() {
    if (!at_hand_ && !exhausted_) {
        at_hand_ = source_->next(frame_);
        exhausted_ = !at_hand_ && source_->exhausted();
    }
    return at_hand_;
}

void Card::deliver(int port, std::span<const uint8_t> bytes) {
    rings_[static_cast<std::size_t>(port)].write(bytes, static_cast<uint32_t>(frame_.timestamp_ns));
}

bool Card::end_is_due() {
    return at_end_ == AtEnd::kStop && exhausted_ && !at_hand_ && !std::exchange(end_told_, true);
}

void Card::tell_end() {
    kill(getpid(), SIGINT);
}

} // namespace softcard
