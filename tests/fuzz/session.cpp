// Lists of TCP segments into the snapshot channel.
//
// Several sessions, in order, early, late, twice, with and without losses. The target keeps the
// sequence numbers and makes the checksums right, so that an input says what happens and not how it
// is spelled.
//
// Byte 0: the rig's control. Then for each segment: a byte (bits 0 and 1 the local port, 2 to 4 the
// place in the stream, see Place, 5 and 6 the flags, 7 from another host), a 16-bit number (bits 0
// to 10 the payload's size, 11 to 13 how often more the segment follows itself, 14 sixteen times as
// often, 15 the payload is all zeros and not in the input) and the payload.

#include "support/fuzz_input.h"
#include "support/snapshot_rig.h"
#include "wirekit/ethernet.h"

#include <array>
#include <vector>

namespace {

constexpr std::size_t kMaxPayload = RECV_BUF_SIZE - 54;
constexpr std::size_t kMaxFrames = 1200;
constexpr std::size_t kFewFrames = 8; // of an input whose turn for more has not come
constexpr uint32_t kFirstSequence = 1000;
constexpr uint32_t kExchange = 0x0A010101;
constexpr uint32_t kLocal = 0x0A010102;
constexpr uint8_t kFlags[] = {wirekit::kTcpAck, wirekit::kTcpAck | wirekit::kTcpPsh,
                              wirekit::kTcpRst | wirekit::kTcpAck, wirekit::kTcpFin};

enum class Place : uint8_t {
    kNext,      // in order
    kEarly,     // behind a gap as large as the segment, which stays open
    kFill,      // at the start of the last gap
    kAgain,     // where the last segment was
    kBack,      // one byte before the next
    kNumber,    // 32 bits of the input, and the stream goes on from there
    kSame,      // the last frame once more, with nothing of this one
    kInterrupt, // in order, on the port of another server
};

struct Stream {
    uint32_t next = kFirstSequence;
    uint32_t last = kFirstSequence;
    uint32_t gap = kFirstSequence;
};

class Script {
public:
    explicit Script(fuzz::Input input) : input_(input) {}

    void run() {
        rig_.begin(input_.u8());
        while (input_.left() > 0 && may_go_on()) {
            segment();
        }
        rig_.end();
    }

private:
    bool may_go_on() {
        if (frames_ == kFewFrames && limit_ == kFewFrames && fuzz::long_input_is_due()) {
            limit_ = kMaxFrames;
        }
        return frames_ < limit_;
    }

    void segment() {
        const uint8_t kind = input_.u8();
        const uint16_t shape = input_.u16();
        const std::size_t size = std::min<std::size_t>(shape & 0x7FFU, kMaxPayload);
        const uint32_t more = (shape >> 11 & 7U) * ((shape & 0x4000) != 0 ? 16 : 1);
        const auto place = static_cast<Place>(kind >> 2 & 7);
        Stream& stream = streams_[kind & 3U];
        if (place == Place::kNumber) {
            stream.next = input_.u32();
        }
        static const std::array<uint8_t, kMaxPayload> zeros{};
        const auto payload =
            (shape & 0x8000) != 0 ? std::span(zeros).first(size) : input_.take(size);
        for (uint32_t i = 0; i <= more && may_go_on(); ++i, ++frames_) {
            put(kind, place, stream, payload);
        }
    }

    void put(uint8_t kind, Place place, Stream& stream, std::span<const uint8_t> payload) {
        if (place != Place::kSame) {
            const uint32_t seq = sequence(place, stream, static_cast<uint32_t>(payload.size()));
            const uint16_t from = place == Place::kInterrupt ? fuzz::kMd4psPort : fuzz::kMd2psPort;
            const uint16_t to = static_cast<uint16_t>(50001 + (kind & 3));
            wirekit::write_tcp_frame(frame_, {kExchange + (kind >> 7), from}, {kLocal, to}, 0, seq,
                                     1, kFlags[kind >> 5 & 3], payload);
        }
        rig_.frame(frame_);
    }

    static uint32_t sequence(Place place, Stream& stream, uint32_t size) {
        uint32_t seq = stream.next;
        switch (place) {
        case Place::kEarly:
            stream.gap = stream.next;
            seq = stream.next + size;
            stream.next = seq + size;
            break;
        case Place::kFill:
            seq = stream.gap;
            stream.gap += size;
            break;
        case Place::kAgain:
            seq = stream.last;
            break;
        case Place::kBack:
            seq = stream.next - 1;
            break;
        default:
            stream.next += size;
            break;
        }
        stream.last = seq;
        return seq;
    }

    fuzz::Input input_;
    fuzz::SnapshotRig& rig_ = fuzz::SnapshotRig::instance();
    std::array<Stream, 4> streams_{};
    std::size_t frames_ = 0;
    std::size_t limit_ = kFewFrames;
    static std::vector<uint8_t> frame_;
};

std::vector<uint8_t> Script::frame_;

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    Script(fuzz::Input(data, size)).run();
    return 0;
}

int LLVMFuzzerInitialize(int*, char***) {
    fuzz::SnapshotRig::instance();
    return 0;
}
