#pragma once

// What the seeds of the fuzz targets are written with.

#include "wirekit/bytes.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace seeds {

using wirekit::Bytes;

// Writes one input of a target; ends the process when that fails. The folder is set once, first.
void set_folder(const std::string& folder);
std::string folder_of(const std::string& target);
void put(const std::string& target, const std::string& name, const Bytes& bytes);

Bytes bytes_of(const std::string& text);
Bytes file_bytes(const std::string& path);
Bytes operator+(Bytes left, const Bytes& right);
Bytes slice(const Bytes& bytes, std::size_t from, std::size_t to = SIZE_MAX);
Bytes number(uint32_t value); // little-endian

// A snapshot round of a feed in three messages, of which the second has the book of one instrument.
Bytes round(int16_t topic, double second_bid = 99.5);

// Entries as the target "decode" reads them: with a byte for the size and with two.
Bytes entry(uint8_t kind, const Bytes& fields);
Bytes raw_entry(uint8_t kind, const Bytes& buffer);

// Segments as the target "session" reads them.
enum Place : uint8_t { kNext, kEarly, kFill, kAgain, kBack, kNumber, kSame, kInterrupt };
class Script {
public:
    explicit Script(uint8_t control) : bytes_{control} {}
    Script& add(Place place, const Bytes& payload, uint8_t port = 0, uint8_t flags = 0);
    Script& shaped(Place place, uint16_t shape, const Bytes& behind, uint8_t port = 0,
                   uint8_t flags = 0);
    const Bytes& bytes() const { return bytes_; }

private:
    Bytes bytes_;
};

void put_frames();
void put_sessions();
void put_messages();
void put_buffers();
void put_cache_runs();
void put_files();   // configuration, log, captures
void put_session(); // of the simulated exchange, for several targets

} // namespace seeds
