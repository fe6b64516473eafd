#include "capture_file.h"

#include <pcap/pcap.h>
#include <stdexcept>

namespace vorn_check {

namespace {

constexpr int kSnapLength = 65535;
constexpr uint32_t kFirstSecond = 1768438800; // 2026-01-15 09:00 at the exchange

} // namespace

CaptureFile::CaptureFile(const std::string& path)
    : capture_(pcap_open_dead(DLT_EN10MB, kSnapLength)),
      dumper_(pcap_dump_open(capture_, path.c_str())) {
    if (dumper_ == nullptr) {
        const std::string reason = pcap_geterr(capture_);
        pcap_close(capture_);
        throw std::runtime_error(reason);
    }
}

CaptureFile::~CaptureFile() {
    pcap_dump_close(dumper_);
    pcap_close(capture_);
}

void CaptureFile::add(const wirekit::Bytes& frame) {
    pcap_pkthdr header{};
    header.ts.tv_sec = kFirstSecond + frames_ / 1000000;
    header.ts.tv_usec = frames_ % 1000000;
    header.caplen = header.len = static_cast<bpf_u_int32>(frame.size());
    pcap_dump(reinterpret_cast<u_char*>(dumper_), &header, frame.data());
    ++frames_;
}

} // namespace vorn_check
