// Decode buffers into the incremental channel: sequences, live or through the cache.
//
// The table is small and the target writes the headers, so that an input gets past the checks of
// topic, instrument and change number as often as it wants to.
//
// Byte 0: the rig's control. Then for each buffer: a byte (bits 0 to 3 the instrument, of which 12
// and above stand for whole buffers as they are, 4 and 5 the change number: expected, a gap, stale,
// 32 bits of the input; 6 through the cache, 7 not incremental), the number of bytes, and these:
// the fields, or the whole buffer with a 16-bit number of bytes.

#include "support/fuzz_input.h"
#include "support/incremental_rig.h"
#include "wirekit/bytes.h"

#include <algorithm>
#include <array>

namespace {

constexpr std::size_t kMaxBuffers = 16;

constexpr std::size_t kHeader = 24;

std::span<const uint8_t> with_header(fuzz::Input& input, uint8_t kind, std::size_t index) {
    using fuzz::IncrementalRig;
    static std::array<uint8_t, kHeader + 255> buffer{};
    const uint32_t last = IncrementalRig::instance().record(index).change_no;
    const uint32_t change_no[] = {last + 1, last + 2, last, 0};
    const unsigned which = kind >> 4 & 3;
    wirekit::put_le16(&buffer[0],
                      IncrementalRig::is_ine(index) ? fuzz::kIneTopic : fuzz::kShfeTopic);
    wirekit::put_le16(&buffer[2], 500);
    wirekit::put_le32(&buffer[4], 93000);
    wirekit::put_le32(&buffer[8], 17);
    wirekit::put_le16(&buffer[12], (kind & 128) != 0 ? 4 : 3);
    wirekit::put_le32(&buffer[14], IncrementalRig::number(index));
    wirekit::put_le32(&buffer[18], which == 3 ? input.u32() : change_no[which]);
    const auto fields = input.take(input.u8());
    std::copy(fields.begin(), fields.end(), buffer.begin() + kHeader);
    return std::span(buffer).first(kHeader + fields.size());
}

void put(fuzz::IncrementalRig& rig, fuzz::Input& input) {
    const uint8_t kind = input.u8();
    const std::size_t index = kind & 15U;
    const auto bytes = index < fuzz::kSeededCount ? with_header(input, kind, index)
                                                  : input.take(input.u16() & 0xFFFU);
    if ((kind & 64) == 0) {
        rig.live(bytes);
        return;
    }
    CacheBufInfo& cached = rig.cached();
    cached.piOffset = cached.ciOffset = cached.cachedCount = 0;
    rig.arrive(bytes);
    rig.cache();
    REQUIRE(cached.cachedCount == (bytes.size() >= 24 && bytes.size() <= RECV_BUF_SIZE ? 1 : 0));
    if (cached.cachedCount == 1) {
        rig.replay(bytes);
        REQUIRE(cached.ciOffset == cached.piOffset && cached.cachedCount == 0);
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::IncrementalRig& rig = fuzz::IncrementalRig::instance();
    fuzz::Input input(data, size);
    rig.begin(input.u8());
    for (std::size_t i = 0; i < kMaxBuffers && input.left() > 0; ++i) {
        put(rig, input);
    }
    rig.end();
    return 0;
}

int LLVMFuzzerInitialize(int*, char***) {
    fuzz::IncrementalRig::instance();
    return 0;
}
