#include "softcard/sources/interface_source.h"

#include "softcard/sources/network_interface.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <pcap/pcap.h>
#include <utility>

namespace softcard {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

// Frames larger than the feed takes are for the feed to refuse.
constexpr int kSnapshotLength = 65'535;
constexpr char kFilter[] = "ip and (tcp or udp)";
// Asking for the losses costs system calls.
constexpr auto kLossesEvery = milliseconds(50);
// A stretch between two polls counts as idle up to this long, so that a process that was stopped,
// or got no processor, does not take that for silence on the line.
constexpr nanoseconds kLongestIdleStep = milliseconds(10);
constexpr uint32_t kFrameOverhead = 14 + 4 + 4; // header, VLAN tag, checksum

struct ClosePcap {
    void operator()(pcap_t* capture) const { pcap_close(capture); }
};
using Capture = std::unique_ptr<pcap_t, ClosePcap>;

void warn(const std::string& text) {
    std::fprintf(stderr, "softcard: %s\n", text.c_str());
}

class InterfaceSource final : public LiveSource {
public:
    InterfaceSource(Capture capture, const InterfaceOptions& options)
        : capture_(std::move(capture)), name_(options.interface),
          idle_limit_(static_cast<int64_t>(options.idle_seconds * 1e9)),
          largest_frame_(interface_mtu(name_) + kFrameOverhead),
          nanoseconds_(pcap_get_tstamp_precision(capture_.get()) == PCAP_TSTAMP_PRECISION_NANO) {}

    bool next(SourceFrame& frame) override {
        pcap_pkthdr* header = nullptr;
        const u_char* bytes = nullptr;
        const int status = pcap_next_ex(capture_.get(), &header, &bytes);
        if (status != 1) {
            if (status < 0 && !std::exchange(broken_, true)) {
                warn("capture on " + name_ + " has ended: " + pcap_geterr(capture_.get()));
            }
            note_silence();
            return false;
        }
        silence_ = nanoseconds(0);
        any_ = true;
        if (header->len > largest_frame_ && !std::exchange(size_told_, true)) {
            warn("a frame of " + std::to_string(header->len) + " bytes on " + name_ +
                 " exceeds its MTU: the offloads of the sender or of this interface are on; " +
                 offloads_off_command(name_));
        }
        const auto fraction = static_cast<uint64_t>(header->ts.tv_usec);
        const uint64_t timestamp_ns = static_cast<uint64_t>(header->ts.tv_sec) * 1'000'000'000 +
                                      (nanoseconds_ ? fraction : fraction * 1000);
        latest_ns_ = std::max(latest_ns_, timestamp_ns); // the system's clock may be set back
        frame.timestamp_ns = latest_ns_;
        frame.bytes = {bytes, header->caplen};
        return true;
    }

    bool exhausted() const override {
        return broken_ || (idle_limit_.count() > 0 && silence_ >= idle_limit_);
    }

    uint64_t lost() override {
        const auto now = Clock::now();
        if (now >= losses_due_) {
            losses_due_ = now + kLossesEvery;
            pcap_stat stat{};
            if (pcap_stats(capture_.get(), &stat) == 0) {
                lost_ = std::max(lost_, uint64_t{stat.ps_drop} + stat.ps_ifdrop);
            }
        }
        return lost_;
    }

    void join(std::span<const uint32_t> groups) override {
        const std::string trouble = memberships_.set(name_, groups);
        if (!trouble.empty()) {
            warn(trouble);
        }
    }

private:
    void note_silence() {
        const auto now = Clock::now();
        if (any_) {
            silence_ += std::min<nanoseconds>(now - last_silent_, kLongestIdleStep);
        }
        last_silent_ = now;
    }

    const Capture capture_;
    const std::string name_;
    const nanoseconds idle_limit_;
    const uint32_t largest_frame_;
    const bool nanoseconds_;
    Memberships memberships_;
    uint64_t latest_ns_ = 0;
    uint64_t lost_ = 0;
    Clock::time_point losses_due_{};
    Clock::time_point last_silent_ = Clock::now();
    nanoseconds silence_{};
    bool any_ = false;
    bool broken_ = false; // the interface has gone
    bool size_told_ = false;
};

std::string refusal(const InterfaceOptions& options, pcap_t* capture, int status) {
    if (status == PCAP_ERROR_PERM_DENIED || status == PCAP_ERROR_PROMISC_PERM_DENIED) {
        return "capturing on " + options.interface +
               " needs the privilege CAP_NET_RAW: run as root, or setcap cap_net_raw+ep PROGRAM";
    }
    const std::string detail = pcap_geterr(capture);
    return "cannot capture on " + options.interface + ": " + pcap_statustostr(status) +
           (detail.empty() ? "" : " (" + detail + ")");
}

Capture activate(const InterfaceOptions& options, std::string& error) {
    char reason[PCAP_ERRBUF_SIZE] = "";
    Capture capture(pcap_create(options.interface.c_str(), reason));
    if (capture == nullptr) {
        error = "cannot capture on " + options.interface + ": " + reason;
        return nullptr;
    }
    pcap_set_snaplen(capture.get(), kSnapshotLength);
    pcap_set_promisc(capture.get(), 1);
    pcap_set_immediate_mode(capture.get(), 1);
    pcap_set_buffer_size(capture.get(), static_cast<int>(options.buffer_bytes));
    pcap_set_tstamp_precision(capture.get(), PCAP_TSTAMP_PRECISION_NANO); // else microseconds
    const int status = pcap_activate(capture.get());
    if (status < 0) {
        error = refusal(options, capture.get(), status);
        return nullptr;
    }
    bpf_program program{};
    const bool ready =
        pcap_compile(capture.get(), &program, kFilter, 1, PCAP_NETMASK_UNKNOWN) == 0 &&
        pcap_setfilter(capture.get(), &program) == 0 &&
        pcap_setnonblock(capture.get(), 1, reason) == 0;
    pcap_freecode(&program);
    if (!ready) {
        error = "cannot capture on " + options.interface + ": " + pcap_geterr(capture.get());
        return nullptr;
    }
    return capture;
}

} // namespace

std::unique_ptr<LiveSource> open_interface_source(const InterfaceOptions& options,
                                                  std::string& error) {
    error = interface_trouble(options.interface);
    if (!error.empty()) {
        return nullptr;
    }
    Capture capture = activate(options, error);
    if (capture == nullptr) {
        return nullptr;
    }
    if (pcap_datalink(capture.get()) != DLT_EN10MB) {
        error = "interface " + options.interface + " carries no Ethernet frames";
        return nullptr;
    }
    std::string on;
    for (const std::string& offload : harmful_offloads(options.interface)) {
        on += (on.empty() ? "" : ", ") + offload;
    }
    if (!on.empty()) {
        warn(options.interface + " has " + on +
             " on, which joins frames beyond the MTU or leaves checksums open, and the feed "
             "refuses such frames; " +
             offloads_off_command(options.interface));
    }
    return std::make_unique<InterfaceSource>(std::move(capture), options);
}

} // namespace softcard
