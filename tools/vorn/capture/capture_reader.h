#pragma once

// A capture file, frame by frame, in one pass. pcap of either byte order, with stamps in micro- or
// nanoseconds, and pcapng, of Ethernet.

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace vorn_cli {

struct CaptureFrame {
    uint64_t timestamp_ns = 0;      // since the Unix epoch
    std::span<const uint8_t> bytes; // as far as captured; valid until the next call of next()
    uint32_t length = 0;            // of the frame on the wire
};

struct CaptureFormat {
    std::string name;       // "pcap" or "pcapng"
    std::string resolution; // of the stamps: "ns", "us", or "other" (pcapng has many)
    bool big_endian = false;
    uint32_t snaplen = 0; // bytes kept of a frame at most
    uint64_t bytes = 0;   // of the file; 0 when it is a pipe
};

class CaptureReader {
public:
    // Throws Failure when the file cannot be read as a capture, or is none of Ethernet.
    explicit CaptureReader(const std::string& path);
    ~CaptureReader();
    CaptureReader(const CaptureReader&) = delete;
    CaptureReader& operator=(const CaptureReader&) = delete;

    // False at the end, also at one that is damaged.
    bool next(CaptureFrame& frame);

    const CaptureFormat& format() const { return format_; }
    // What is wrong with the end of the file, once next() has returned false; empty if nothing is.
    const std::string& damage() const { return damage_; }

private:
    struct Handle;
    std::unique_ptr<Handle> handle_;
    CaptureFormat format_;
    std::string damage_;
};

} // namespace vorn_cli
