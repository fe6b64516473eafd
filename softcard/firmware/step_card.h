#pragma once

// The card in step mode: the source moves as its readers do. See step_card.cpp.

#include "softcard/firmware/card.h"
#include "softcard/firmware/round_tracker.h"
#include "softcard/firmware/worker_watch.h"

#include <atomic>

namespace softcard {

class StepCard final : public Card {
public:
    StepCard(std::unique_ptr<RegisterWindow> registers, std::unique_ptr<FrameSource> source,
             AtEnd at_end);

    Reader new_reader(int port) override;
    ssize_t receive(Reader& reader, char* buffer, std::size_t size, uint32_t* timestamp) override;

private:
    // What can be answered without the lock, for as long as the registers stay as they are.
    enum class Standing : uint64_t {
        kAsk = 0,    // nothing: take the lock
        kNextDecode, // the next frame is for the decode path: nothing on the raw path
        kNextRaw,    // the next frame is for the raw path: nothing on the decode path
        kHeld,       // a round may have ended: nothing on the decode path
        kSilent,     // nothing on either path
    };

    bool answers_nothing(int port) const;
    void publish(Standing standing, const Switches& switches);
    uint64_t stamp(const Switches& switches) const;
    void note_switches(const Switches& switches);
    // Puts the port's next frame into its ring if it is this port's turn.
    void advance(int port);
    bool held_back(int port, const Switches& switches);
    void hand_out(const Classified& classified);

    std::atomic<uint64_t> standing_{0}; // a Standing, and above it the stamp it holds for

    // Under the lock.
    RoundTracker tracker_;
    WorkerWatch watch_;
    bool raw_was_on_ = false;
    bool held_ = false;
    uint64_t decoded_while_raw_ = 0; // buffers handed out on the decode path while raw was on
    uint64_t drain_answers_ = 0;     // polls of the decode path still to be answered with nothing
    bool end_due_ = false;
};

} // namespace softcard
