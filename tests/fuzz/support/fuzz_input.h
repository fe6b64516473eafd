#pragma once

// What every fuzz target is made of: the entry that libFuzzer and the replay driver call, a reader
// that cuts an input into pieces, and REQUIRE for what must hold beyond "no crash".

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace fuzz {

// Says what does not hold, and ends the process by SIGABRT.
[[noreturn]] void fail(const char* condition, const char* file, int line);

// Checks that are too slow for every input: always when a corpus is replayed, now and then while
// fuzzing.
bool deep_check_is_due();
// The same for calls that an input may ask for and for which there is a faster stand-in. The first
// input of a process that asks for them gets them.
bool real_call_is_due();
// The same for lines of the log: formatting them is most of the time of an input that asks for
// them.
bool logging_is_due();
// The same for what an input asks for beyond the first few steps.
bool long_input_is_due();
void always_check_deeply();

// Compares and searches whole records as plain words: every input does it, and what a sanitizer
// would look at here is the driver's own.
bool is_same(const void* left, const void* right, std::size_t words);

// Everything may be taken from an empty input too: numbers are then 0.
class Input {
public:
    Input(const uint8_t* data, std::size_t size) : rest_(data, size) {}

    std::size_t left() const { return rest_.size(); }
    std::span<const uint8_t> take(std::size_t size) {
        const auto taken = rest_.first(std::min(size, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }
    std::span<const uint8_t> take_all() { return take(rest_.size()); }
    uint8_t u8() { return number<uint8_t>(); }
    uint16_t u16() { return number<uint16_t>(); }
    uint32_t u32() { return number<uint32_t>(); }

private:
    template <typename Number>
    Number number() {
        Number value = 0;
        const auto bytes = take(sizeof value);
        if (!bytes.empty()) {
            std::memcpy(&value, bytes.data(), bytes.size());
        }
        return value;
    }

    std::span<const uint8_t> rest_;
};

} // namespace fuzz

#define REQUIRE(condition)                                                                         \
    ((condition) ? static_cast<void>(0) : ::fuzz::fail(#condition, __FILE__, __LINE__))
