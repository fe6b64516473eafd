// Step mode: nothing is lost and nothing depends on timing.
//
// Frames are pulled one at a time, and a frame leaves only when the reader of its path polls. The
// frame for the other path waits, and everything behind it waits too, so that both paths together
// see the source's order on every run, however loaded the machine is.
//
// That alone would not be enough, because the feed decodes raw frames on a worker thread, some time
// after they were handed out, and because it switches from caching decode buffers to applying them
// on the worker's word. Two things would depend on timing: how many decode buffers it has cached by
// then, and whether its replay ever ends, since it takes one buffer in for each that it takes out.
//
// - At the end of a snapshot round (RoundTracker knows) both paths are held: nothing comes until
//   the raw path is switched off, which is what the feed does when it is satisfied, or until it is
//   certain that it wants another round (WorkerWatch knows). So the buffers cached are those that
//   stand before the end of the round in the source.
// - Once the raw path is off, the decode path has nothing for as many polls as it had buffers while
//   raw was on. That lets the replay run dry: the first new buffer goes to the live loop.
//
// Frames that no switch lets through are dropped as the source moves past them; with both paths off
// or the firmware in reset the source does not move at all, so that a feed that restarts goes on
// where it stopped.

#include "softcard/firmware/step_card.h"

#include <utility>

namespace softcard {

namespace {

// Frames dropped in one poll before it returns: keeps a poll short in a capture full of other
// traffic. The next poll goes on.
constexpr int kDropsPerPoll = 4096;

constexpr unsigned kStandingBits = 3;
constexpr unsigned kSwitchBits = 5;

} // namespace

StepCard::StepCard(std::unique_ptr<RegisterWindow> registers, std::unique_ptr<FrameSource> source,
                   AtEnd at_end)
    : Card(std::move(registers), std::move(source), at_end) {}

// A program that opens its buffers anew has the switches off, perhaps without having polled since
// it switched them; noticed here, so that its next snapshot starts from nothing.
Reader StepCard::new_reader(int port) {
    const std::lock_guard lock(mutex_);
    note_switches(registers().switches());
    return Card::new_reader(port);
}

ssize_t StepCard::receive(Reader& reader, char* buffer, std::size_t size, uint32_t* timestamp) {
    if (reader.position == ring(reader.port).written() && answers_nothing(reader.port)) {
        return 0;
    }
    std::unique_lock lock(mutex_);
    if (tell_lapped(reader)) {
        return kStatusLapped;
    }
    if (reader.position == ring(reader.port).written()) {
        advance(reader.port);
        if (tell_lapped(reader)) { // it met the mark and delivered nothing
            return kStatusLapped;
        }
    }
    const ssize_t result =
        ring(reader.port).read(reader.position, buffer, size, timestamp, &reader.timestamp_ns);
    if (std::exchange(end_due_, false)) {
        lock.unlock();
        tell_end();
    }
    return result;
}

uint64_t StepCard::stamp(const Switches& switches) const {
    return static_cast<uint64_t>(registers().filter_generation()) << kSwitchBits | switches.bits();
}

void StepCard::publish(Standing standing, const Switches& switches) {
    standing_.store(stamp(switches) << kStandingBits | static_cast<uint64_t>(standing),
                    std::memory_order_release);
}

bool StepCard::answers_nothing(int port) const {
    const uint64_t published = standing_.load(std::memory_order_acquire);
    const auto standing = static_cast<Standing>(published & ((1u << kStandingBits) - 1));
    const bool nothing =
        standing == Standing::kSilent ||
        (port == kDecodePort ? standing == Standing::kNextRaw || standing == Standing::kHeld
                             : standing == Standing::kNextDecode);
    return nothing && published >> kStandingBits == stamp(registers().switches());
}

void StepCard::note_switches(const Switches& switches) {
    if (switches.raw && !raw_was_on_) {
        tracker_.reset();
        decoded_while_raw_ = 0;
        drain_answers_ = 0;
    } else if (!switches.raw && raw_was_on_) {
        drain_answers_ = decoded_while_raw_;
    }
    held_ = held_ && switches.raw;
    raw_was_on_ = switches.raw;
}

void StepCard::advance(int port) {
    const Switches switches = registers().switches();
    note_switches(switches);
    publish(Standing::kAsk, switches);
    if (switches.reset || (!switches.raw && !switches.decode)) {
        publish(Standing::kSilent, switches);
        return;
    }
    if (port == kDecodePort ? !switches.decode : !switches.raw) {
        return; // nothing can come on this path; the other one's reader moves the source
    }
    if (held_back(port, switches)) {
        return;
    }
    for (int dropped = 0; dropped < kDropsPerPoll; ++dropped) {
        if (!have_frame()) {
            end_due_ = end_is_due();
            publish(Standing::kSilent, switches);
            return;
        }
        if (note_lapped(switches)) {
            return; // first the readers hear of what they lost
        }
        const Classified classified = judge(switches);
        if (classified.path == Path::kIgnored) {
            drop_frame();
            continue;
        }
        const int its_port = classified.path == Path::kDecode ? kDecodePort : kRawPort;
        if (its_port == port) {
            hand_out(classified);
        } else {
            publish(its_port == kDecodePort ? Standing::kNextDecode : Standing::kNextRaw, switches);
        }
        return;
    }
}

// Whether the poll is to be answered with nothing, for the sake of the end of a round.
bool StepCard::held_back(int port, const Switches& switches) {
    if (held_) {
        if (port == kDecodePort || !watch_.wants_more()) {
            publish(Standing::kHeld, switches);
            return true;
        }
        held_ = false;
    }
    if (drain_answers_ > 0 && port == kDecodePort) {
        --drain_answers_;
        return true;
    }
    return false;
}

void StepCard::hand_out(const Classified& classified) {
    if (classified.path == Path::kDecode) {
        deliver(kDecodePort, classified.delivered);
        decoded_while_raw_ += raw_was_on_ ? 1 : 0;
    } else {
        deliver(kRawPort, classified.delivered);
        held_ = tracker_.see(classified.delivered);
        if (held_) {
            watch_.begin();
        }
    }
    drop_frame();
}

} // namespace softcard
