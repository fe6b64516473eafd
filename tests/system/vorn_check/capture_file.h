#pragma once

#include "wirekit/bytes.h"

#include <cstdint>
#include <string>

struct pcap;
struct pcap_dumper;

namespace vorn_check {

// A capture of Ethernet frames, a microsecond apart.
class CaptureFile {
public:
    explicit CaptureFile(const std::string& path);
    ~CaptureFile();
    CaptureFile(const CaptureFile&) = delete;
    CaptureFile& operator=(const CaptureFile&) = delete;

    void add(const wirekit::Bytes& frame);

private:
    pcap* capture_;
    pcap_dumper* dumper_;
    uint32_t frames_ = 0;
};

} // namespace vorn_check
