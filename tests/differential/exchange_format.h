#pragma once

// What runner and driver exchange: scenarios one way, traces the other. Little-endian, packed.
//
// A scenario and a trace are each a 32-bit size and as many bytes. A trace is a row of items: a
// tag, a 32-bit size, the bytes. The runner writes the same items from its model and compares.

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace differential {

using Bytes = std::vector<uint8_t>;

class Reader {
public:
    Reader(const uint8_t* data, std::size_t size) : at_(data), end_(data + size) {}

    template <typename Value>
    Value get() {
        Value value;
        std::memcpy(&value, take(sizeof value), sizeof value);
        return value;
    }
    Bytes bytes() { // a size and as many bytes
        const auto size = get<uint32_t>();
        const uint8_t* data = take(size);
        return Bytes(data, data + size);
    }
    std::string text() {
        const Bytes data = bytes();
        return std::string(data.begin(), data.end());
    }
    const uint8_t* take(std::size_t size) {
        if (static_cast<std::size_t>(end_ - at_) < size) {
            throw std::runtime_error("the scenario ends too early");
        }
        const uint8_t* data = at_;
        at_ += size;
        return data;
    }

private:
    const uint8_t* at_;
    const uint8_t* end_;
};

class Trace {
public:
    template <typename... Values>
    void item(char tag, const Values&... values) {
        begin(tag);
        (put(values), ...);
        end();
    }
    void begin(char tag) {
        put(tag);
        put(uint32_t{0});
        start_ = data_.size();
    }
    void end() {
        const auto size = static_cast<uint32_t>(data_.size() - start_);
        std::memcpy(data_.data() + start_ - sizeof size, &size, sizeof size);
    }
    template <typename Value>
    void put(const Value& value) {
        append(&value, sizeof value);
    }
    void append(const void* data, std::size_t size) {
        const auto* from = static_cast<const uint8_t*>(data);
        data_.insert(data_.end(), from, from + size);
    }
    const Bytes& data() const { return data_; }

private:
    Bytes data_;
    std::size_t start_ = 0;
};

} // namespace differential
