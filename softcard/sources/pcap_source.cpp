#include "softcard/sources/pcap_source.h"

#include <algorithm>
#include <pcap/pcap.h>

namespace softcard {

namespace {

struct ClosePcap {
    void operator()(pcap_t* capture) const { pcap_close(capture); }
};
using Capture = std::unique_ptr<pcap_t, ClosePcap>;

class PcapSource final : public FrameSource {
public:
    explicit PcapSource(Capture capture) : capture_(std::move(capture)) {}

    bool next(SourceFrame& frame) override {
        if (capture_ == nullptr) {
            return false;
        }
        pcap_pkthdr* header = nullptr;
        const u_char* bytes = nullptr;
        if (pcap_next_ex(capture_.get(), &header, &bytes) != 1) {
            capture_.reset();
            return false;
        }
        // Merged captures may step back; the card's clock does not. Opened with nanosecond
        // precision, so tv_usec holds nanoseconds.
        const uint64_t timestamp_ns = static_cast<uint64_t>(header->ts.tv_sec) * 1'000'000'000 +
                                      static_cast<uint64_t>(header->ts.tv_usec);
        latest_ns_ = std::max(latest_ns_, timestamp_ns);
        frame.timestamp_ns = latest_ns_;
        frame.bytes = {bytes, header->caplen};
        return true;
    }

private:
    Capture capture_;
    uint64_t latest_ns_ = 0;
};

} // namespace

std::unique_ptr<FrameSource> open_pcap_source(const std::string& path, std::string& error) {
    char reason[PCAP_ERRBUF_SIZE] = "";
    Capture capture(
        pcap_open_offline_with_tstamp_precision(path.c_str(), PCAP_TSTAMP_PRECISION_NANO, reason));
    if (capture == nullptr) {
        error = "cannot read capture " + path + ": " + reason;
        return nullptr;
    }
    const int link_type = pcap_datalink(capture.get());
    if (link_type != DLT_EN10MB) {
        const char* const name = pcap_datalink_val_to_name(link_type);
        error = "capture " + path + " is of link type " +
                (name != nullptr ? std::string(name) : std::to_string(link_type)) +
                "; it must be Ethernet (EN10MB)";
        return nullptr;
    }
    return std::make_unique<PcapSource>(std::move(capture));
}

} // namespace softcard
