#pragma once

#include "softcard/firmware/step_card.h"

#include "support.h"

namespace softcard::test {

inline Bytes payload_of(uint32_t change_no) {
    return decode_payload(1, change_no);
}
inline Bytes change(uint32_t change_no) {
    return shfe_change(1, change_no);
}

// A card on a script, with lines programmed, everything switched on and a reader on each port.
struct Rig {
    explicit Rig(std::vector<Bytes> frames, AtEnd at_end = AtEnd::kIdle)
        : window(new_window()), registers(window->program_view()),
          card(std::move(window), std::make_unique<ScriptSource>(std::move(frames)), at_end),
          decode(card.new_reader(0)), raw(card.new_reader(1)) {
        program_lines(registers);
        switch_on(registers);
    }

    Bytes poll_decode() { return poll(card, decode); }
    Bytes poll_raw() { return poll(card, raw); }

    std::unique_ptr<RegisterWindow> window;
    volatile uint32_t* registers;
    StepCard card;
    Reader decode;
    Reader raw;
};

} // namespace softcard::test
