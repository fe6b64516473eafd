#pragma once

// One card: its register window, the rings of its two receive ports, and the source of its frames.
// How frames get from the source into the rings is what the kinds of card differ in: StepCard
// (step_card.h), PacedCard (paced_card.h) and LiveCard (live_card.h).
//
// No card has a thread of its own: all work is done by whoever polls, under the card's lock.

#include "softcard/firmware/classifier.h"
#include "softcard/registers/register_window.h"
#include "softcard/rx/chunk_ring.h"
#include "softcard/sources/frame_source.h"

#include <array>
#include <memory>
#include <mutex>

namespace softcard {

// What a card does once its source is exhausted and all of it was delivered.
enum class AtEnd {
    kIdle, // stays silent
    kStop, // sends the process one SIGINT, then stays silent
};

class Card {
public:
    virtual ~Card() = default;
    Card(const Card&) = delete;
    Card& operator=(const Card&) = delete;

    const RegisterWindow& registers() const { return *registers_; }

    // A reader that starts at "now". Ports other than 0 and 1 are the caller's mistake.
    virtual Reader new_reader(int port);

    // One poll. Two readers may be polled by two threads at a time, one reader by one.
    virtual ssize_t receive(Reader& reader, char* buffer, std::size_t size,
                            uint32_t* timestamp) = 0;

protected:
    Card(std::unique_ptr<RegisterWindow> registers, std::unique_ptr<FrameSource> source,
         AtEnd at_end);

    // Under the lock, all of them.
    // Makes the source's next frame the one at hand unless there is one; false: there is none
    // (now).
    bool have_frame();
    const SourceFrame& frame() const { return frame_; }
    void drop_frame() { at_hand_ = false; }
    Classified judge(const Switches& switches) const {
        return classify(frame_.bytes, switches, *registers_);
    }
    void deliver(int port, std::span<const uint8_t> bytes);
    // Whether the frame at hand tells that its readers were lapped. The first call for a frame lets
    // every path that is on know.
    bool note_lapped(const Switches& switches);
    // Whether the reader is to be told now that it was lapped; it then stands at "now".
    bool tell_lapped(Reader& reader);
    const ChunkRing& ring(int port) const { return rings_[static_cast<std::size_t>(port)]; }

    // Whether the end is to be told now, which happens once. Whoever gets true lets go of the lock
    // and calls tell_end().
    bool end_is_due();
    static void tell_end();

    std::mutex mutex_;

private:
    const std::unique_ptr<RegisterWindow> registers_;
    const std::unique_ptr<FrameSource> source_;
    const AtEnd at_end_;
    std::array<ChunkRing, 2> rings_;
    std::array<bool, 2> lapped_{}; // per port: its reader has yet to be told
    SourceFrame frame_;
    bool at_hand_ = false;
    bool exhausted_ = false;
    bool end_told_ = false;
};

} // namespace softcard
