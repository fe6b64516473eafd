#include "tools/vorn/record/pcap_format.h"

namespace vorn_cli {

namespace {

struct FileHead {
    uint32_t magic = 0xA1B23C4D; // nanoseconds
    uint16_t major_version = 2;
    uint16_t minor_version = 4;
    uint32_t zone = 0;
    uint32_t accuracy = 0;
    uint32_t longest_frame = 65535;
    uint32_t link_type = 1; // Ethernet
};
static_assert(sizeof(FileHead) == 24);

struct RecordHead {
    uint32_t seconds;
    uint32_t nanoseconds;
    uint32_t captured;
    uint32_t length;
};
static_assert(sizeof(RecordHead) == 16);

constexpr uint64_t kSecond = 1'000'000'000;

} // namespace

std::string pcap_file_head() {
    const FileHead head;
    return {reinterpret_cast<const char*>(&head), sizeof(head)};
}

void append_pcap_record(std::string& block, uint64_t time_ns, std::span<const char> frame) {
    const auto length = static_cast<uint32_t>(frame.size());
    const RecordHead head{static_cast<uint32_t>(time_ns / kSecond),
                          static_cast<uint32_t>(time_ns % kSecond), length, length};
    block.append(reinterpret_cast<const char*>(&head), sizeof(head));
    block.append(frame.data(), frame.size());
}

} // namespace vorn_cli
