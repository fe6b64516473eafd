#include "tools/vorn/capture/capture_reader.h"

#include "tools/vorn/exit_code.h"
#include "wirekit/bytes.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <pcap/pcap.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vorn_cli {

namespace {

constexpr uint64_t kSecond = 1'000'000'000;
constexpr uint32_t kMagicMicro = 0xA1B2C3D4;
constexpr uint32_t kMagicNano = 0xA1B23C4D;
constexpr uint32_t kSectionHeader = 0x0A0D0D0A; // first block of a pcapng file
constexpr uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr uint32_t kInterfaceBlock = 1;
constexpr std::size_t kInterfaceOptionsAt = 16; // in its block
constexpr uint16_t kOptionResolution = 9;       // negative power of ten, or of two with bit 7 set
constexpr uint8_t kMicro = 6;
constexpr uint8_t kNano = 9;

// The begin of the file, read beside libpcap, which scales all stamps and tells nothing of it.
class Head {
public:
    explicit Head(int descriptor) {
        const ssize_t got = ::pread(descriptor, bytes_.data(), bytes_.size(), 0);
        size_ = got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    bool big_endian = false;

    bool has(std::size_t at, std::size_t size) const { return at <= size_ && size <= size_ - at; }
    // 0 behind the end.
    uint32_t u32(std::size_t at) const {
        return !has(at, 4)  ? 0
               : big_endian ? wirekit::get_be32(&bytes_[at])
                            : wirekit::get_le32(&bytes_[at]);
    }
    uint16_t u16(std::size_t at) const {
        return !has(at, 2)  ? 0
               : big_endian ? wirekit::get_be16(&bytes_[at])
                            : wirekit::get_le16(&bytes_[at]);
    }
    uint8_t u8(std::size_t at) const { return has(at, 1) ? bytes_[at] : 0; }

private:
    std::array<uint8_t, 4096> bytes_{};
    std::size_t size_ = 0;
};

std::string interface_resolution(const Head& head, std::size_t block) {
    const std::size_t end = block + head.u32(block + 4);
    for (std::size_t at = block + kInterfaceOptionsAt; at + 4 < end && head.has(at, 4);) {
        const uint16_t option = head.u16(at);
        const std::size_t size = head.u16(at + 2);
        if (option == 0) {
            break;
        }
        if (option == kOptionResolution) {
            const uint8_t power = head.u8(at + 4);
            return power == kNano ? "ns" : power == kMicro ? "us" : "other";
        }
        at += 4 + (size + 3) / 4 * 4;
    }
    return "us";
}

void sniff(Head& head, CaptureFormat& format) {
    for (const bool big_endian : {false, true}) {
        head.big_endian = format.big_endian = big_endian;
        const uint32_t magic = head.u32(0);
        if (magic == kMagicMicro || magic == kMagicNano) {
            format.name = "pcap";
            format.resolution = magic == kMagicNano ? "ns" : "us";
            return;
        }
        if (magic == kSectionHeader && head.u32(8) == kByteOrderMagic) {
            format.name = "pcapng";
            format.resolution = "other";
            const std::size_t second = head.u32(4);
            if (head.u32(second) == kInterfaceBlock) {
                format.resolution = interface_resolution(head, second);
            }
            return;
        }
    }
    format.name = "pcap";
    format.resolution = "other";
    format.big_endian = false;
}

struct ClosePcap {
    void operator()(pcap_t* capture) const { pcap_close(capture); }
};

} // namespace

struct CaptureReader::Handle {
    std::unique_ptr<pcap_t, ClosePcap> capture;
};

CaptureReader::CaptureReader(const std::string& path) : handle_(std::make_unique<Handle>()) {
    std::FILE* const file = std::fopen(path.c_str(), "rbe");
    if (file == nullptr) {
        throw Failure(kFailed, fmt::format("{}: cannot be opened: {}", path, std::strerror(errno)));
    }
    struct stat status = {};
    if (::fstat(::fileno(file), &status) == 0 && S_ISREG(status.st_mode)) {
        format_.bytes = static_cast<uint64_t>(status.st_size);
    }
    Head head(::fileno(file));
    sniff(head, format_);
    char reason[PCAP_ERRBUF_SIZE] = "";
    handle_->capture.reset(
        pcap_fopen_offline_with_tstamp_precision(file, PCAP_TSTAMP_PRECISION_NANO, reason));
    if (handle_->capture == nullptr) {
        std::fclose(file);
        throw Failure(kFailed, fmt::format("{}: cannot be read as a capture: {}", path, reason));
    }
    const int link_type = pcap_datalink(handle_->capture.get());
    if (link_type != DLT_EN10MB) {
        const char* const name = pcap_datalink_val_to_name(link_type);
        throw Failure(kFailed,
                      fmt::format("{}: is not a capture of Ethernet, but of link type {}", path,
                                  name != nullptr ? name : std::to_string(link_type).c_str()));
    }
    format_.snaplen = static_cast<uint32_t>(std::max(pcap_snapshot(handle_->capture.get()), 0));
}

CaptureReader::~CaptureReader() = default;

bool CaptureReader::next(CaptureFrame& frame) {
    pcap_t* const capture = handle_->capture.get();
    pcap_pkthdr* header = nullptr;
    const u_char* bytes = nullptr;
    const int result = pcap_next_ex(capture, &header, &bytes);
    if (result != 1) {
        if (result != PCAP_ERROR_BREAK) {
            damage_ = pcap_geterr(capture);
        }
        return false;
    }
    // A stamp can say anything; what no clock shows is taken as the nearest that one can.
    constexpr int64_t kLastSecond = 9'000'000'000; // below 2^64 in nanoseconds
    const auto seconds = std::clamp<int64_t>(header->ts.tv_sec, 0, kLastSecond);
    const auto nanoseconds = std::clamp<int64_t>(header->ts.tv_usec, 0, kSecond - 1);
    frame.timestamp_ns =
        static_cast<uint64_t>(seconds) * kSecond + static_cast<uint64_t>(nanoseconds);
    frame.bytes = {bytes, header->caplen};
    frame.length = header->len;
    return true;
}

} // namespace vorn_cli
