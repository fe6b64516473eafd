// Streams: rounds whole and in pieces, losses, late and early segments, at the limits.

#include "seeds.h"
#include "wirekit/mdqp.h"

#include <initializer_list>
#include <string>

namespace seeds {

using wirekit::mdqp_message;

namespace {

void put_sessions_with(uint8_t control) {
    const std::string tag = "-" + std::to_string(control);
    const auto save = [&](const std::string& name, const Script& script) {
        put("session", name + tag, script.bytes());
    };
    const auto script = [&] { return Script(control); };
    const Bytes shfe = round(1000);
    const Bytes ine = round(5000);
    const Bytes start = slice(shfe, 0, 420); // the first message and a part of the second
    const Bytes plain = mdqp_message().packet_no(2).raw(Bytes(30, 0)).bytes();
    const Bytes first =
        mdqp_message().snap(1000, 1).field(0x1002, 20, Bytes(20, 0)).packet_no(1).bytes();
    const Bytes two_topics =
        mdqp_message().snap(1000, 1).packet_no(1).snap(7, 7).snap(8, 8).bytes();

    save("both", script().add(kNext, shfe).add(kNext, ine, 1));
    save("both-4ps", script()
                         .add(kNext, round(1101))
                         .add(kNext, round(5101), 1)
                         .add(kNext, shfe)
                         .add(kNext, ine, 1));
    save("failing-book", script().add(kNext, round(1000, 100.5)).add(kNext, ine, 1));
    save("out-of-limits", script().add(kNext, round(1000, 1.0)).add(kNext, ine, 1));
    save("again", script().add(kNext, shfe).add(kNext, shfe).add(kNext, ine, 1).add(kNext, shfe));
    save("unknown-topic", script().add(kNext, round(77)).add(kNext, plain));
    save("no-start", script().add(kNext, plain).add(kNext, Bytes(60, 0x11)));
    save("short-start", script().add(kNext, slice(shfe, 0, 44)));
    Bytes zero_field = first;
    wirekit::put_le16(&zero_field[10], 0);
    save("zero-field", script().add(kNext, zero_field));
    save("two-topics", script().add(kNext, two_topics).add(kNext, plain));
    // Whole, cut in pieces, byte by byte.
    for (const std::size_t piece : {1, 7, 45, 100, 333}) {
        Script pieces(control);
        pieces.add(kNext, slice(shfe, 0, 60));
        for (std::size_t at = 60; at < shfe.size(); at += piece) {
            pieces.add(kNext, slice(shfe, at, at + piece));
        }
        pieces.add(kNext, ine, 1);
        save("pieces-" + std::to_string(piece), pieces);
    }
    // Early segments: before, equal, behind, between; then the gap closes.
    save("early",
         script().add(kNext, first).add(kEarly, plain).add(kFill, plain).add(kNext, plain));
    save("early-unfilled", script()
                               .add(kNext, first)
                               .add(kEarly, plain)
                               .add(kNext, plain)
                               .add(kNext, plain)
                               .add(kAgain, plain));
    Script order(control);
    order.add(kNext, first);
    for (const uint32_t seq : {5000U, 3000U, 4000U, 4000U, 4500U, 5000U, 6000U, 3000U, 2500U}) {
        order.shaped(kNumber, static_cast<uint16_t>(plain.size()), number(seq) + plain);
    }
    const auto next = static_cast<uint32_t>(1000 + first.size());
    order.shaped(kNumber, static_cast<uint16_t>(plain.size()), number(next) + plain);
    for (int i = 0; i < 40; ++i) {
        order.add(kNext, plain);
    }
    save("order", order);
    save("stale-held",
         script().add(kNext, first).add(kEarly, plain).add(kFill, plain + plain).add(kNext, plain));
    save("held-pieces", script()
                            .add(kNext, first)
                            .add(kEarly, slice(plain, 0, 20))
                            .add(kNext, slice(plain, 20))
                            .add(kFill, Bytes(plain) + slice(plain, 0, 0))
                            .add(kFill, slice(plain, 0, 20)));
    save("held-bad-header", script()
                                .add(kNext, first)
                                .add(kEarly, Bytes(plain.size(), 9))
                                .add(kFill, plain)
                                .add(kNext, plain));
    const Bytes half = slice(plain, 0, 21);
    const Bytes rest = slice(plain, 21, 42);
    save("held-joins",
         script().add(kNext, first).add(kEarly, rest).add(kFill, half).add(kNext, plain));
    save("held-joins-then-waits", script()
                                      .add(kNext, first + slice(plain, 0, 4))
                                      .add(kEarly, slice(plain, 8, 12))
                                      .add(kFill, slice(plain, 4, 8))
                                      .add(kNext, slice(plain, 12)));
    save("held-joined-bad", script()
                                .add(kNext, first)
                                .add(kEarly, Bytes(5, 9))
                                .add(kFill, Bytes{0x11, 0x32, 1, 9, 0})
                                .add(kNext, plain));
    save("one-byte-then-bad",
         script().add(kNext, first + Bytes{0x11}).add(kNext, Bytes{0x99, 1}).add(kNext, plain));
    save("one-byte-held-bad", script()
                                  .add(kNext, first + Bytes{0x11})
                                  .add(kEarly, Bytes{0x98})
                                  .add(kFill, Bytes{0x99})
                                  .add(kNext, plain));
    save("bad-header", script().add(kNext, first).add(kNext, Bytes(30, 9)).add(kNext, plain));
    save("other-host", script().add(kNext, first).add(kNext, plain, 0, 0x80));
    save("old", script().add(kNext, first).add(kBack, plain).add(kAgain, plain).add(kSame, {}));
    save("reset",
         script().add(kNext, start).add(kEarly, plain).add(kNext, plain, 0, 0x40).add(kNext, shfe));
    save("fin", script().add(kNext, start).add(kNext, slice(shfe, 420), 0, 0x60));
    save("other-server", script().add(kNext, start).add(kInterrupt, slice(shfe, 420)));
    save("wrap",
         script()
             .shaped(kNumber, static_cast<uint16_t>(first.size()), number(0xFFFFFFF0U) + first)
             .add(kNext, plain)
             .add(kEarly, plain)
             .add(kFill, plain)
             .add(kNext, plain));
    save("500-held", script()
                         .add(kNext, first)
                         .add(kEarly, plain)
                         .shaped(kNext, 1 | 0x4000 | 7 << 11, {1})
                         .shaped(kNext, 1 | 0x4000 | 7 << 11, {1})
                         .shaped(kNext, 1 | 0x4000 | 7 << 11, {1})
                         .shaped(kNext, 1 | 0x4000 | 7 << 11, {1})
                         .shaped(kNext, 1 | 0x4000 | 7 << 11, {1}));
    Bytes huge = mdqp_message().packet_no(1).length(0xFFFF).bytes();
    save("too-long", script()
                         .add(kNext, first)
                         .add(kNext, huge)
                         .shaped(kNext, 0x8000 | 1900 | 0x4000 | 3 << 11, {})
                         .add(kNext, shfe));
    Bytes large = mdqp_message().packet_no(1).length(30000).bytes();
    save("long", script()
                     .add(kNext, first)
                     .add(kNext, large)
                     .shaped(kNext, 0x8000 | 1900 | 0x4000 | 1 << 11, {})
                     .add(kNext, plain));
    save("left-over", script()
                          .add(kNext, first)
                          .add(kEarly, plain)
                          .add(kFill, mdqp_message(wirekit::kFlagLast).packet_no(1).bytes())
                          .add(kNext, first)
                          .add(kNext, plain));
}

} // namespace

void put_sessions() {
    for (const uint8_t control :
         std::initializer_list<uint8_t>{0x00, 0x01, 0x08, 0x30, 0x31, 0x40, 0x71, 0x80, 0xB1}) {
        put_sessions_with(control);
    }
}

} // namespace seeds
